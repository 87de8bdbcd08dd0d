// The daemon's two clean-up jobs against a real systemd: the supervisor
// submits them through the systemd backend exactly as it does when it
// uninstalls or updates itself, with the project's jobtool and syslog first on
// their PATH, and they really do their work and remove themselves with
// jobtool. Also syslog on its own.
//
// Needs root, a private systemd (tests/systemd/with-systemd.sh) and a private
// tmpfs over /Library (tests/systemd/with-private-library.sh), since the
// uninstall script names /Library/Tessary/.UninstallExtras.
#include <linux/magic.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/statfs.h>
#include <sys/un.h>

#include <cstring>
#include <filesystem>

#include "base/unique_fd.h"
#include "daemon/supervisor.h"
#include "platform/linux/sd_handles.h"
#include "platform/linux/systemd/systemd_service_manager.h"
#include "support/process.h"
#include "support/test_platform.h"
#include "systemd/real_systemd.h"

namespace tessary::linux_backend {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

constexpr const char* kUninstallLabel = "com.orvane.tessaryd.UninstallExtras";
constexpr const char* kKillallLabel = "com.orvane.tessaryd.killallTessaryApps";
constexpr const char* kExtras = "/Library/Tessary/.UninstallExtras";
UniqueFd logSocket(const std::string& path) {
    UniqueFd fd(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::strncpy(a.sun_path, path.c_str(), sizeof a.sun_path - 1);
    ::unlink(path.c_str());
    const bool bound = fd && ::bind(fd.get(), reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
    return bound ? std::move(fd) : UniqueFd();
}

// Sets one variable in the manager's environment, which every job it starts
// inherits.
bool setManagerEnvironment(const std::string& assignment) {
    sd_bus* raw = nullptr;
    if (sd_bus_new(&raw) < 0) {
        return false;
    }
    const SdBusPtr bus(raw);
    SdBusError error;
    return sd_bus_set_address(raw, (std::string("unix:path=") + testing::kManagerSocket).c_str()) >=
               0 &&
           sd_bus_start(raw) >= 0 &&
           sd_bus_call_method(raw, "org.freedesktop.systemd1", "/org/freedesktop/systemd1",
                              "org.freedesktop.systemd1.Manager", "SetEnvironment", error.get(),
                              nullptr, "as", 1, assignment.c_str()) >= 0;
}

// Runs `argv` to its end in a mount namespace of its own whose /dev holds
// nothing but a /dev/log leading to `devLog`, with `path` first on its PATH.
testing::ProcessRun runTool(const std::vector<std::string>& argv, const std::string& devLog,
                            const std::string& path = "/usr/bin:/bin") {
    return testing::runProcess(argv, {}, [&] {
        return ::setenv("PATH", (path + ":/usr/bin:/bin").c_str(), 1) == 0 &&
               ::unshare(CLONE_NEWNS) == 0 &&
               ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
               ::mount("tmpfs", "/dev", "tmpfs", 0, "mode=0755") == 0 &&
               ::symlink(devLog.c_str(), "/dev/log") == 0;
    });
}

// The datagrams written to a log socket so far.
std::vector<std::string> logLines(const UniqueFd& log) {
    std::vector<std::string> lines;
    char buf[1024];
    for (ssize_t n; (n = ::recv(log.get(), buf, sizeof buf, MSG_DONTWAIT)) > 0;) {
        lines.emplace_back(buf, static_cast<std::size_t>(n));
    }
    return lines;
}

class CleanupJobsTest : public testing::RealSystemdTest {
  protected:
    void SetUp() override {
        RealSystemdTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        struct statfs library {};
        if (std::getenv("TESSARY_PRIVATE_LIBRARY") == nullptr ||
            ::statfs("/Library", &library) != 0 || library.f_type != TMPFS_MAGIC) {
            GTEST_SKIP() << "needs a private tmpfs over /Library: run it through "
                            "tests/systemd/with-private-library.sh (CTest label \"systemd\")";
        }
        fs::create_directories(helpers);
        fs::create_symlink(JOBTOOL, helpers + "/jobtool");
        fs::create_symlink(SYSLOG_COMMAND, helpers + "/syslog");
        privateLibrary = true;
        // In sanitizer builds, the leak check at the exit of a jobtool that
        // ends inside its own stopping unit stops the process with ptrace, and
        // the SIGCONT that systemd sends with the stop's SIGTERM can leave that
        // check waiting forever. The jobs of this private manager run without
        // it; the jobtool run from the test itself still has it.
        std::string asan =
            std::getenv("ASAN_OPTIONS") != nullptr ? std::getenv("ASAN_OPTIONS") : "";
        asan = "ASAN_OPTIONS=" + asan + (asan.empty() ? "" : ":") + "detect_leaks=0";
        ASSERT_TRUE(setManagerEnvironment(asan));
    }
    void TearDown() override {
        if (!privateLibrary) {
            return;  // skipped: nothing here is the test's to clean up
        }
        for (pid_t& pid : children) {
            testing::stopProcess(pid, SIGKILL);
        }
        for (const char* label : {kUninstallLabel, kKillallLabel}) {
            if (backend.jobIsEnabled(label) != Answer::No) {
                (void)backend.removeJob(label, auth, true);
            }
        }
        std::error_code ec;
        fs::remove_all("/Library/Tessary", ec);
    }

    // Starts the clean-up job as the supervisor does and waits until it has
    // removed itself: no unit loaded, no unit file, and no failure left.
    void runCleanupJob(void (TYSupervisor::*start)(), const std::string& label) {
        const std::string unit = label + ".service";
        TYSupervisor supervisor(doubles.platform);
        (supervisor.*start)();
        for (const auto* log : {&doubles.log, &backendLog}) {
            for (const std::string& line : log->lines()) {
                EXPECT_EQ(line.find("ERROR"), std::string::npos) << line;
            }
        }
        // A unit whose file is gone can still be running or be kept as
        // failed; gone, it is neither.
        std::string state;
        EXPECT_TRUE(testing::eventually(
            [&] {
                state = manager.activeState(unit);
                return (state == "inactive" || state == "failed") && !manager.loaded(unit) &&
                       !fs::exists(std::string(testing::kManagerUnitDirectory) + "/" + unit);
            },
            30s))
            << label << " did not remove itself; " << state;
        EXPECT_EQ(state, "inactive");
        EXPECT_EQ(backend.jobIsEnabled(label), Answer::No);
    }

    testing::TempDir dir;
    std::string helpers = dir / "bin";
    testing::RecordingSystemLog backendLog;
    SystemdServiceManager backend{
        {testing::kManagerSocket, testing::kManagerUnitDirectory, helpers}, backendLog};
    testing::TestPlatform doubles{&backend};
    AuthorizationRef auth = doubles.authorization.create({}, 0).authorization;
    std::vector<pid_t> children;
    bool privateLibrary = false;
};

// The uninstall script as the job runs it (under bash, as every job of
// /bin/sh), with a log of the test's: each extra, in sorted order, is named
// in one line and run, a failing one not stopping the others. Without
// extras it says and runs nothing; under a shell without shopt the loop would
// run once with the pattern itself.
TEST_F(CleanupJobsTest, TheUninstallScriptNamesAndRunsEachExtra) {
    testing::TestPlatform plain;
    TYSupervisor(plain.platform).startUninstallExtrasService();
    std::vector<std::string> argv;
    for (const plist::Value& a :
         *plain.serviceManager.jobFor(kUninstallLabel)->find("ProgramArguments")->array()) {
        argv.push_back(*a.string());
    }
    ASSERT_EQ(argv.at(0), "/bin/sh");
    argv[0] = "/bin/bash";
    const std::string ran = dir / "ran";
    for (const char* name : {"c-last", "a-first", "b-fails"}) {
        const std::string path = std::string(kExtras) + "/" + name;
        testing::writeFile(path, std::string("#!/bin/sh\necho ") + name + " >> " + ran +
                                     (name[0] == 'b' ? "\nexit 1\n" : "\n"));
        fs::permissions(path, fs::perms(0755));
    }
    // jobtool stands aside: the job's removal of itself is the next test's.
    const std::string bin = dir / "direct-bin";
    fs::create_directories(bin);
    fs::create_symlink(SYSLOG_COMMAND, bin + "/syslog");
    fs::create_symlink("/bin/true", bin + "/jobtool");
    const std::string socket = dir / "log";
    const UniqueFd log = logSocket(socket);
    ASSERT_TRUE(log.valid());

    auto run = runTool(argv, socket, bin);
    EXPECT_EQ(run.output, "");
    EXPECT_EQ(testing::readFile(ran), "a-first\nb-fails\nc-last\n");
    const auto lines = logLines(log);
    ASSERT_EQ(lines.size(), 3U);
    for (std::size_t i = 0; i < lines.size(); ++i) {
        const std::string name[] = {"a-first", "b-fails", "c-last"};
        EXPECT_TRUE(lines[i].starts_with("<13>")) << lines[i];  // user facility, notice
        EXPECT_NE(lines[i].find(" com.orvane.tessaryd.UninstallExtras["), std::string::npos);
        EXPECT_TRUE(
            lines[i].ends_with("]: Running " + std::string(kExtras) + "/" + name[i] + "..."))
            << lines[i];
    }
    EXPECT_FALSE(fs::exists(kExtras));

    fs::create_directories(kExtras);
    run = runTool(argv, socket, bin);
    EXPECT_EQ(run.output, "");
    EXPECT_TRUE(logLines(log).empty());
    EXPECT_FALSE(fs::exists(kExtras));
    EXPECT_TRUE(fs::exists("/Library/Tessary"));
}

// Submitted as the supervisor does, the job runs the extras and removes
// itself, whether there are extras or not.
TEST_F(CleanupJobsTest, TheUninstallJobRunsAndRemovesItself) {
    testing::writeFile(std::string(kExtras) + "/extra", "#!/bin/sh\ntouch " + (dir / "ran") + "\n");
    fs::permissions(std::string(kExtras) + "/extra", fs::perms(0755));
    runCleanupJob(&TYSupervisor::startUninstallExtrasService, kUninstallLabel);
    EXPECT_TRUE(fs::exists(dir / "ran"));
    EXPECT_FALSE(fs::exists(kExtras));
    runCleanupJob(&TYSupervisor::startUninstallExtrasService, kUninstallLabel);
}

TEST_F(CleanupJobsTest, TheKillallJobKillsEveryTessaryAndRemovesItself) {
    // killall goes by the process name, which is the executable's file name.
    const std::string tessary = dir / "Tessary";
    fs::copy_file("/bin/sleep", tessary);
    fs::permissions(tessary, fs::perms(0755));
    for (int i = 0; i < 2; ++i) {
        children.push_back(testing::spawnProcess({tessary, "300"}, dir / "tessary.log"));
    }
    runCleanupJob(&TYSupervisor::startKillallTessaryAppsService, kKillallLabel);
    for (pid_t& pid : children) {
        int status = 0;
        ASSERT_TRUE(testing::eventually([&] { return ::waitpid(pid, &status, WNOHANG) == pid; }));
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
        pid = -1;
    }
    children.clear();
}

TEST_F(CleanupJobsTest, SyslogWritesTheMessageUnderTheSenderAtTheLevel) {
    const std::string socket = dir / "log";
    const UniqueFd log = logSocket(socket);
    ASSERT_TRUE(log.valid());
    const auto run =
        runTool({SYSLOG_COMMAND, "-s", "-k", "Sender", "com.example.sender", "-k", "Level", "3",
                 "-k", "Other", "ignored", "-k", "Message", "Running /x/a b..."},
                socket);
    EXPECT_EQ(run.exitCode, 0) << run.output;
    const auto lines = logLines(log);
    ASSERT_EQ(lines.size(), 1U);
    const std::string& line = lines[0];
    EXPECT_TRUE(line.starts_with("<11>")) << line;  // user facility (1), error (3)
    EXPECT_NE(line.find(" com.example.sender["), std::string::npos) << line;
    EXPECT_TRUE(line.ends_with("]: Running /x/a b...")) << line;
    // No level beyond debug (7).
    EXPECT_EQ(
        runTool({SYSLOG_COMMAND, "-s", "-k", "Level", "8", "-k", "Message", "m"}, socket).exitCode,
        64);
}

}  // namespace
}  // namespace tessary::linux_backend
