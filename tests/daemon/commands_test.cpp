#include "daemon_fixture.h"

namespace tessary {
namespace {

using plist::Array;
using plist::Dictionary;
using plist::Value;
using testing::definition;

class CommandsTest : public testing::DaemonFixture {
  protected:
    CommandsTest() {
        for (const char* l : {"one", "two", "three"}) {
            t.addDefinition(std::string(l) + ".plist", definition(l));
        }
        prefs.setServiceEnabled("one", true);
        prefs.setServiceEnabled("three", true);
        // A machine set up earlier: start-up parks nothing.
        testing::writeFile(t.paths.setupDoneMarker(), "");
        startDaemon();
        t.log.clear();
    }
    TYSupervisorPreferences& prefs = supervisor.preferences();
};

TEST_F(CommandsTest, StatusReadsFourFacts) {
    auto status = [&] { return *command("status", {}, false).data->stringAt("status"); };
    prefs.setServiceEnabled("com.orvane.tessaryadmind.backend", true);
    EXPECT_EQ(status(), "configured");
    setVersions(kDaemonVersion, "5.11");
    EXPECT_EQ(status(), "unconfigured");
    setVersions(kDaemonVersion, kDaemonVersion);
    std::filesystem::remove(t.paths.setupDoneMarker());
    prefs.addDynamicServiceWithDictionary(definition("unused"));
    EXPECT_EQ(status(), "unconfigured");
    prefs.setServiceEnabled("a", true);
    prefs.savePreviouslyEnabledServices();  // one, three, backend, a: more than one
    EXPECT_EQ(status(), "updatable");
}

// Listing, switching, reset and the reload of a loaded job's override run
// against the real daemon in the end-to-end tests; what they cannot see:
// an override of a job that is not loaded, and a create that starts nothing.
TEST_F(CommandsTest, OverridesOfUnloadedJobsAndDynamicServicesStartNothing) {
    t.serviceManager.resetCounters();
    auto cal = command("startCalendarIntervals",
                       {{"service", Value("two")}, {"startCalendarIntervals", Value(Array{})}});
    EXPECT_EQ(cal.code, 0);
    EXPECT_EQ(*cal.data->find("startCalendarIntervals"), Value(Array{}));
    EXPECT_EQ(prefs.startCalendarIntervalsForServiceJob("two", "two").value(), Value(Array{}));
    EXPECT_EQ(command("sockets", {{"service", Value("one")}, {"job", Value("other")}}).code, 1);
    // The reply names the service and the job, the service's own when none
    // was given, and carries a value only when there is one.
    EXPECT_EQ(
        command("programArguments", {{"service", Value("two")}}).data.value(),
        Value(Dictionary{{"service", Value("two")},
                         {"job", Value("two")},
                         {"programArguments", Value(plist::stringArray({"/bin/sleep", "1000"}))}}));
    EXPECT_EQ(command("sockets", {{"service", Value("one")}, {"job", Value("one")}}).data.value(),
              Value(Dictionary{{"service", Value("one")}, {"job", Value("one")}}));

    const Value d = definition("dyn", {{"Extra", Value("kept")}});
    auto created = command("create", {{"serviceDictionary", d}});
    EXPECT_EQ(created.data.value(), Value(Dictionary{{"service", Value("dyn")}}));
    EXPECT_EQ(prefs.dynamicServices().value(), Value(Array{d}));
    EXPECT_EQ(command("create", {{"serviceDictionary", definition("one")}}).code, 1);
    EXPECT_EQ(t.serviceManager.asked().submitCalls, 0);

    // A stored definition that was never loaded is removed, yet the answer is 1.
    prefs.addDynamicServiceWithDictionary(definition("ghost"));
    EXPECT_EQ(command("destroy", {{"service", Value("ghost")}}).code, 1);
    EXPECT_EQ(prefs.dynamicServices().value(), Value(Array{d}));
}

// Without a service list (loading skipped), create stores and answers success
// but no service joins; destroy then removes the definition and answers 1.
class DynamicWithoutServicesTest : public testing::DaemonFixture {};

TEST_F(DynamicWithoutServicesTest, CreateWithoutAServiceList) {
    t.productInfo.installed = "5.9";
    t.productInfo.minimum = "5.10";
    startDaemon();
    EXPECT_EQ(command("create", {{"serviceDictionary", definition("late")}}).code, 0);
    EXPECT_FALSE(supervisor.services());
    EXPECT_TRUE(supervisor.preferences().dynamicServices().has_value());
    EXPECT_EQ(command("destroy", {{"service", Value("late")}}).code, 1);
    EXPECT_EQ(supervisor.preferences().dynamicServices().value(), Value(Array{}));
}

}  // namespace
}  // namespace tessary
