// The daemon's two clean-up jobs against a real systemd (see real_systemd.h):
// the supervisor submits them through the systemd backend exactly as it does
// when it uninstalls or updates itself, and they really do their work, write
// their lines to the system log and remove themselves with jobtool. Also
// syslog on its own.
#include <sys/wait.h>

#include <sstream>

#include "daemon/supervisor.h"
#include "systemd/real_systemd.h"

namespace tessary::linux_backend {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using Strings = std::vector<std::string>;

constexpr const char* kUninstallLabel = "com.orvane.tessaryd.UninstallExtras";
constexpr const char* kKillallLabel = "com.orvane.tessaryd.killallTessaryApps";
constexpr const char* kExtras = "/Library/Tessary/.UninstallExtras";

// What `sender` has written to the system log so far, "<PRIORITY>TEXT" a
// line. A line of the test's own, written last, shows that every earlier
// one is in.
Strings logLines(const std::string& sender) {
    static int marks = 0;
    const std::string mark = "test: mark " + std::to_string(++marks);
    EXPECT_EQ(testing::runProcess(
                  {SYSLOG_COMMAND, "-s", "-k", "Sender", "test", "-k", "Message", mark.substr(6)})
                  .exitCode,
              0);
    Strings lines;
    EXPECT_TRUE(testing::eventually([&] {
        bool marked = false;
        lines.clear();
        std::istringstream log(testing::readFile(std::getenv("TESSARY_TEST_SYSLOG")));
        for (std::string line; std::getline(log, line);) {
            const std::size_t text = line.find('>') + 1;
            marked = marked || line.substr(text) == mark;
            if (line.compare(text, sender.size() + 2, sender + ": ") == 0) {
                lines.push_back(line.substr(0, text) + line.substr(text + sender.size() + 2));
            }
        }
        return marked;
    }));
    return lines;
}

class CleanupJobsTest : public testing::RealSystemdTest {
  protected:
    // Starts the clean-up job as the supervisor does and waits until it has
    // removed itself: no unit loaded, no unit file, and no failure left.
    void runCleanupJob(void (TYSupervisor::*start)(), const std::string& label) {
        const std::string unit = label + ".service";
        TYSupervisor supervisor(doubles.platform);
        (supervisor.*start)();
        for (const auto* lines : {&doubles.log, &log}) {
            for (const std::string& line : lines->lines()) {
                EXPECT_EQ(line.find("ERROR"), std::string::npos) << line;
            }
        }
        // A unit whose file is gone can still be running or be kept as
        // failed; gone, it is neither.
        std::string active;
        EXPECT_TRUE(testing::eventually(
            [&] {
                active = state(unit);
                return (active == "inactive" || active == "failed") &&
                       loadState(unit) != "loaded" && !testing::unitFileExists(unit);
            },
            30s))
            << label << " did not remove itself; " << active;
        EXPECT_EQ(active, "inactive");
        EXPECT_EQ(backend.jobIsEnabled(label), Answer::No);
    }
};

// The job runs its script under bash, as every job of /bin/sh: each extra,
// in sorted order, is named in one line at notice level and run, a failing
// one not stopping the others; the extras go and the job removes itself.
// Without extras it says and runs nothing, where a shell without shopt would
// run the loop once with the pattern itself.
TEST_F(CleanupJobsTest, TheUninstallJobRunsEachExtraAndRemovesItself) {
    const std::string ran = dir / "ran";
    for (const char* name : {"c-last", "a-first", "b-fails"}) {
        const std::string path = std::string(kExtras) + "/" + name;
        testing::writeFile(path, std::string("#!/bin/sh\necho ") + name + " >> " + ran +
                                     (name[0] == 'b' ? "\nexit 1\n" : "\n"));
        fs::permissions(path, fs::perms(0755));
    }
    runCleanupJob(&TYSupervisor::startUninstallExtrasService, kUninstallLabel);
    EXPECT_EQ(testing::readFile(ran), "a-first\nb-fails\nc-last\n");
    const std::string running = "<13>Running " + std::string(kExtras) + "/";  // user, notice
    EXPECT_EQ(logLines(kUninstallLabel),
              (Strings{running + "a-first...", running + "b-fails...", running + "c-last..."}));
    EXPECT_FALSE(fs::exists(kExtras));

    runCleanupJob(&TYSupervisor::startUninstallExtrasService, kUninstallLabel);
    EXPECT_EQ(logLines(kUninstallLabel).size(), 3U);
    EXPECT_TRUE(fs::exists("/Library/Tessary"));
}

TEST_F(CleanupJobsTest, TheKillallJobKillsEveryTessaryAndRemovesItself) {
    // killall goes by the process name, which is the executable's file name.
    const std::string tessary = dir / "Tessary";
    fs::copy_file("/bin/sleep", tessary);
    fs::permissions(tessary, fs::perms(0755));
    std::vector<pid_t> children;
    for (int i = 0; i < 2; ++i) {
        children.push_back(testing::spawnProcess({tessary, "300"}, dir / "tessary.log"));
    }
    runCleanupJob(&TYSupervisor::startKillallTessaryAppsService, kKillallLabel);
    for (pid_t& pid : children) {
        int status = 0;
        ASSERT_TRUE(testing::eventually([&] { return ::waitpid(pid, &status, WNOHANG) == pid; }));
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
    }
}

TEST_F(CleanupJobsTest, SyslogWritesTheMessageUnderTheSenderAtTheLevel) {
    const auto run =
        testing::runProcess({SYSLOG_COMMAND, "-s", "-k", "Sender", "com.example.sender", "-k",
                             "Level", "3", "-k", "Other", "ignored", "-k", "Message", "/x/a b..."});
    EXPECT_EQ(run.exitCode, 0) << run.output;
    // User facility (1), error (3).
    EXPECT_EQ(logLines("com.example.sender"), Strings{"<11>/x/a b..."});
    // No level beyond debug (7).
    EXPECT_EQ(testing::runProcess({SYSLOG_COMMAND, "-s", "-k", "Level", "8", "-k", "Message", "m"})
                  .exitCode,
              64);
}

}  // namespace
}  // namespace tessary::linux_backend
