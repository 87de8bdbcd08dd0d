#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <thread>

#include "daemon/supervisor.h"
#include "support/process.h"
#include "support/test_platform.h"

namespace tessary {
namespace {

using plist::Array;
using plist::Dictionary;
using plist::Value;
using testing::definition;
using testing::strings;

// The supervisor and its services on the doubles.
class SupervisionTest : public ::testing::Test {
  protected:
    ServicePtr make(const Value& d) { return TYSupervisedService::make(supervisor, d); }
    JobPtr jobOf(const ServicePtr& s) { return s->jobs().front(); }
    std::vector<std::string> labels() {
        std::vector<std::string> out;
        for (const auto& s : *supervisor.services()) {
            out.push_back(s->label());
        }
        return out;
    }
    std::string builtIn(const std::string& name) {
        return t.paths.builtInDefinitions() + "/" + name;
    }

    testing::TestPlatform t;
    TYSupervisor supervisor{t.platform};
    TYSupervisorPreferences& prefs = supervisor.preferences();
};

TEST_F(SupervisionTest, SubmittedDictionaryIsStrippedOverriddenAndPrefixed) {
    prefs.setProgramArgumentsForServiceJob(strings({"/bin/echo", "override"}), "a", "a");
    prefs.setStartCalendarIntervalsForServiceJob(Value(Dictionary{{"Hour", Value::integer(3)}}),
                                                 "a", "a");
    const Value d =
        definition("a", {{"Disabled", Value::boolean(true)},
                         {"Transient", Value::boolean(true)},
                         {"PreventsSleep", Value::integer(1)},
                         {"UnloadOnSleep", Value::boolean(false)},
                         {"KeepAlive", Value::boolean(true)},
                         {"EnvironmentVariables",
                          Value(Dictionary{{"TESSARY_INSTALL_PATH_PREFIX", Value("/elsewhere")},
                                           {"OTHER", Value("kept")}})}});
    ServicePtr s = make(d);
    JobPtr job = jobOf(s);
    EXPECT_TRUE(job->transient());
    EXPECT_TRUE(job->preventsSleep());
    EXPECT_FALSE(job->unloadOnSleep());
    EXPECT_EQ(s->dictionary(), d);  // the service keeps its definition whole

    job->submit();
    const Value submitted = t.serviceManager.jobFor("a").value();
    for (const char* gone : {"Disabled", "Transient", "PreventsSleep", "UnloadOnSleep"}) {
        EXPECT_EQ(submitted.find(gone), nullptr) << gone;
    }
    EXPECT_EQ(*submitted.find("ProgramArguments"), strings({"/bin/echo", "override"}));
    EXPECT_EQ(*submitted.find("StartCalendarInterval"),
              Value(Dictionary{{"Hour", Value::integer(3)}}));
    EXPECT_EQ(*submitted.find("KeepAlive"), Value::boolean(true));
    EXPECT_EQ(*submitted.find("EnvironmentVariables"),
              Value(Dictionary{{"TESSARY_INSTALL_PATH_PREFIX",
                                Value("/Applications/Tessary.app/Contents/TessaryRoot")},
                               {"OTHER", Value("kept")}}));
    EXPECT_EQ(t.log.entries().front().level, LogLevel::Debug);
    EXPECT_EQ(t.log.lines(), (std::vector<std::string>{"SUBMIT: a"}));
}

// Overrides reaching a loaded job are the end-to-end tests'; these are the
// values a job derives.
TEST_F(SupervisionTest, ProgramAloneAndEmptyCalendarsLeaveNoKey) {
    ServicePtr programService =
        make(Value(Dictionary{{"Label", Value("p")}, {"Program", Value("/bin/true")}}));
    EXPECT_EQ(jobOf(programService)->programArguments().value(), strings({"/bin/true"}));
    EXPECT_EQ(jobOf(programService)->dictionary().find("ProgramArguments"), nullptr);

    const Value hour(Dictionary{{"Hour", Value::integer(1)}});
    ServicePtr service = make(definition("c", {{"StartCalendarInterval", hour}}));
    JobPtr job = jobOf(service);
    EXPECT_EQ(job->startCalendarIntervals(), Value(Array{hour}));
    job->setStartCalendarIntervals(Value(Array{}));
    EXPECT_EQ(job->dictionary().find("StartCalendarInterval"), nullptr);
    EXPECT_EQ(prefs.startCalendarIntervalsForServiceJob("c", "c").value(), Value(Array{}));
}

TEST_F(SupervisionTest, PlaceholderJobsNeverReachTheServiceManager) {
    ServicePtr s = make(Value(Dictionary{{"Label", Value("ph")}}));
    JobPtr job = jobOf(s);
    EXPECT_FALSE(job->programArguments());
    EXPECT_EQ(job->loaded(), Answer::Yes);
    job->submit();
    job->remove();
    EXPECT_EQ(t.serviceManager.asked().loadedQueries + t.serviceManager.asked().submitCalls +
                  t.serviceManager.asked().removeCalls,
              0);
    EXPECT_TRUE(t.log.empty());
    s->setOn(true);
    EXPECT_TRUE(s->started());
    EXPECT_FALSE(s->startable());
}

TEST_F(SupervisionTest, FailuresAreOneLineEach) {
    ServicePtr service = make(definition("f"));
    JobPtr job = jobOf(service);
    t.serviceManager.failSubmit("f", "Unit f.service has a bad setting");
    job->submit();
    job->remove();
    EXPECT_EQ(t.log.lines(), (std::vector<std::string>{
                                 "SUBMIT: f", "ERROR: LodgeJob: Unit f.service has a bad setting",
                                 "REMOVE: f", "ERROR: WithdrawJob: No such job: f"}));
    EXPECT_EQ(t.log.entries()[1].level, LogLevel::Error);
    EXPECT_TRUE(t.serviceManager.asked().lastRemoveWaited);
}

TEST_F(SupervisionTest, SharedAuthorizationIsMadeOnceAcrossThreadsAndRetriedAfterFailure) {
    t.authorization.setFailCreate(true);
    ServicePtr service = make(definition("x"));
    JobPtr job = jobOf(service);
    job->submit();
    EXPECT_EQ(t.authorization.createCalls(), 1);
    t.authorization.setFailCreate(false);

    std::vector<std::jthread> threads;
    for (int i = 0; i < 16; ++i) {
        threads.emplace_back([&] { job->remove(); });
    }
    threads.clear();
    EXPECT_EQ(t.authorization.createCalls(), 2);
}

// How often each predicate asks the service manager is part of its design:
// `startable` asks `loaded` only when the service is on, `stopable` never
// asks, and `stale` asks only of transient jobs.
TEST_F(SupervisionTest, PredicatesAndTheQuestionsTheyAsk) {
    auto questions = [this] {
        const int n = t.serviceManager.asked().loadedQueries;
        t.serviceManager.resetCounters();
        return n;
    };
    ServicePtr s = make(definition("q"));
    EXPECT_TRUE(s->stopable());  // new: loadable, off, not needed
    EXPECT_FALSE(s->startable());
    EXPECT_EQ(s->stale(), Answer::No);
    EXPECT_EQ(questions(), 0);
    s->setOn(true);
    EXPECT_TRUE(s->startable());
    EXPECT_EQ(questions(), 1);
    EXPECT_FALSE(s->stopable());
    EXPECT_EQ(questions(), 0);
    t.serviceManager.load("q");
    EXPECT_FALSE(s->startable());
    EXPECT_TRUE(s->started());

    ServicePtr transient = make(definition("tr", {{"Transient", Value::boolean(true)}}));
    questions();
    EXPECT_EQ(transient->stale(), Answer::Yes);
    EXPECT_EQ(questions(), 1);
    t.serviceManager.load("tr");
    EXPECT_EQ(transient->stale(), Answer::No);

    // Without an answer a service is neither started nor stopped, nor stale.
    t.serviceManager.leaveUnanswered("tr");
    transient->setOn(true);
    EXPECT_FALSE(transient->startable());
    EXPECT_FALSE(transient->started());
    EXPECT_EQ(transient->stale(), Answer::Unknown);
    transient->stop();
    EXPECT_EQ(t.serviceManager.asked().removeCalls, 0);
}

// No definition fills a component list, but the nesting rules hold for
// whatever does: `needed` does not look at the service it is asked about,
// the deeper search asks each component whether it lists itself, and `start`
// starts the components where `stop` leaves them alone.
TEST_F(SupervisionTest, ComponentRules) {
    ServicePtr inner = make(definition("inner"));
    ServicePtr middle = TYSupervisedService::make(supervisor, definition("middle"), {inner});
    ServicePtr outer = TYSupervisedService::make(supervisor, definition("outer"), {middle});
    supervisor.setServices(
        std::make_shared<std::vector<ServicePtr>>(std::vector<ServicePtr>{inner, middle, outer}));
    EXPECT_TRUE(outer->hasComponentService(*middle));
    EXPECT_FALSE(outer->hasComponentService(*inner));
    EXPECT_FALSE(outer->hasComponentService(*outer));

    outer->setOn(true);
    EXPECT_FALSE(middle->needed());
    EXPECT_TRUE(middle->stopable());  // off, and not needed by the switched-on outer

    outer->start();
    EXPECT_EQ(t.serviceManager.asked().submitted,
              (std::vector<std::string>{"inner", "middle", "outer"}));
    EXPECT_EQ(outer->loaded(), Answer::Yes);
    t.serviceManager.resetCounters();
    outer->stop();
    EXPECT_EQ(t.serviceManager.asked().removed, std::vector<std::string>{"outer"});
    EXPECT_EQ(t.serviceManager.loadedLabels(), (std::set<std::string>{"inner", "middle"}));
    EXPECT_EQ(outer->loaded(), Answer::No);
    EXPECT_EQ(middle->loaded(), Answer::Yes);

    // A component that may not load holds back the service that lists it,
    // which `stopable` asks before it looks at the switch.
    ServicePtr sleepy = make(definition("sleepy", {{"UnloadOnSleep", Value::boolean(true)}}));
    ServicePtr holder = TYSupervisedService::make(supervisor, definition("holder"), {sleepy});
    holder->setOn(true);
    supervisor.setDrowsy(true);
    EXPECT_FALSE(holder->loadable());
    EXPECT_TRUE(holder->stopable());
}

TEST_F(SupervisionTest, SleepFlagsAndTheServicesOwnAssertion) {
    ServicePtr sleepy = make(definition("s", {{"UnloadOnSleep", Value::boolean(true)}}));
    sleepy->setOn(true);
    EXPECT_TRUE(sleepy->startable());
    supervisor.setDrowsy(true);
    EXPECT_FALSE(sleepy->startable());
    EXPECT_TRUE(sleepy->stopable());  // even though it is on
    supervisor.setDrowsy(false);

    ServicePtr awake = make(definition("w", {{"PreventsSleep", Value::boolean(true)}}));
    awake->setOn(true);
    awake->setOn(true);
    ASSERT_EQ(t.powerAssertions.held.size(), 1U);
    EXPECT_EQ(*t.powerAssertions.held.begin()->second.stringAt("AssertName"), "w");
    // Once the administrator turns sleep prevention off, the next switch-on
    // releases the assertion although the service stays on.
    prefs.writePreferences({{"disablePreventsSleep", Value::boolean(true)}});
    EXPECT_FALSE(awake->preventsSleep());
    awake->setOn(true);
    EXPECT_TRUE(t.powerAssertions.held.empty());
    EXPECT_EQ(awake->denySleepAssertion(), 0U);
    EXPECT_TRUE(awake->on());

    const auto releasesBefore = t.powerAssertions.released.size();
    make(definition("plain"))->setOn(false);
    EXPECT_EQ(t.powerAssertions.released.size(), releasesBefore);
}

TEST_F(SupervisionTest, StopMigrateAndResetOfAStartedService) {
    ServicePtr s = make(definition("r"));
    s->stop();  // nothing loaded: no removal
    EXPECT_EQ(t.serviceManager.asked().removeCalls, 0);
    s->migrate();  // removes without asking
    EXPECT_EQ(t.serviceManager.asked().removeCalls, 1);

    // Stopped, rebuilt without its overrides, and submitted again.
    prefs.setServiceEnabled("r", true);
    s->setOn(true);
    jobOf(s)->setProgramArguments(strings({"/bin/echo", "custom"}));
    s->start();
    const JobPtr old = jobOf(s);
    t.serviceManager.resetCounters();
    s->reset();
    // Whether it is started, whether its job is loaded before the removal,
    // and whether it is startable once rebuilt.
    EXPECT_EQ(t.serviceManager.asked().loadedQueries, 3);
    EXPECT_NE(jobOf(s), old);
    EXPECT_FALSE(prefs.programArgumentsForServiceJob("r", "r"));
    EXPECT_EQ(*t.serviceManager.jobFor("r")->find("ProgramArguments"),
              strings({"/bin/sleep", "1000"}));
}

TEST_F(SupervisionTest, LoadingReportsEveryRejectedDefinition) {
    t.addDefinition("one.plist", definition("com.example.dup", {{"n", Value::integer(1)}}));
    t.addDefinition("two.plist", definition("com.example.dup", {{"n", Value::integer(2)}}));
    t.addDefinition("ok.plist", definition("com.example.ok"));
    t.addDefinition("ok.plist.bak", definition("com.example.bak"));
    t.addDefinition(".plist", definition("com.example.hidden"));
    t.addDefinition("nolabel.plist", Value(Dictionary{{"Program", Value("/bin/true")}}));
    testing::writeFile(builtIn("garbage.plist"), "<plist><dict><key>Label</key>");
    testing::writeFile(builtIn("array.plist"), "<plist version=\"1.0\"><array/></plist>");
    // Jobs run as root: a definition others may write is none.
    namespace fs = std::filesystem;
    t.addDefinition("others.plist", definition("com.example.others"));
    fs::permissions(builtIn("others.plist"), fs::perms::others_write, fs::perm_options::add);
    prefs.setServiceEnabled("com.example.ok", true);

    supervisor.loadServices();

    // Of two definitions of one label, the one listed first wins.
    const auto names = t.files.listDirectory(t.paths.builtInDefinitions()).value();
    const bool oneFirst =
        std::ranges::find(names, "one.plist") < std::ranges::find(names, "two.plist");
    std::vector<std::string> expected, lines = t.log.lines();
    for (const char* n : {oneFirst ? "two.plist" : "one.plist", "ok.plist.bak", ".plist",
                          "nolabel.plist", "garbage.plist", "array.plist", "others.plist"}) {
        expected.push_back("Error loading dictionary at path: " + builtIn(n));
    }
    std::ranges::sort(expected);
    std::ranges::sort(lines);
    EXPECT_EQ(lines, expected);

    std::vector<std::string> got = labels();
    std::ranges::sort(got);
    EXPECT_EQ(got, (std::vector<std::string>{"com.example.dup", "com.example.ok"}));
    EXPECT_TRUE(supervisor.serviceWithLabel("com.example.ok")->on());
    EXPECT_FALSE(supervisor.serviceWithLabel("com.example.dup")->on());
    EXPECT_EQ(*supervisor.serviceWithLabel("com.example.dup")->dictionary().find("n"),
              Value::integer(oneFirst ? 1 : 2));
    EXPECT_EQ(t.serviceManager.asked().submitCalls, 0);  // loading starts nothing

    // Nor is any from a directory that its group may write.
    fs::permissions(t.paths.builtInDefinitions(), fs::perms::group_write, fs::perm_options::add);
    t.log.clear();
    supervisor.loadServices();
    EXPECT_TRUE(labels().empty());
    EXPECT_EQ(t.log.lines().size(), names.size());
}

TEST_F(SupervisionTest, DynamicServicesShareTheLabelsAndStaleOnesVanish) {
    t.addDefinition("builtin.plist", definition("shared"));
    const Dictionary transient{{"Transient", Value::boolean(true)}};
    for (const Value& d :
         {definition("shared", {{"dynamic", Value::boolean(true)}}), definition("dyn"),
          definition("dyn"), Value(Dictionary{{"Program", Value("/bin/true")}}),
          definition("stale", transient), definition("alive", transient),
          definition("unanswered", transient)}) {
        prefs.addDynamicServiceWithDictionary(d);
    }
    for (const char* on : {"stale", "dyn", "unanswered"}) {
        prefs.setServiceEnabled(on, true);
    }
    t.serviceManager.load("alive");
    t.serviceManager.leaveUnanswered("unanswered");

    supervisor.loadServices();

    EXPECT_EQ(labels(), (std::vector<std::string>{"shared", "dyn", "alive", "unanswered"}));
    EXPECT_EQ(supervisor.serviceWithLabel("shared")->dictionary().find("dynamic"), nullptr);
    EXPECT_TRUE(supervisor.serviceWithLabel("dyn")->on());
    EXPECT_TRUE(supervisor.serviceWithLabel("unanswered")->on());
    const auto lines = t.log.lines();
    ASSERT_EQ(lines.size(), 4U);
    EXPECT_EQ(lines[0], "Error loading dynamic service: shared");
    EXPECT_EQ(lines[1], "Error loading dynamic service: dyn");
    EXPECT_TRUE(lines[2].starts_with("Error loading dynamic service: {"));
    EXPECT_EQ(lines[3], "WARNING: Unable to learn whether unanswered is loaded; keeping it");
    EXPECT_EQ(t.log.entries()[3].level, LogLevel::Warning);

    // The stale service is gone from the stored definitions and the enabled
    // list in the same load; the duplicate definition and the one the
    // manager did not answer for stay stored.
    Array stored = *prefs.dynamicServices()->array();
    EXPECT_EQ(stored.size(), 6U);
    for (const Value& d : stored) {
        EXPECT_NE(d.stringAt("Label") != nullptr ? *d.stringAt("Label") : "", "stale");
    }
    EXPECT_FALSE(prefs.serviceIsEnabled("stale"));
    EXPECT_TRUE(prefs.serviceIsEnabled("dyn"));
}

// Each row of the decision table, and the drowsy rows, in one pass.
TEST_F(SupervisionTest, SyncStopsAndStartsByThePredicates) {
    for (const char* label : {"off-loaded", "on-unloaded", "on-loaded", "off-unloaded"}) {
        t.addDefinition(std::string(label) + ".plist", definition(label));
    }
    t.addDefinition("e.plist", definition("sleeper", {{"UnloadOnSleep", Value::boolean(true)}}));
    for (const char* on : {"on-unloaded", "on-loaded", "sleeper"}) {
        prefs.setServiceEnabled(on, true);
    }
    for (const char* loaded : {"off-loaded", "on-loaded", "sleeper"}) {
        t.serviceManager.load(loaded);
    }
    supervisor.loadServices();

    supervisor.syncServices();
    EXPECT_EQ(t.serviceManager.loadedLabels(),
              (std::set<std::string>{"on-unloaded", "on-loaded", "sleeper"}));
    EXPECT_EQ(t.serviceManager.asked().removed, (std::vector<std::string>{"off-loaded"}));
    EXPECT_EQ(t.serviceManager.asked().submitted, (std::vector<std::string>{"on-unloaded"}));

    // A second pass changes nothing.
    t.serviceManager.resetCounters();
    supervisor.syncServices();
    EXPECT_EQ(t.serviceManager.asked().submitCalls + t.serviceManager.asked().removeCalls, 0);

    // Will-sleep: the service that unloads on sleep is stopped and not
    // started again in the same pass; did-wake brings it back.
    supervisor.setDrowsy(true);
    supervisor.syncServices();
    EXPECT_EQ(t.serviceManager.asked().removed, (std::vector<std::string>{"sleeper"}));
    EXPECT_EQ(t.serviceManager.asked().submitCalls, 0);
    supervisor.setDrowsy(false);
    supervisor.syncServices();
    EXPECT_EQ(t.serviceManager.asked().submitted, (std::vector<std::string>{"sleeper"}));
}

// A service's own sleep assertion is one while it is switched on, and stays
// one through a reload of the services, which makes new objects.
TEST_F(SupervisionTest, ASleepAssertionStaysOneThroughAReload) {
    t.addDefinition("awake.plist", definition("awake", {{"PreventsSleep", Value::boolean(true)}}));
    supervisor.loadServices();
    supervisor.setServiceEnabled(*supervisor.serviceWithLabel("awake"), true);
    EXPECT_EQ(t.powerAssertions.held.size(), 1U);
    TYSupervisor::Arguments none;
    (void)supervisor.restoreServicesWithArguments(none);
    EXPECT_EQ(t.powerAssertions.held.size(), 1U);
    supervisor.setServiceEnabled(*supervisor.serviceWithLabel("awake"), false);
    EXPECT_TRUE(t.powerAssertions.held.empty());
}

// The figure each stop reports, by label.
std::map<std::string, double> stopTimes(const testing::RecordingSystemLog& log) {
    std::map<std::string, double> out;
    for (const auto& line : log.lines()) {
        double seconds = 0;
        char label[64] = {};
        if (std::sscanf(line.c_str(), "WARNING: Service %63s took %lf seconds to stop", label,
                        &seconds) == 2) {
            out[label] = seconds;
        }
    }
    return out;
}

class StopAllSupervisionTest : public SupervisionTest {
  protected:
    // Loaded and running; the stop of service i takes (i + 1) * `step`.
    void runServices(int count, std::chrono::milliseconds step) {
        for (int i = 0; i < count; ++i) {
            const std::string label = "svc" + std::to_string(i);
            t.addDefinition(label + ".plist", definition(label));
            prefs.setServiceEnabled(label, true);
            t.serviceManager.setRemoveDelay(label, step * (i + 1));
            delays[label] = std::chrono::duration<double>(step * (i + 1)).count();
        }
        supervisor.loadServices();
        supervisor.syncServices();
        ASSERT_EQ(t.serviceManager.loadedLabels().size(), static_cast<std::size_t>(count));
        testing::writeFile(t.paths.setupDoneMarker(), "");
        t.log.clear();
    }
    std::map<std::string, double> delays;  // seconds each stop takes
};

// The stops run all at once, and every line is written, however quick.
TEST_F(StopAllSupervisionTest, EveryStopRunsAtOnce) {
    runServices(10, std::chrono::milliseconds(30));
    supervisor.stopAllServices();
    EXPECT_EQ(t.serviceManager.asked().mostRemovesInFlight, 10);
    EXPECT_TRUE(t.serviceManager.loadedLabels().empty());
    EXPECT_FALSE(std::filesystem::exists(t.paths.setupDoneMarker()));
    EXPECT_TRUE(prefs.serviceIsEnabled("svc3"));  // the choices stay
    const auto times = stopTimes(t.log);
    ASSERT_EQ(times.size(), 10U);
    EXPECT_EQ(t.log.countStartingWith("WARNING: Service "), 10U);
    EXPECT_GE(times.at("svc9"), 0.3);
}

// A process that may start no thread still stops every service, each on the
// calling thread: a demotion must not end half-way. One after the other,
// each figure counts from the common start, so it includes the stops before.
TEST_F(StopAllSupervisionTest, WithoutThreadsEveryServiceStopsHere) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root to become a user who may start no thread";
    }
    runServices(3, std::chrono::milliseconds(100));
    const pid_t child = ::fork();
    if (child == 0) {
        const rlimit none{0, 0};
        if (!testing::becomeNobody() || ::setrlimit(RLIMIT_NPROC, &none) != 0) {
            ::_exit(90);
        }
        supervisor.stopAllServices();
        auto times = stopTimes(t.log);
        const bool whole =
            t.serviceManager.loadedLabels().empty() &&
            t.log.countStartingWith("WARNING: Unable to start a worker to stop ") == 3;
        bool fromTheStart = times.size() == 3;
        double stopsSoFar = 0;
        for (const ServicePtr& s : *supervisor.services()) {
            stopsSoFar += delays[s->label()];
            fromTheStart = fromTheStart && times[s->label()] >= stopsSoFar;
        }
        ::_exit(whole ? (fromTheStart ? 0 : 2) : 1);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

}  // namespace
}  // namespace tessary
