#include <gtest/gtest.h>

#include <thread>

#include "daemon/supervisor.h"
#include "support/test_platform.h"

namespace tessary {
namespace {

using plist::Array;
using plist::Dictionary;
using plist::Value;
using testing::definition;

Value args(const std::vector<std::string>& a) {
    return Value(plist::stringArray(a));
}

class ModelTest : public ::testing::Test {
  protected:
    ServicePtr make(const Value& d) { return TYSupervisedService::make(supervisor, d); }
    JobPtr jobOf(const ServicePtr& s) { return s->jobs().front(); }

    testing::TestPlatform t;
    TYSupervisor supervisor{t.platform};
    TYSupervisorPreferences& prefs = supervisor.preferences();
};

TEST_F(ModelTest, SubmittedDictionaryIsStrippedOverriddenAndPrefixed) {
    prefs.setProgramArgumentsForServiceJob(args({"/bin/echo", "override"}), "a", "a");
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
    EXPECT_EQ(*submitted.find("ProgramArguments"), args({"/bin/echo", "override"}));
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
TEST_F(ModelTest, ProgramAloneAndEmptyCalendarsLeaveNoKey) {
    ServicePtr programService =
        make(Value(Dictionary{{"Label", Value("p")}, {"Program", Value("/bin/true")}}));
    EXPECT_EQ(jobOf(programService)->programArguments().value(), args({"/bin/true"}));
    EXPECT_EQ(jobOf(programService)->dictionary().find("ProgramArguments"), nullptr);

    const Value hour(Dictionary{{"Hour", Value::integer(1)}});
    ServicePtr service = make(definition("c", {{"StartCalendarInterval", hour}}));
    JobPtr job = jobOf(service);
    EXPECT_EQ(job->startCalendarIntervals(), Value(Array{hour}));
    job->setStartCalendarIntervals(Value(Array{}));
    EXPECT_EQ(job->dictionary().find("StartCalendarInterval"), nullptr);
    EXPECT_EQ(prefs.startCalendarIntervalsForServiceJob("c", "c").value(), Value(Array{}));
}

TEST_F(ModelTest, PlaceholderJobsNeverReachTheServiceManager) {
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

TEST_F(ModelTest, FailuresAreOneLineEach) {
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

TEST_F(ModelTest, SharedAuthorizationIsMadeOnceAcrossThreadsAndRetriedAfterFailure) {
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
    EXPECT_EQ(t.authorization.lastCreateFlags(), kAuthorizationFlagExtendRights);
}

// How often each predicate asks the service manager is part of its design:
// `startable` asks `loaded` only when the service is on, `stopable` never
// asks, and `stale` asks only of transient jobs.
TEST_F(ModelTest, PredicatesAndTheQuestionsTheyAsk) {
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
TEST_F(ModelTest, ComponentRules) {
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

TEST_F(ModelTest, SleepFlagsAndTheServicesOwnAssertion) {
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
    EXPECT_EQ(t.powerAssertions.held.begin()->second,
              Value(Dictionary{{"AssertType", Value("PreventUserIdleSystemSleep")},
                               {"AssertLevel", Value::integer(255)},
                               {"AssertName", Value("w")}}));
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

TEST_F(ModelTest, StopMigrateAndResetOfAStartedService) {
    ServicePtr s = make(definition("r"));
    s->stop();  // nothing loaded: no removal
    EXPECT_EQ(t.serviceManager.asked().removeCalls, 0);
    s->migrate();  // removes without asking
    EXPECT_EQ(t.serviceManager.asked().removeCalls, 1);

    // Stopped, rebuilt without its overrides, and submitted again.
    prefs.setServiceEnabled("r", true);
    s->setOn(true);
    jobOf(s)->setProgramArguments(args({"/bin/echo", "custom"}));
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
              args({"/bin/sleep", "1000"}));
}

}  // namespace
}  // namespace tessary
