// The daemon following the app's fate, run as a unit of a real systemd that
// restarts it always: a promotion abandoned by its client, then the app
// removed while a service runs from inside it (the daemon uninstalls itself).
// A promotion that ends, the app replaced (the daemon updates itself) and the
// notices run on the booted machine of tests/machine; a copy of the app that
// arrives slowly, and a watch that cannot be set up at first, in the watcher's
// own tests.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

#include "client/tessary_client.h"
#include "plist/codec.h"
#include "support/process.h"
#include "support/value_printer.h"

namespace tessary {
namespace {

using namespace std::chrono_literals;
using plist::Value;
namespace fs = std::filesystem;
using testing::commandOutput;
using testing::eventually;

constexpr const char* kSocket = "/run/tessaryd/com.orvane.tessaryd";
constexpr const char* kPrefs = "/Library/Tessary/Setup/com.orvane.tessaryd.plist";
constexpr const char* kMarker = "/var/db/.TessarySetupDone";
constexpr const char* kInstalled = "/Library/PrivilegedHelperTools/com.orvane.tessaryd";
constexpr const char* kApp = "/Applications/Tessary.app";

int daemonPid() {
    const std::string pid =
        commandOutput("systemctl --user show -p MainPID --value com.orvane.tessaryd.service");
    return pid.empty() ? 0 : std::stoi(pid);
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
    auto v = plist::decode(std::string_view(testing::readFile(kPrefs)));
    return v.ok() ? v.value() : Value();
}

// A promoting client in a child process that begins and leaves without
// ending; its exit status.
int abandonPromotion() {
    const pid_t child = ::fork();
    if (child == 0) {
        ::_exit(ask("beginPromotion").returnCode == 0 ? 0 : 10);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 99;
}

class Lifecycle : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(eventually(answers)) << "the daemon does not answer"; }
};

TEST_F(Lifecycle, B_AbandonedPromotionEndsTheDaemonAndTheNextStartCleansUp) {
    // Two parked services make the machine "updatable", so the clean-up keeps
    // the daemon installed: enabled, then parked by a start without the
    // setup-done marker.
    ASSERT_EQ(ask("enable", {{"service", Value("com.example.idle")}}).returnCode, 0);
    ASSERT_EQ(ask("enable", {{"service", Value("com.example.probe")}}).returnCode, 0);
    fs::remove(kMarker);
    commandOutput("systemctl --user restart com.orvane.tessaryd.service");
    ASSERT_TRUE(eventually(answers));
    ASSERT_EQ(preferences().find("previouslyEnabledServices")->array()->size(), 2U);
    const int before = daemonPid();
    ASSERT_EQ(abandonPromotion(), 0);
    ASSERT_TRUE(eventually([&] { return daemonPid() != before && daemonPid() != 0; }));
    ASSERT_TRUE(eventually(answers));
    const Value prefs = preferences();
    EXPECT_EQ(prefs.find("activePromotionType"), nullptr);
    EXPECT_FALSE(fs::exists(kMarker));
    EXPECT_TRUE(fs::exists(kInstalled));
}

TEST_F(Lifecycle, D_RemovedAppUninstallsTheDaemon) {
    // A service running a program from inside the bundle keeps the bundle's
    // directory referenced while it runs; the removal must be seen all the
    // same. Its stop takes a second, so the bundle is gone before the stop
    // of all services that the first sign of removal begins has finished.
    ASSERT_EQ(ask("enable", {{"service", Value("com.example.inside")}}).returnCode, 0);
    ASSERT_EQ(ask("enable", {{"service", Value("com.example.probe")}}).returnCode, 0);
    ASSERT_TRUE(eventually([] {
        return commandOutput("systemctl --user is-active com.example.inside.service") == "active";
    }));
    fs::remove_all(kApp);

    // Five seconds for a copy to come back, then the removal.
    EXPECT_TRUE(eventually([] { return !fs::exists(kInstalled); }, 30s));
    EXPECT_TRUE(eventually([] { return daemonPid() == 0; }, 30s));
    EXPECT_TRUE(eventually([] {
        return commandOutput("systemctl --user is-active com.orvane.tessaryd.service") != "active";
    }));
    for (const char* unit : {"com.example.inside.service", "com.example.probe.service"}) {
        EXPECT_NE(commandOutput(std::string("systemctl --user is-active ") + unit), "active")
            << unit;
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
