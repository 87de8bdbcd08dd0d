// The systemd backend against a real systemd (see real_systemd.h): jobs are
// submitted, really run, and are removed again.
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <fstream>
#include <future>
#include <map>
#include <random>
#include <thread>

#include "base/unique_fd.h"
#include "systemd/real_systemd.h"
#include "systemd/unit_text.h"

namespace tessary::linux_backend {
namespace {

using namespace std::chrono_literals;
using plist::Dictionary;
using plist::Value;
using testing::kManagerUnitDirectory;
using testing::unitFileExists;

// What the job's main process runs with, as /proc shows it.
struct Running {
    pid_t pid = 0;
    std::vector<std::string> argv;
    std::map<std::string, std::string> env;
};

bool processGone(pid_t pid) {
    return ::kill(pid, 0) != 0 && errno == ESRCH;
}

class SystemdServiceManagerTest : public testing::RealSystemdTest {
  protected:
    // A job running the probe.
    static Dictionary probeJob(const std::string& label, Dictionary env = {},
                               std::vector<std::string> args = {}) {
        args.insert(args.begin(), JOB_PROBE);
        return {{"Label", Value(label)},
                {"ProgramArguments", Value(plist::stringArray(args))},
                {"EnvironmentVariables", Value(std::move(env))}};
    }
    // The probe running as the job's main process, once it does.
    static std::optional<Running> running(const std::string& label) {
        std::optional<Running> found;
        testing::eventually([&] {
            Running r;
            r.pid = std::atoi(testing::unitProperty(label + ".service", "MainPID").c_str());
            const std::string proc = "/proc/" + std::to_string(r.pid);
            std::ifstream cmdline(proc + "/cmdline"), env(proc + "/environ");
            for (std::string arg; std::getline(cmdline, arg, '\0');) {
                r.argv.push_back(arg);
            }
            for (std::string var; std::getline(env, var, '\0');) {
                r.env[var.substr(0, var.find('='))] = var.substr(var.find('=') + 1);
            }
            if (r.pid != 0 && !r.argv.empty() && r.argv[0] == JOB_PROBE) {
                found = r;
            }
            return found.has_value();
        });
        return found;
    }
};

TEST_F(SystemdServiceManagerTest, RunAtLoadJobRunsExactlyAsGivenAndRemovalLeavesNothing) {
    const std::string job = label();
    Dictionary env;
    for (std::size_t i = 0; i < testing::kHostileValues.size(); ++i) {
        env["HOSTILE_" + std::to_string(i)] = Value(testing::kHostileValues[i]);
    }
    Dictionary dict = probeJob(job, env, testing::kHostileValues);
    dict["RunAtLoad"] = Value::boolean(true);
    dict["Nice"] = Value::integer(3);
    ASSERT_TRUE(backend.submitJob(Value(dict), auth).ok());

    auto probe = running(job);
    ASSERT_TRUE(probe.has_value());
    std::vector<std::string> argv = {JOB_PROBE};
    argv.insert(argv.end(), testing::kHostileValues.begin(), testing::kHostileValues.end());
    EXPECT_EQ(probe->argv, argv);
    for (std::size_t i = 0; i < testing::kHostileValues.size(); ++i) {
        EXPECT_EQ(probe->env["HOSTILE_" + std::to_string(i)], testing::kHostileValues[i]) << i;
    }
    EXPECT_TRUE(probe->env["PATH"].starts_with(helpers + ":")) << probe->env["PATH"];
    EXPECT_FALSE(std::filesystem::exists("/tmp/owned"));
    EXPECT_EQ(state(job + ".service"), "active");

    // Removal without an authorization leaves it running.
    EXPECT_FALSE(backend.removeJob(job, nullptr, true).ok());
    EXPECT_EQ(state(job + ".service"), "active");

    ASSERT_TRUE(backend.removeJob(job, auth, true).ok());
    EXPECT_TRUE(processGone(probe->pid));
    EXPECT_EQ(backend.jobIsEnabled(job), Answer::No);
    EXPECT_EQ(loadState(job + ".service"), "not-found");
    EXPECT_FALSE(unitFileExists(job + ".service"));
    const Status again = backend.removeJob(job, auth, true);
    ASSERT_FALSE(again.ok());
    EXPECT_NE(again.error().description.find("not loaded"), std::string::npos);
}

TEST_F(SystemdServiceManagerTest, JobWithoutTriggerIsLoadedNotRunAndRefusalsChangeNothing) {
    const std::string job = label();
    const Dictionary dict = probeJob(job);
    EXPECT_EQ(backend.jobIsEnabled(job), Answer::No);
    ASSERT_TRUE(backend.submitJob(Value(dict), auth).ok());
    EXPECT_EQ(backend.jobIsEnabled(job), Answer::Yes);
    EXPECT_EQ(state(job + ".service"), "inactive");
    const std::string unitFile = std::string(kManagerUnitDirectory) + "/" + job + ".service";
    const auto written = std::filesystem::last_write_time(unitFile);
    std::this_thread::sleep_for(20ms);

    // A socket path too long for a Unix socket: the manager does not load
    // the socket unit, and says why.
    Dictionary unloadable = probeJob(label("unloadable"));
    unloadable["Sockets"] = Value(Dictionary{
        {"s", Value(Dictionary{{"SockPathName", Value("/tmp/" + std::string(200, 's'))}})}});
    std::vector<std::tuple<Dictionary, AuthorizationRef, std::string>> refused = {
        {dict, auth, "already loaded"},
        {probeJob(label("unauthorized")), nullptr, "Not authorized"},
        {unloadable, auth, "did not load " + label("unloadable") + ".socket"},
    };
    // Labels that must never become paths or directives, of jobs that would
    // run at once.
    for (const std::string& hostile : std::vector<std::string>{
             "../../../tmp/tessary-escape", "com.example/slash", "..", std::string(10000, 'a'),
             "com.example\nExecStartPre=/bin/touch /tmp/tessary-escape", "a b", ""}) {
        refused.emplace_back(probeJob(hostile), auth, "not a valid systemd unit name");
        std::get<0>(refused.back())["RunAtLoad"] = Value::boolean(true);
    }
    for (const auto& [refusedJob, authorization, reason] : refused) {
        const std::string name = *refusedJob.at("Label").string();
        const Status s = backend.submitJob(Value(refusedJob), authorization);
        ASSERT_FALSE(s.ok()) << reason;
        EXPECT_NE(s.error().description.find(reason), std::string::npos) << s.error().description;
        EXPECT_EQ(backend.jobIsEnabled(name), name == job ? Answer::Yes : Answer::No) << name;
        EXPECT_EQ(unitFileExists(name + ".service"), name == job) << name;
        EXPECT_FALSE(unitFileExists(name + ".socket")) << name;
        if (name != job) {
            EXPECT_FALSE(backend.removeJob(name, auth, true).ok()) << name;
        }
    }
    EXPECT_FALSE(std::filesystem::exists("/tmp/tessary-escape"));
    EXPECT_EQ(std::filesystem::last_write_time(unitFile), written);
    EXPECT_EQ(state(job + ".service"), "inactive");
    ASSERT_TRUE(backend.removeJob(job, auth, true).ok());
    ASSERT_TRUE(backend.submitJob(Value(dict), auth).ok());  // once removed, it can come again
}

TEST_F(SystemdServiceManagerTest, FailedJobStillReferredToIsRemovedWhole) {
    const std::string job = label();
    Dictionary dict = probeJob(job);
    dict["ProgramArguments"] = Value(plist::stringArray({"/nonexistent/program"}));
    dict["RunAtLoad"] = Value::boolean(true);
    const Status failed = backend.submitJob(Value(dict), auth);
    ASSERT_FALSE(failed.ok());
    EXPECT_NE(failed.error().description.find("203/EXEC"), std::string::npos)
        << failed.error().description;
    EXPECT_EQ(backend.jobIsEnabled(job), Answer::Yes);
    EXPECT_EQ(state(job + ".service"), "failed");

    // A running unit ordered after the job keeps the job's unit in the
    // manager's memory after its file is gone, until a Reload.
    const std::string holder = label("holder") + ".service";
    testing::writeFile(std::string(kManagerUnitDirectory) + "/" + holder,
                       "[Unit]\nAfter=" + job + ".service\n[Service]\nExecStart=/bin/sleep 1000\n");
    ASSERT_EQ(std::system(("systemctl --user start " + holder).c_str()), 0);

    const Status removed = backend.removeJob(job, auth, true);
    EXPECT_TRUE(removed.ok()) << removed.error().description;
    EXPECT_EQ(loadState(job + ".service"), "not-found");
    EXPECT_EQ(state(job + ".service"), "inactive");  // the failed state is cleared too
    EXPECT_EQ(state(holder), "active");
    std::filesystem::remove(std::string(kManagerUnitDirectory) + "/" + holder);
}

// Only units loaded from the unit directory are the job's: one of the same
// name from elsewhere is left alone and never shadowed; one of the directory
// that lost its file is still found and removed; one whose stop cannot be
// queued keeps its file and so stays the job's.
TEST_F(SystemdServiceManagerTest, OnlyUnitsOfTheUnitDirectoryAreTheJobs) {
    const std::string foreign = label("foreign");
    const std::string unit = foreign + ".service";
    ASSERT_EQ(
        std::system(("systemd-run --user --quiet --unit=" + unit + " /bin/sleep 1000").c_str()), 0);
    const std::string fragment = testing::unitProperty(unit, "FragmentPath");
    EXPECT_EQ(backend.jobIsEnabled(foreign), Answer::No);
    const Status removed = backend.removeJob(foreign, auth, true);
    ASSERT_FALSE(removed.ok());
    EXPECT_EQ(removed.error().code, ESRCH);
    const Status shadowing = backend.submitJob(Value(probeJob(foreign)), auth);
    ASSERT_FALSE(shadowing.ok());
    EXPECT_NE(shadowing.error().description.find(unit + " from '" + fragment + "'"),
              std::string::npos)
        << shadowing.error().description;
    EXPECT_EQ(state(unit), "active");
    EXPECT_EQ(testing::unitProperty(unit, "FragmentPath"), fragment);
    EXPECT_FALSE(unitFileExists(unit));

    const std::string orphan = label("orphan");
    Dictionary dict = probeJob(orphan);
    dict["RunAtLoad"] = Value::boolean(true);
    ASSERT_TRUE(backend.submitJob(Value(dict), auth).ok());
    const pid_t pid = running(orphan).value_or(Running{}).pid;
    std::filesystem::remove(std::string(kManagerUnitDirectory) + "/" + orphan + ".service");
    EXPECT_EQ(backend.jobIsEnabled(orphan), Answer::Yes);
    EXPECT_FALSE(backend.submitJob(Value(dict), auth).ok());
    const Status orphanRemoved = backend.removeJob(orphan, auth, true);
    EXPECT_TRUE(orphanRemoved.ok()) << orphanRemoved.error().description;
    EXPECT_TRUE(processGone(pid));
    EXPECT_EQ(backend.jobIsEnabled(orphan), Answer::No);

    const std::string stubborn = label("stubborn");
    testing::writeFile(std::string(kManagerUnitDirectory) + "/" + stubborn + ".service",
                       "[Unit]\nRefuseManualStop=yes\n[Service]\nExecStart=/bin/sleep 1000\n");
    ASSERT_EQ(std::system(("systemctl --user start " + stubborn + ".service").c_str()), 0);
    EXPECT_FALSE(backend.removeJob(stubborn, auth, true).ok());
    EXPECT_TRUE(unitFileExists(stubborn + ".service"));
    EXPECT_EQ(backend.jobIsEnabled(stubborn), Answer::Yes);
    (void)std::system(("systemctl --user stop " + unit).c_str());
}

// A manager that cannot be reached is no answer, never a "no": one that was
// never there, and one whose connection went (its socket gone, then a
// re-execution that closes every connection) until it can be reached again.
TEST_F(SystemdServiceManagerTest, AManagerOutOfReachIsNoAnswer) {
    const std::string job = label();
    ASSERT_TRUE(backend.submitJob(Value(probeJob(job)), auth).ok());
    SystemdServiceManager never{{dir / "no-manager", kManagerUnitDirectory, ""}, log};
    EXPECT_EQ(never.jobIsEnabled(job), Answer::Unknown);
    ASSERT_EQ(std::system("umount /run/systemd/private && systemctl --user daemon-reexec"), 0);
    EXPECT_EQ(backend.jobIsEnabled(job), Answer::Unknown);
    ASSERT_EQ(std::system("mount --bind \"$XDG_RUNTIME_DIR/systemd/private\" /run/systemd/private"),
              0);
    EXPECT_EQ(backend.jobIsEnabled(job), Answer::Yes);
    EXPECT_TRUE(backend.removeJob(job, auth, true).ok());
}

// A job's socket, timer and path unit go with it, found through its service
// or, when the service is gone, by the names they usually have.
TEST_F(SystemdServiceManagerTest, TriggersAreRemovedWithTheJobEvenWithoutItsService) {
    for (const bool serviceGone : {false, true}) {
        const std::string job = label(serviceGone ? "withoutService" : "whole");
        Dictionary dict = probeJob(job);
        dict["Sockets"] = Value(Dictionary{
            {"Listeners", Value(Dictionary{{"SockPathName", Value(dir.path() + "/" + job)}})}});
        dict["StartInterval"] = Value::integer(3600);
        dict["WatchPaths"] = Value(plist::stringArray({dir.path() + "/watched"}));
        ASSERT_TRUE(backend.submitJob(Value(dict), auth).ok()) << job;
        EXPECT_EQ(state(job + ".path"), "active") << job;
        EXPECT_EQ(state(job + ".socket"), "active") << job;
        EXPECT_EQ(state(job + ".timer"), "active") << job;
        if (serviceGone) {
            std::filesystem::remove(std::string(kManagerUnitDirectory) + "/" + job + ".service");
            ASSERT_EQ(std::system("systemctl --user daemon-reload"), 0);
            ASSERT_NE(loadState(job + ".service"), "loaded");
        }

        const Status removed = backend.removeJob(job, auth, true);
        EXPECT_TRUE(removed.ok()) << job << ": " << removed.error().description;
        for (const std::string& unit :
             {job + ".service", job + ".socket", job + ".timer", job + ".path"}) {
            EXPECT_EQ(loadState(unit), "not-found") << unit;
            EXPECT_FALSE(unitFileExists(unit)) << unit;
        }
    }
}

// A job that serves each connection with a process of its own: the
// template's instances come with connections, two at once, and go with the
// job while they serve.
TEST_F(SystemdServiceManagerTest, InetdJobServesEachConnectionAndGoesWhole) {
    const std::string job = label();
    const std::string path = dir.path() + "/echo";
    const Dictionary dict{
        {"Label", Value(job)},
        {"ProgramArguments", Value(plist::stringArray({"/bin/cat"}))},
        {"inetdCompatibility", Value(Dictionary{{"Wait", Value::boolean(false)}})},
        {"Sockets", Value(Dictionary{{"s", Value(Dictionary{{"SockPathName", Value(path)}})}})}};
    ASSERT_TRUE(backend.submitJob(Value(dict), auth).ok());
    EXPECT_EQ(backend.jobIsEnabled(job), Answer::Yes);
    std::vector<UniqueFd> clients;
    for (const char* line : {"one\n", "two\n"}) {
        clients.emplace_back(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        ASSERT_EQ(
            ::connect(clients.back().get(), reinterpret_cast<sockaddr*>(&address), sizeof address),
            0);
        ASSERT_EQ(::write(clients.back().get(), line, 4), 4);
    }
    for (std::size_t i = 0; i < clients.size(); ++i) {
        char echoed[4] = {};
        EXPECT_EQ(::read(clients[i].get(), echoed, sizeof echoed), 4);
        EXPECT_EQ(std::string(echoed, 4), i == 0 ? "one\n" : "two\n");
    }
    const std::string instances = "systemctl --user list-units --plain --no-legend '" + job + "@*'";
    EXPECT_EQ(testing::commandOutput(instances + " | wc -l"), "2");

    ASSERT_TRUE(backend.removeJob(job, auth, true).ok());
    EXPECT_EQ(backend.jobIsEnabled(job), Answer::No);
    EXPECT_EQ(testing::commandOutput(instances + " --all"), "");
    EXPECT_FALSE(unitFileExists(job + "@.service"));
    EXPECT_FALSE(std::filesystem::exists(path));
}

// With a main loop, whether a job is loaded is answered from a picture taken
// once a turn of the loop, and on other threads from the units the manager
// holds. The answers are those a question by name gives at that moment: through random submits and
// removals, which the picture follows within a turn, and changes made by others (stops, starts, a
// unit file gone, a file elsewhere that takes the unit's place), seen from the next turn, every
// job's answer is compared with a live question.
TEST_F(SystemdServiceManagerTest, LoadedAnswersMatchALiveQuestionThroughRandomChanges) {
    sd_event* rawEvent = nullptr;
    ASSERT_GE(sd_event_new(&rawEvent), 0);
    const SdEventPtr event(rawEvent);
    SystemdServiceManager looped{{testing::kManagerSocket, kManagerUnitDirectory, "", event.get()},
                                 log};
    const std::string elsewhere = std::string(std::getenv("XDG_CONFIG_HOME")) + "/systemd/user";
    std::filesystem::create_directories(elsewhere);
    std::vector<Dictionary> jobs = {probeJob(label("plain")), probeJob(label("runs")),
                                    probeJob(label("socket")), probeJob(label("inetd"))};
    jobs[1]["RunAtLoad"] = Value::boolean(true);
    jobs[2]["Sockets"] = Value(
        Dictionary{{"s", Value(Dictionary{{"SockPathName", Value(dir.path() + "/socket")}})}});
    jobs[3]["Sockets"] =
        Value(Dictionary{{"s", Value(Dictionary{{"SockPathName", Value(dir.path() + "/inetd")}})}});
    jobs[3]["inetdCompatibility"] = Value(Dictionary{{"Wait", Value::boolean(false)}});
    auto systemctl = [](const std::string& args) {
        (void)std::system(("systemctl --user --quiet " + args + " 2>/dev/null").c_str());
    };
    std::mt19937 random(20261125);
    for (int step = 0; step < 120; ++step) {
        const std::string job = *jobs[random() % jobs.size()].at("Label").string();
        const Dictionary& dict = *std::find_if(jobs.begin(), jobs.end(), [&](const Dictionary& d) {
            return *d.at("Label").string() == job;
        });
        const char* unit = random() % 2 == 0 ? ".service" : ".socket";
        const auto op = random() % 6;
        switch (op) {
            case 0:
                (void)looped.submitJob(Value(dict), auth);
                break;
            case 1:
                (void)looped.removeJob(job, auth, true);
                break;
            case 2:
                systemctl((random() % 2 == 0 ? "stop " : "start ") + job + unit);
                break;
            case 3:
                std::filesystem::remove(std::string(kManagerUnitDirectory) + "/" + job + unit);
                systemctl("daemon-reload");
                break;
            case 4:
                testing::writeFile(elsewhere + "/" + job + ".service",
                                   "[Service]\nExecStart=/bin/sleep 1000\n");
                systemctl("daemon-reload");
                break;
            default:
                std::filesystem::remove(elsewhere + "/" + job + ".service");
                systemctl("daemon-reload");
        }
        // Another's change is seen from the next turn of the loop; the
        // backend's own, within the turn.
        if (op >= 2 || step % 3 == 0) {
            (void)sd_event_run(event.get(), 0);
        }
        for (const auto& each : jobs) {
            const std::string& name = *each.at("Label").string();
            const Answer live = backend.jobIsEnabled(name);
            ASSERT_EQ(looped.jobIsEnabled(name), live) << "step " << step << ", " << name;
            // Off the loop's thread, as the stop of all asks.
            ASSERT_EQ(
                std::async(std::launch::async, [&] { return looped.jobIsEnabled(name); }).get(),
                live)
                << "step " << step << ", " << name << ", another thread";
        }
    }
    std::filesystem::remove_all(elsewhere);
    systemctl("daemon-reload");
    for (const auto& each : jobs) {
        (void)backend.removeJob(*each.at("Label").string(), auth, true);
    }
}

TEST_F(SystemdServiceManagerTest, RemovesOfDifferentJobsOverlapInTime) {
    constexpr int kJobs = 10;
    std::vector<std::string> jobs;
    std::vector<pid_t> pids;
    for (int i = 0; i < kJobs; ++i) {
        jobs.push_back(label("slow" + std::to_string(i)));
        // Each takes a second to stop.
        Dictionary dict = probeJob(jobs.back(), {{"PROBE_TERM_MS", Value("1000")}});
        dict["RunAtLoad"] = Value::boolean(true);
        ASSERT_TRUE(backend.submitJob(Value(dict), auth).ok());
    }
    for (const auto& job : jobs) {
        pids.push_back(running(job).value_or(Running{}).pid);
    }

    // Each stop takes a second: while they run, the manager holds the stop
    // jobs of all of them at once, where one after the other it would hold one.
    std::vector<Status> results(kJobs);
    std::atomic<bool> done = false;
    int mostJobs = 0;
    std::jthread watcher([&] {
        while (!done) {
            mostJobs = std::max(
                mostJobs, std::stoi(testing::commandOutput(
                              "systemctl --user list-jobs --no-legend | grep -c stop || true")));
        }
    });
    {
        std::vector<std::jthread> threads;
        for (int i = 0; i < kJobs; ++i) {
            threads.emplace_back([&, i] { results[i] = backend.removeJob(jobs[i], auth, true); });
        }
    }
    done = true;
    watcher.join();
    for (int i = 0; i < kJobs; ++i) {
        EXPECT_TRUE(results[i].ok()) << jobs[i] << ": " << results[i].error().description;
        EXPECT_TRUE(processGone(pids[i])) << jobs[i];
        EXPECT_EQ(backend.jobIsEnabled(jobs[i]), Answer::No) << jobs[i];
    }
    EXPECT_EQ(mostJobs, kJobs);
}

}  // namespace
}  // namespace tessary::linux_backend
