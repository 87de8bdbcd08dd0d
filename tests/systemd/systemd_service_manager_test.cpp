// The systemd backend against a real systemd (see real_systemd.h): jobs are
// submitted, really run, and are removed again.
#include "platform/linux/systemd/systemd_service_manager.h"

#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>

#include <filesystem>
#include <map>
#include <thread>

#include "base/unique_fd.h"
#include "doubles/recording_system_log.h"
#include "support/temp_dir.h"
#include "systemd/real_systemd.h"

namespace tessary::linux_backend {
namespace {

using namespace std::chrono_literals;
using plist::Dictionary;
using plist::Value;

struct GrantedAuthorization final : Authorization {};

// What the probe recorded: its pid, argv and environment.
struct ProbeRecord {
    pid_t pid = 0;
    std::vector<std::string> argv;
    std::map<std::string, std::string> env;
};

std::optional<ProbeRecord> readRecord(const std::string& path) {
    if (!std::filesystem::exists(path)) {
        return std::nullopt;
    }
    const std::string data = testing::readFile(path);
    ProbeRecord record;
    std::size_t start = 0;
    for (std::size_t end; (end = data.find('\0', start)) != std::string::npos; start = end + 1) {
        const std::string field = data.substr(start, end - start);
        if (field.starts_with("pid=")) {
            record.pid = std::stoi(field.substr(4));
        } else if (field.starts_with("arg=")) {
            record.argv.push_back(field.substr(4));
        } else if (field.starts_with("env=")) {
            const auto eq = field.find('=', 4);
            record.env[field.substr(4, eq - 4)] = field.substr(eq + 1);
        }
    }
    return record;
}

class SystemdServiceManagerTest : public testing::RealSystemdTest {
  protected:
    void SetUp() override {
        RealSystemdTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        // Labels unique to the test, so that a failed test leaves nothing in
        // the way of the next one.
        prefix_ = std::string("com.tessary.test.") +
                  ::testing::UnitTest::GetInstance()->current_test_info()->name();
    }
    void TearDown() override {
        for (const auto& label : submitted_) {
            if (backend.jobIsEnabled(label)) {
                (void)backend.removeJob(label, auth, true);
            }
        }
    }

    std::string label(const std::string& suffix = "job") const { return prefix_ + "." + suffix; }
    // Removed at the end of the test if it is still loaded.
    void track(const std::string& label) { submitted_.push_back(label); }

    // A job running the probe, recording into the test's directory.
    Dictionary probeJob(const std::string& label, Dictionary env = {},
                        std::vector<std::string> args = {}) {
        track(label);
        env["PROBE_OUT"] = Value(recordPath(label));
        args.insert(args.begin(), JOB_PROBE);
        return {{"Label", Value(label)},
                {"ProgramArguments", Value(plist::stringArray(args))},
                {"EnvironmentVariables", Value(std::move(env))}};
    }
    std::string recordPath(const std::string& label) const { return dir.path() + "/" + label; }
    std::optional<ProbeRecord> waitForRecord(const std::string& label) {
        std::optional<ProbeRecord> record;
        testing::eventually([&] { return (record = readRecord(recordPath(label))).has_value(); });
        return record;
    }
    static bool unitFileExists(const std::string& unit) {
        return std::filesystem::exists(std::string(testing::kManagerUnitDirectory) + "/" + unit);
    }
    static bool processGone(pid_t pid) { return ::kill(pid, 0) != 0 && errno == ESRCH; }

    testing::TempDir dir;
    testing::RecordingSystemLog log;
    SystemdServiceManager backend{
        {testing::kManagerSocket, testing::kManagerUnitDirectory, "/opt/tessary-helpers"}, log};
    AuthorizationRef auth = std::make_shared<GrantedAuthorization>();

