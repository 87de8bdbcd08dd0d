// The daemon following the app's fate, run as a unit of a real systemd that
// restarts it always: promotions that end and that are abandoned, the app
// replaced (the daemon updates itself and comes back), the app removed (the
// daemon uninstalls itself). The cases run in this order and build on each
// other, as they would on one machine.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

#include "client/tessary_client.h"
#include "plist/codec.h"
#include "support/value_printer.h"

namespace tessary {
namespace {

using namespace std::chrono_literals;
using plist::Value;
namespace fs = std::filesystem;

constexpr const char* kSocket = "/run/com.orvane.tessaryd";
constexpr const char* kPrefs = "/Library/Tessary/Setup/com.orvane.tessaryd.plist";
constexpr const char* kMarker = "/var/db/.TessarySetupDone";
constexpr const char* kInstalled = "/Library/PrivilegedHelperTools/com.orvane.tessaryd";
constexpr const char* kApp = "/Applications/Tessary.app";

std::string run(const std::string& cmd) {
    FILE* p = ::popen((cmd + " 2>/dev/null").c_str(), "r");
    std::string out;
    char buf[256];
    std::size_t n = 0;
    while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) {
        out.append(buf, n);
    }
    ::pclose(p);
    while (!out.empty() && out.back() == '\n') {
        out.pop_back();
    }
    return out;
}

int daemonPid() {
    const std::string pid =
        run("systemctl --user show -p MainPID --value com.orvane.tessaryd.service");
    return pid.empty() ? 0 : std::stoi(pid);
}

bool eventually(const std::function<bool()>& condition, std::chrono::seconds limit = 20s) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < end) {
        if (condition()) {
            return true;
        }
        std::this_thread::sleep_for(50ms);
    }
    return condition();
}

client::Reply ask(const std::string& command, plist::Dictionary arguments = {}) {
    client::Request request{command, client::makeAuthorizationForm().value(), std::nullopt};
    if (!arguments.empty()) {
        request.arguments = std::move(arguments);
    }
    auto reply = client::sendRequest(kSocket, request, 20s);
    return reply.ok() ? reply.value() : client::Reply{};
}

bool answers() {
    auto reply = client::sendRequest(kSocket, {"status", std::nullopt, std::nullopt}, 2s);
    return reply.ok() && reply.value().returnCode == 0;
}

plist::Value preferences() {
    std::ifstream in(kPrefs, std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    auto v = plist::decode(std::string_view(bytes));
    return v.ok() ? v.value() : Value();
}

// A promoting client in a child process: begins, and ends when told to.
int promoteInChild(bool end) {
    const pid_t child = ::fork();
    if (child == 0) {
        int code = ask("beginPromotion").returnCode == 0 ? 0 : 10;
        if (code == 0 && end) {
            code = ask("endPromotion").returnCode == 0 ? 0 : 11;
        }
        ::_exit(code);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 99;
}

class Lifecycle : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(eventually(answers)) << "the daemon does not answer"; }
};

TEST_F(Lifecycle, A_PromotionThatEndsRestoresTheServices) {
    fs::remove(kMarker);
    const int pid = daemonPid();
    EXPECT_EQ(promoteInChild(true), 0);
    EXPECT_TRUE(fs::exists(kMarker));
    EXPECT_EQ(preferences().find("activePromotionType"), nullptr);
    // The client has gone after the end: the daemon stays.
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(daemonPid(), pid);
    EXPECT_TRUE(answers());
}

