#include "daemon_fixture.h"

namespace tessary {
namespace {

using plist::Array;
using plist::Dictionary;
using plist::Value;
using testing::definition;

Value labels(std::initializer_list<const char*> l) {
    Array a;
    for (const char* s : l) {
        a.emplace_back(s);
    }
    return Value(std::move(a));
}

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
    Dictionary listed() { return *command("list").data->dictionary(); }

    TYSupervisorPreferences& prefs = supervisor.preferences();
};

TEST_F(CommandsTest, ListEnableDisableAndReset) {
    // The listing follows the load order, which is the directory's.
    const Dictionary l = listed();
    EXPECT_EQ(l.at("enabledServices").array()->size() + l.at("disabledServices").array()->size(),
              3U);
    EXPECT_TRUE(t.serviceManager.isLoaded("one"));
    EXPECT_FALSE(t.serviceManager.isLoaded("two"));

    EXPECT_EQ(command("enable", {{"service", Value("two")}}).code, 0);
    EXPECT_TRUE(prefs.serviceIsEnabled("two"));
    EXPECT_TRUE(t.serviceManager.isLoaded("two"));
    EXPECT_EQ(command("disable", {{"service", Value("one")}}).code, 0);
    EXPECT_FALSE(t.serviceManager.isLoaded("one"));
    EXPECT_EQ(listed().at("disabledServices"), labels({"one"}));

    EXPECT_EQ(command("enable").code, 1);
    EXPECT_EQ(command("enable", {{"service", Value("TWO")}}).code, 1);
    EXPECT_EQ(command("disable", {{"service", Value::integer(2)}}).code, 1);
    EXPECT_TRUE(t.log.countStartingWith("ERROR") == 0);

    // Reset of a running service: disabled, stopped, rebuilt without its
    // overrides, and left off.
    EXPECT_EQ(command("programArguments",
                      {{"service", Value("two")}, {"programArguments", labels({"/bin/echo"})}})
                  .code,
              0);
    EXPECT_EQ(command("reset", {{"service", Value("two")}}).code, 0);
    EXPECT_FALSE(prefs.serviceIsEnabled("two"));
    EXPECT_FALSE(t.serviceManager.isLoaded("two"));
    EXPECT_FALSE(prefs.programArgumentsForServiceJob("two", "two"));
    EXPECT_EQ(*supervisor.serviceWithLabel("two")->jobs().front()->programArguments(),
              labels({"/bin/sleep", "1000"}));
    const Array disabled = *listed().at("disabledServices").array();
    EXPECT_NE(std::find(disabled.begin(), disabled.end(), Value("two")), disabled.end());
}

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

TEST_F(CommandsTest, OverridesReadAndWriteOneJob) {
    auto get = command("programArguments", {{"service", Value("one")}});
    EXPECT_EQ(get.data.value(),
              Value(Dictionary{{"service", Value("one")},
                               {"job", Value("one")},
                               {"programArguments", labels({"/bin/sleep", "1000"})}}));

    // A loaded job is reloaded with the new value at once.
    t.serviceManager.resetCounters();
    const Value args = labels({"/bin/echo", "new"});
    auto set = command("programArguments", {{"service", Value("one")}, {"programArguments", args}});
    EXPECT_EQ(*set.data->find("programArguments"), args);
    EXPECT_EQ(t.serviceManager.removed(), (std::vector<std::string>{"one"}));
    EXPECT_EQ(*t.serviceManager.jobFor("one")->find("ProgramArguments"), args);

    // A job that is not loaded only keeps the value for later.
    t.serviceManager.resetCounters();
    auto cal = command("startCalendarIntervals",
                       {{"service", Value("two")}, {"startCalendarIntervals", Value(Array{})}});
    EXPECT_EQ(cal.code, 0);
    EXPECT_EQ(*cal.data->find("startCalendarIntervals"), Value(Array{}));
    EXPECT_EQ(t.serviceManager.submitCalls(), 0);
    EXPECT_EQ(prefs.startCalendarIntervalsForServiceJob("two", "two").value(), Value(Array{}));

    EXPECT_EQ(command("sockets", {{"service", Value("one")}, {"job", Value("other")}}).code, 1);
    EXPECT_EQ(command("sockets", {{"service", Value("nobody")}}).code, 1);
}

TEST_F(CommandsTest, CreateAndDestroyDynamicServices) {
    const Value d = definition("dyn", {{"Extra", Value("kept")}});
    auto created = command("create", {{"serviceDictionary", d}});
    EXPECT_EQ(created.code, 0);
    EXPECT_EQ(created.data.value(), Value(Dictionary{{"service", Value("dyn")}}));
    EXPECT_EQ(prefs.dynamicServices().value(), Value(Array{d}));
    EXPECT_EQ(listed().at("disabledServices").array()->back(), Value("dyn"));
    EXPECT_FALSE(t.serviceManager.isLoaded("dyn"));  // nothing starts

    EXPECT_EQ(command("create", {{"serviceDictionary", d}}).code, 1);
    EXPECT_EQ(command("create", {{"serviceDictionary", definition("one")}}).code, 1);
    EXPECT_EQ(command("create", {{"serviceDictionary", Value(Dictionary{})}}).code, 1);
    EXPECT_EQ(command("create").code, 1);
    EXPECT_EQ(prefs.dynamicServices()->array()->size(), 1U);

    EXPECT_EQ(command("enable", {{"service", Value("dyn")}}).code, 0);
    EXPECT_TRUE(t.serviceManager.isLoaded("dyn"));
    EXPECT_EQ(command("destroy", {{"service", Value("dyn")}}).code, 0);
    EXPECT_FALSE(t.serviceManager.isLoaded("dyn"));
    EXPECT_FALSE(prefs.serviceIsEnabled("dyn"));
    EXPECT_EQ(supervisor.serviceWithLabel("dyn"), nullptr);

    // A stored definition that was never loaded is removed, yet the answer is 1.
    prefs.addDynamicServiceWithDictionary(definition("ghost"));
    EXPECT_EQ(command("destroy", {{"service", Value("ghost")}}).code, 1);
    EXPECT_EQ(prefs.dynamicServices().value(), Value(Array{}));
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