  private:
    std::string prefix_;
    std::vector<std::string> submitted_;
};

const std::vector<std::string> kHostile = {
    "line one\nExecStartPre=/bin/sh -c 'touch /tmp/owned'",
    "say \"hi\" and 'bye'",
    "100% %n %i %%",
    "$HOME ${HOME} $$ $",
    "back\\slash \\n trailing\\",
    "tab\there and bell\x07",
    "",
    ";",
    "  spaces at both ends  ",
    "unicode \xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80",
};

TEST_F(SystemdServiceManagerTest, RunAtLoadJobRunsExactlyAsGivenAndRemovalLeavesNothing) {
    const std::string job = label();
    Dictionary env{{"PROBE_STAY", Value("1")}};
    for (std::size_t i = 0; i < kHostile.size(); ++i) {
        env["HOSTILE_" + std::to_string(i)] = Value(kHostile[i]);
    }
    Dictionary dict = probeJob(job, env, kHostile);
    dict["RunAtLoad"] = Value::boolean(true);
    dict["Nice"] = Value::integer(3);
    ASSERT_TRUE(backend.submitJob(Value(dict), auth).ok());

    auto record = waitForRecord(job);
    ASSERT_TRUE(record.has_value());
    std::vector<std::string> expected = {JOB_PROBE};
    expected.insert(expected.end(), kHostile.begin(), kHostile.end());
    EXPECT_EQ(record->argv, expected);
    for (std::size_t i = 0; i < kHostile.size(); ++i) {
        EXPECT_EQ(record->env["HOSTILE_" + std::to_string(i)], kHostile[i]) << i;
    }
    EXPECT_TRUE(record->env["PATH"].starts_with("/opt/tessary-helpers:")) << record->env["PATH"];
    EXPECT_FALSE(std::filesystem::exists("/tmp/owned"));
    EXPECT_TRUE(backend.jobIsEnabled(job));
    EXPECT_EQ(manager.activeState(job + ".service"), "active");

    ASSERT_TRUE(backend.removeJob(job, auth, true).ok());
    EXPECT_TRUE(processGone(record->pid));
    EXPECT_FALSE(backend.jobIsEnabled(job));
    EXPECT_FALSE(manager.loaded(job + ".service"));
    EXPECT_FALSE(unitFileExists(job + ".service"));
    // A second removal has nothing to remove.
    const Status again = backend.removeJob(job, auth, true);
    ASSERT_FALSE(again.ok());
    EXPECT_NE(again.error().description.find("not loaded"), std::string::npos);
}

TEST_F(SystemdServiceManagerTest, JobWithoutTriggerIsLoadedNotRunAndCannotBeSubmittedTwice) {
    const std::string job = label();
    // Calls for a job the manager has never heard of leave no trace.
    EXPECT_FALSE(backend.jobIsEnabled(job));
    const Value dict(probeJob(job, {{"PROBE_STAY", Value("1")}}));
    ASSERT_TRUE(backend.submitJob(dict, auth).ok());
    EXPECT_TRUE(backend.jobIsEnabled(job));
    EXPECT_EQ(manager.activeState(job + ".service"), "inactive");
    const std::string unitFile =
        std::string(testing::kManagerUnitDirectory) + "/" + job + ".service";
    const auto before = std::filesystem::last_write_time(unitFile);

    std::this_thread::sleep_for(20ms);
    const Status second = backend.submitJob(dict, auth);
    ASSERT_FALSE(second.ok());
    EXPECT_NE(second.error().description.find("already loaded"), std::string::npos)
        << second.error().description;
    EXPECT_EQ(std::filesystem::last_write_time(unitFile), before);
    EXPECT_FALSE(readRecord(recordPath(job)).has_value());

    ASSERT_TRUE(backend.removeJob(job, auth, true).ok());
    EXPECT_FALSE(backend.jobIsEnabled(job));
    // Once removed it can be submitted again.
    ASSERT_TRUE(backend.submitJob(dict, auth).ok());
    EXPECT_TRUE(backend.jobIsEnabled(job));
}

TEST_F(SystemdServiceManagerTest, RefusedRequestsTouchNothing) {
    const std::string job = label();
    Dictionary dict = probeJob(job, {{"PROBE_STAY", Value("1")}});
    dict["RunAtLoad"] = Value::boolean(true);

    const Status unauthorized = backend.submitJob(Value(dict), nullptr);
    ASSERT_FALSE(unauthorized.ok());
    EXPECT_NE(unauthorized.error().description.find("Not authorized"), std::string::npos);
    EXPECT_FALSE(unitFileExists(job + ".service"));
    EXPECT_FALSE(backend.jobIsEnabled(job));

    dict["Label"] = Value("com.tessary.test/not a unit");
    const Status badLabel = backend.submitJob(Value(dict), auth);
    ASSERT_FALSE(badLabel.ok());
    EXPECT_NE(badLabel.error().description.find("not a valid systemd unit name"),
              std::string::npos);
    EXPECT_FALSE(backend.removeJob("com.tessary.test/not a unit", auth, true).ok());
    EXPECT_FALSE(backend.jobIsEnabled("com.tessary.test/not a unit"));

    // Unauthorized removal of a running job leaves it running.
    dict["Label"] = Value(job);
    ASSERT_TRUE(backend.submitJob(Value(dict), auth).ok());
    ASSERT_TRUE(waitForRecord(job).has_value());
    EXPECT_FALSE(backend.removeJob(job, nullptr, true).ok());
    EXPECT_TRUE(backend.jobIsEnabled(job));
    EXPECT_EQ(manager.activeState(job + ".service"), "active");

    // A unit the manager refuses to load (a socket path too long for a Unix
    // socket leaves the socket unit without any socket) fails with the
    // manager's reason and leaves no file behind.
    const std::string refused = label("refused");
    Dictionary bad = probeJob(refused);
    bad["Sockets"] = Value(
        Dictionary{{"Listeners",
                    Value(Dictionary{{"SockPathName", Value("/tmp/" + std::string(200, 's'))}})}});
    const Status notLoaded = backend.submitJob(Value(bad), auth);
    ASSERT_FALSE(notLoaded.ok());
    EXPECT_NE(notLoaded.error().description.find("did not load " + refused + ".socket"),
              std::string::npos)
        << notLoaded.error().description;
    EXPECT_FALSE(unitFileExists(refused + ".service"));
    EXPECT_FALSE(unitFileExists(refused + ".socket"));
    EXPECT_FALSE(backend.jobIsEnabled(refused));
}

TEST_F(SystemdServiceManagerTest, CalendarJobGetsATimerDueAtTheNextMatchingMinute) {
    const std::string job = label();
    // A minute a few minutes ahead, in local time as the manager reads it.
    const time_t now = ::time(nullptr);
    const time_t ahead = now + 5 * 60;
    struct tm due {};
    ::localtime_r(&ahead, &due);
    due.tm_sec = 0;
    const time_t expected = ::mktime(&due);
    Dictionary dict = probeJob(job);
    dict["StartCalendarInterval"] = Value(
        Dictionary{{"Hour", Value::integer(due.tm_hour)}, {"Minute", Value::integer(due.tm_min)}});
    ASSERT_TRUE(backend.submitJob(Value(dict), auth).ok());

    EXPECT_EQ(manager.activeState(job + ".timer"), "active");
    EXPECT_EQ(manager.activeState(job + ".service"), "inactive");
    const auto next = manager.u64Property(job + ".timer", "org.freedesktop.systemd1.Timer",
                                          "NextElapseUSecRealtime");
    ASSERT_TRUE(next.has_value());
    EXPECT_EQ(static_cast<time_t>(*next / 1000000), expected);

    ASSERT_TRUE(backend.removeJob(job, auth, true).ok());
    EXPECT_FALSE(manager.loaded(job + ".timer"));
    EXPECT_FALSE(unitFileExists(job + ".timer"));
}

// What the probe behind a socket sends back: the names of all the sockets
// it was given.
std::string askThroughSocket(const std::string& path) {
    UniqueFd client(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
    if (::connect(client.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        return "(cannot connect)";
    }
    char buf[256] = {};
    const ssize_t n = ::read(client.get(), buf, sizeof buf - 1);
    return std::string(buf, n > 0 ? static_cast<std::size_t>(n) : 0U);
}

TEST_F(SystemdServiceManagerTest, SocketJobsStartOnConnectionAndFindTheirSocketsByName) {
    const std::string single = label("single");
    const std::string path = dir.path() + "/sockets/listener";
    Dictionary dict = probeJob(single, {{"PROBE_SOCKETS", Value("1")}});
    dict["Sockets"] =
        Value(Dictionary{{"Listeners", Value(Dictionary{{"SockPathName", Value(path)},
                                                        {"SockPathMode", Value::integer(0600)}})}});
    ASSERT_TRUE(backend.submitJob(Value(dict), auth).ok());
    ASSERT_TRUE(std::filesystem::is_socket(path));
    EXPECT_EQ(std::filesystem::status(path).permissions(),
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
    EXPECT_EQ(manager.activeState(single + ".service"), "inactive");
    EXPECT_EQ(askThroughSocket(path), "Listeners");
    ASSERT_TRUE(waitForRecord(single).has_value());

    // Several names: one socket unit each, all handed to the one service.
    const std::string several = label("several");
    const std::string first = dir.path() + "/sockets/first";
    const std::string second = dir.path() + "/sockets/second";
    Dictionary two = probeJob(several, {{"PROBE_SOCKETS", Value("1")}});
    two["Sockets"] =
        Value(Dictionary{{"alpha", Value(Dictionary{{"SockPathName", Value(first)}})},
                         {"beta", Value(Dictionary{{"SockPathName", Value(second)}})}});
    ASSERT_TRUE(backend.submitJob(Value(two), auth).ok());
    const std::string fromFirst = askThroughSocket(first);
    EXPECT_TRUE(fromFirst == "alpha:beta" || fromFirst == "beta:alpha") << fromFirst;
    EXPECT_EQ(askThroughSocket(second), fromFirst);

    for (const auto& job : {single, several}) {
        ASSERT_TRUE(backend.removeJob(job, auth, true).ok());
    }
    for (const auto& gone : {path, first, second}) {
        EXPECT_FALSE(std::filesystem::exists(gone)) << gone;
    }
    for (const auto& unit : {single + ".socket", several + "-alpha.socket",
                             several + "-beta.socket", several + ".service"}) {
        EXPECT_FALSE(manager.loaded(unit)) << unit;
        EXPECT_FALSE(unitFileExists(unit)) << unit;
    }
}

TEST_F(SystemdServiceManagerTest, KeptAliveJobComesBackAfterBeingKilled) {
    const std::string job = label();
    Dictionary dict = probeJob(job, {{"PROBE_STAY", Value("1")}});
    dict["KeepAlive"] = Value::boolean(true);
    dict["ThrottleInterval"] = Value::integer(1);
    ASSERT_TRUE(backend.submitJob(Value(dict), auth).ok());
    const auto first = waitForRecord(job);
    ASSERT_TRUE(first.has_value());
    std::filesystem::remove(recordPath(job));

    ASSERT_EQ(::kill(first->pid, SIGKILL), 0);
    const auto second = waitForRecord(job);
    ASSERT_TRUE(second.has_value());
    EXPECT_NE(second->pid, first->pid);

    // Removal stops it for good.
    std::filesystem::remove(recordPath(job));
    ASSERT_TRUE(backend.removeJob(job, auth, true).ok());
    EXPECT_TRUE(processGone(second->pid));
    std::this_thread::sleep_for(1500ms);
    EXPECT_FALSE(readRecord(recordPath(job)).has_value());
    EXPECT_FALSE(backend.jobIsEnabled(job));
}

TEST_F(SystemdServiceManagerTest, JobThatCannotStartReportsTheManagersReasonAndStaysRemovable) {
    const std::string job = label();
    track(job);
    const Value dict(Dictionary{{"Label", Value(job)},
                                {"Program", Value("/nonexistent/program")},
                                {"RunAtLoad", Value::boolean(true)}});
    const Status failed = backend.submitJob(dict, auth);
    ASSERT_FALSE(failed.ok());
    EXPECT_NE(failed.error().description.find("203/EXEC"), std::string::npos)
        << failed.error().description;
    EXPECT_TRUE(backend.jobIsEnabled(job));
    EXPECT_EQ(manager.activeState(job + ".service"), "failed");

    ASSERT_TRUE(backend.removeJob(job, auth, true).ok());
    EXPECT_FALSE(backend.jobIsEnabled(job));
    EXPECT_NE(manager.activeState(job + ".service"), "failed");  // failed state cleared too
}

TEST_F(SystemdServiceManagerTest, RemovalUnloadsAUnitThatAnotherUnitStillRefersTo) {
    const std::string job = label();
    ASSERT_TRUE(backend.submitJob(Value(probeJob(job)), auth).ok());
    // A running unit ordered after the job keeps the job's unit in the
    // manager's memory after its file is gone, until a Reload.
    const std::string holder = label("holder") + ".service";
    const std::string holderFile = std::string(testing::kManagerUnitDirectory) + "/" + holder;
    testing::writeFile(holderFile,
                       "[Unit]\nAfter=" + job + ".service\n[Service]\nExecStart=/bin/sleep 1000\n");
    ASSERT_TRUE(manager.start(holder));
    ASSERT_TRUE(testing::eventually([&] { return manager.activeState(holder) == "active"; }));

    const Status removed = backend.removeJob(job, auth, true);
    EXPECT_TRUE(removed.ok()) << removed.error().description;
    EXPECT_FALSE(manager.loaded(job + ".service"));
    EXPECT_FALSE(backend.jobIsEnabled(job));
    EXPECT_EQ(manager.activeState(holder), "active");
    std::filesystem::remove(holderFile);
}

TEST_F(SystemdServiceManagerTest, RemovesOfDifferentJobsOverlapInTime) {
    constexpr int kJobs = 20;
    std::vector<std::string> jobs;
    std::vector<pid_t> pids;
    for (int i = 0; i < kJobs; ++i) {
        jobs.push_back(label("slow" + std::to_string(i)));
        // Each takes a second to stop.
        Dictionary dict =
            probeJob(jobs.back(), {{"PROBE_STAY", Value("1")}, {"PROBE_TERM_MS", Value("1000")}});
        dict["RunAtLoad"] = Value::boolean(true);
        ASSERT_TRUE(backend.submitJob(Value(dict), auth).ok());
    }
    for (const auto& job : jobs) {
        const auto record = waitForRecord(job);
        ASSERT_TRUE(record.has_value());
        pids.push_back(record->pid);
    }

    std::vector<Status> results(kJobs);
    const auto start = std::chrono::steady_clock::now();
    {
        std::vector<std::jthread> threads;
        for (int i = 0; i < kJobs; ++i) {
            threads.emplace_back([&, i] { results[i] = backend.removeJob(jobs[i], auth, true); });
        }
    }
    const auto elapsed = std::chrono::steady_clock::now() - start;
    for (int i = 0; i < kJobs; ++i) {
        EXPECT_TRUE(results[i].ok()) << jobs[i] << ": " << results[i].error().description;
        EXPECT_TRUE(processGone(pids[i])) << jobs[i];
        EXPECT_FALSE(backend.jobIsEnabled(jobs[i])) << jobs[i];
    }
    // Every stop waited its second; one after the other they would take 20.
    EXPECT_GE(elapsed, 1s);
    EXPECT_LT(elapsed, 5s) << std::chrono::duration<double>(elapsed).count() << " s";
}

}  // namespace
}  // namespace tessary::linux_backend