TEST_F(Lifecycle, B_AbandonedPromotionEndsTheDaemonAndTheNextStartCleansUp) {
    // Two parked services make the machine "updatable", so the clean-up keeps
    // the daemon installed: enabled, then parked by a start without the
    // setup-done marker.
    ASSERT_EQ(ask("enable", {{"service", Value("com.example.idle")}}).returnCode, 0);
    ASSERT_EQ(ask("enable", {{"service", Value("com.example.probe")}}).returnCode, 0);
    fs::remove(kMarker);
    run("systemctl --user restart com.orvane.tessaryd.service");
    ASSERT_TRUE(eventually(answers));
    ASSERT_EQ(preferences().find("previouslyEnabledServices")->array()->size(), 2U);
    const int before = daemonPid();
    const pid_t child = ::fork();
    if (child == 0) {
        // Begin, and leave without ending.
        ::_exit(ask("beginPromotion").returnCode == 0 ? 0 : 10);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    ASSERT_TRUE(eventually([&] { return daemonPid() != before && daemonPid() != 0; }));
    ASSERT_TRUE(eventually(answers));
    const Value prefs = preferences();
    EXPECT_EQ(prefs.find("activePromotionType"), nullptr);
    EXPECT_FALSE(fs::exists(kMarker));
    EXPECT_TRUE(fs::exists(kInstalled));
}

TEST_F(Lifecycle, C_ReplacedAppUpdatesTheDaemon) {
    const int before = daemonPid();
    const std::string oldInode = run(std::string("stat -c %i ") + kInstalled);
    // A new copy of the app: the same version, a rebuilt daemon inside.
    fs::copy(kApp, "/Applications/Tessary.app.new", fs::copy_options::recursive);
    {
        std::ofstream grow(
            "/Applications/Tessary.app.new/Contents/Library/LaunchServices/"
            "com.orvane.tessaryd",
            std::ios::app | std::ios::binary);
        grow << '\n';
    }
    fs::rename(kApp, "/Applications/Tessary.app.old");
    fs::rename("/Applications/Tessary.app.new", kApp);

    ASSERT_TRUE(eventually([&] { return daemonPid() != before && daemonPid() != 0; }, 30s));
    ASSERT_TRUE(eventually(answers));
    EXPECT_NE(run(std::string("stat -c %i ") + kInstalled), oldInode);
    EXPECT_EQ(
        fs::file_size(kInstalled),
        fs::file_size(std::string(kApp) + "/Contents/Library/LaunchServices/com.orvane.tessaryd"));
    fs::remove_all("/Applications/Tessary.app.old");
}

std::string contentsOf(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void writeFile(const std::string& path, const std::string& bytes,
               std::ios::openmode mode = std::ios::trunc) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path, std::ios::binary | mode) << bytes;
}

// A copy tool that makes the directory first and writes the files over eight
// seconds, the daemon copy in two halves and the main executable last: the
// daemon waits for the whole copy and updates itself to it, never demotes.
TEST_F(Lifecycle, C2_SlowCopyIsWaitedForAndInstalledWhole) {
    const int before = daemonPid();
    const std::string daemonCopy =
        std::string(kApp) + "/Contents/Library/LaunchServices/com.orvane.tessaryd";
    const std::string executable = std::string(kApp) + "/Contents/MacOS/Tessary";
    const std::string newDaemon = contentsOf(daemonCopy) + "\n\n";  // a rebuilt daemon
    const std::string newExecutable = contentsOf(executable);
    fs::copy(kApp, "/run/tessary-copy-source", fs::copy_options::recursive);
    const std::string logBefore = contentsOf("/run/tessaryd.syslog");

    fs::remove_all(kApp);
    fs::create_directories(std::string(kApp) + "/Contents");
    std::this_thread::sleep_for(1s);
    for (const char* part : {"Contents/Info.plist", "Contents/Resources", "Contents/TessaryRoot"}) {
        fs::copy(std::string("/run/tessary-copy-source/") + part, std::string(kApp) + "/" + part,
                 fs::copy_options::recursive);
    }
    std::this_thread::sleep_for(2s);
    const std::size_t half = newDaemon.size() / 2;
    writeFile(daemonCopy, newDaemon.substr(0, half));
    std::this_thread::sleep_for(3s);  // the removal delay ends meanwhile
    writeFile(daemonCopy, newDaemon.substr(half), std::ios::app);
    ::chmod(daemonCopy.c_str(), 0755);
    std::this_thread::sleep_for(2s);
    writeFile(executable, newExecutable);
    ::chmod(executable.c_str(), 0755);

    ASSERT_TRUE(eventually([&] { return daemonPid() != before && daemonPid() != 0; }, 30s));
    ASSERT_TRUE(eventually(answers));
    EXPECT_EQ(contentsOf(kInstalled), newDaemon);
    const std::string log = contentsOf("/run/tessaryd.syslog").substr(logBefore.size());
    EXPECT_NE(log.find("was replaced."), std::string::npos) << log;
    EXPECT_EQ(log.find("was removed."), std::string::npos) << log;
    fs::remove_all("/run/tessary-copy-source");
}

