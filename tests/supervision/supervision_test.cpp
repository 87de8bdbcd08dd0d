#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>

#include "daemon/supervisor.h"
#include "support/test_platform.h"

namespace tessary {
namespace {

using plist::Array;
using plist::Dictionary;
using plist::Value;
using testing::definition;

class SupervisionTest : public ::testing::Test {
  protected:
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

    // The listing order decides which duplicate wins.
    const auto names = t.files.listDirectory(t.paths.builtInDefinitions()).value();
    const auto first = std::find_if(names.begin(), names.end(), [](const auto& n) {
        return n == "one.plist" || n == "two.plist";
    });
    const std::string loser = *first == "one.plist" ? "two.plist" : "one.plist";
    std::vector<std::string> expected;
    for (const auto& n : names) {
        if (n == loser || n == "ok.plist.bak" || n == ".plist" || n == "nolabel.plist" ||
            n == "garbage.plist" || n == "array.plist" || n == "others.plist") {
            expected.push_back("Error loading dictionary at path: " + builtIn(n));
        }
    }
    EXPECT_EQ(t.log.lines(), expected);

    std::vector<std::string> got = labels();
    std::sort(got.begin(), got.end());
    EXPECT_EQ(got, (std::vector<std::string>{"com.example.dup", "com.example.ok"}));
    EXPECT_TRUE(supervisor.serviceWithLabel("com.example.ok")->on());
    EXPECT_FALSE(supervisor.serviceWithLabel("com.example.dup")->on());
    EXPECT_EQ(*supervisor.serviceWithLabel("com.example.dup")->dictionary().find("n"),
              Value::integer(*first == "one.plist" ? 1 : 2));
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
    prefs.addDynamicServiceWithDictionary(
        definition("shared", {{"dynamic", Value::boolean(true)}}));
    prefs.addDynamicServiceWithDictionary(definition("dyn"));
    prefs.addDynamicServiceWithDictionary(definition("dyn"));
    prefs.addDynamicServiceWithDictionary(Value(Dictionary{{"Program", Value("/bin/true")}}));
    prefs.addDynamicServiceWithDictionary(
        definition("stale", {{"Transient", Value::boolean(true)}}));
    prefs.addDynamicServiceWithDictionary(
        definition("alive", {{"Transient", Value::boolean(true)}}));
    prefs.addDynamicServiceWithDictionary(
        definition("unanswered", {{"Transient", Value::boolean(true)}}));
    prefs.setServiceEnabled("stale", true);
    prefs.setServiceEnabled("dyn", true);
    prefs.setServiceEnabled("unanswered", true);
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
    t.addDefinition("a.plist", definition("off-loaded"));
    t.addDefinition("b.plist", definition("on-unloaded"));
    t.addDefinition("c.plist", definition("on-loaded"));
    t.addDefinition("d.plist", definition("off-unloaded"));
    t.addDefinition("e.plist", definition("sleeper", {{"UnloadOnSleep", Value::boolean(true)}}));
    for (const char* on : {"on-unloaded", "on-loaded", "sleeper"}) {
        prefs.setServiceEnabled(on, true);
    }
    t.serviceManager.load("off-loaded");
    t.serviceManager.load("on-loaded");
    t.serviceManager.load("sleeper");
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
    const auto start = std::chrono::steady_clock::now();
    supervisor.stopAllServices();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1000));
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
        if (::setresgid(65534, 65534, 65534) != 0 || ::setresuid(65534, 65534, 65534) != 0 ||
            ::setrlimit(RLIMIT_NPROC, &none) != 0) {
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