// Root's inotify instances used up by others when the daemon starts: it
// cannot watch the app, says so, and goes on as for an app in place, with
// its choices; the watch is tried again and holds once instances are free
// (the removal below is seen through it).
TEST_F(Lifecycle, C3_NoInotifyAtStartIsNoRemoval) {
    ASSERT_EQ(ask("enable", {{"service", Value("com.example.idle")}}).returnCode, 0);
    const Value enabledBefore = *preferences().find("enabledServices");
    std::ofstream(kMarker).flush();  // a machine that was set up: nothing is parked
    // Stopped first, so that the instance it held is used up too.
    run("systemctl --user stop com.orvane.tessaryd.service");
    int ready[2];
    int release[2];
    ASSERT_EQ(::pipe(ready), 0);
    ASSERT_EQ(::pipe(release), 0);
    const pid_t hog = ::fork();
    if (hog == 0) {
        const rlimit files{65536, 65536};
        (void)::setrlimit(RLIMIT_NOFILE, &files);
        while (::inotify_init1(IN_CLOEXEC) >= 0) {
        }
        (void)::write(ready[1], "x", 1);
        // Whatever another process of root's gives back meanwhile is taken
        // too, until the release.
        pollfd released{release[0], POLLIN, 0};
        while (::poll(&released, 1, 5) == 0) {
            while (::inotify_init1(IN_CLOEXEC) >= 0) {
            }
        }
        ::_exit(0);
    }
    char c = 0;
    ASSERT_EQ(::read(ready[0], &c, 1), 1);
    const std::string logBefore = contentsOf("/run/tessaryd.syslog");
    run("systemctl --user start com.orvane.tessaryd.service");
    const bool answered = eventually(answers);
    (void)::write(release[1], "x", 1);
    ::waitpid(hog, nullptr, 0);
    ASSERT_TRUE(answered);
    const std::string log = contentsOf("/run/tessaryd.syslog").substr(logBefore.size());
    EXPECT_NE(log.find("ERROR: Unable to watch /Applications/Tessary.app"), std::string::npos)
        << log;
    EXPECT_EQ(log.find("not found."), std::string::npos) << log;
    EXPECT_TRUE(fs::exists(kInstalled));
    EXPECT_EQ(*preferences().find("enabledServices"), enabledBefore);
    EXPECT_TRUE(fs::exists("/run/systemd/system/com.example.idle.service"));  // still loaded
    std::this_thread::sleep_for(11s);  // the watch is tried again
}

TEST_F(Lifecycle, D_RemovedAppUninstallsTheDaemon) {
    // A service running a program from inside the bundle keeps the bundle's
    // directory referenced while it runs; the removal must be seen all the
    // same. Its stop takes a second, so the bundle is gone before the stop
    // of all services that the first sign of removal begins has finished.
    ASSERT_EQ(ask("enable", {{"service", Value("com.example.inside")}}).returnCode, 0);
    ASSERT_EQ(ask("enable", {{"service", Value("com.example.probe")}}).returnCode, 0);
    ASSERT_TRUE(eventually(
        [] { return run("systemctl --user is-active com.example.inside.service") == "active"; }));
    fs::remove_all(kApp);

    // Five seconds for a copy to come back, then the removal.
    EXPECT_TRUE(eventually([] { return !fs::exists(kInstalled); }, 30s));
    EXPECT_TRUE(eventually([] { return daemonPid() == 0; }, 30s));
    EXPECT_TRUE(eventually(
        [] { return run("systemctl --user is-active com.orvane.tessaryd.service") != "active"; }));
    for (const char* unit : {"com.example.inside.service", "com.example.probe.service"}) {
        EXPECT_NE(run(std::string("systemctl --user is-active ") + unit), "active") << unit;
    }
    EXPECT_FALSE(fs::exists("/Library/Application Support/Orvane/Tessary"));
    EXPECT_FALSE(fs::exists(kSocket));
    // Its own job is gone from the service manager too.
    EXPECT_TRUE(
        eventually([] { return !fs::exists("/run/systemd/system/com.orvane.tessaryd.service"); }));
    const Value prefs = preferences();
    EXPECT_EQ(prefs.find("enabledServices"), nullptr);
    // It stays gone: nothing restarts it.
    std::this_thread::sleep_for(1s);
    EXPECT_EQ(daemonPid(), 0);
    EXPECT_FALSE(answers());
}

}  // namespace
}  // namespace tessary
