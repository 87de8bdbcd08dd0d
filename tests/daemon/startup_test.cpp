#include "daemon/version_compare.h"
#include "daemon_fixture.h"

namespace tessary {
namespace {

using plist::Dictionary;
using plist::Value;

TEST(VersionCompare, DigitRunsCompareByValue) {
    EXPECT_GT(compareVersions("5.10", "5.9"), 0);
    EXPECT_LT(compareVersions("5.9", "5.10"), 0);
    EXPECT_EQ(compareVersions("5.10", "5.10"), 0);
    EXPECT_EQ(compareVersions("5.010", "5.10"), 0);
    EXPECT_LT(compareVersions("5.10", "5.10.1"), 0);
    EXPECT_GT(compareVersions("99999999999999999999999.1", "9.1"), 0);
    EXPECT_NE(compareVersions("5.10a", "5.10A"), 0);
}

class StartupTest : public testing::DaemonFixture {
  protected:
    void makeApp() { testing::writeFile(t.paths.appResources() + "/AppIcon.icns", "icon v1"); }
};

TEST_F(StartupTest, CompatibleMatchingAppLoadsServicesAndOpensTheChannel) {
    makeApp();
    t.addDefinition("a.plist", testing::definition("a"));
    supervisor.preferences().setServiceEnabled("a", true);
    startDaemon();
    EXPECT_EQ(steps, (std::vector<std::string>{"checkForActivePromotion", "checkForUpdate",
                                               "startPowerWatcher", "startAppWatcher"}));
    EXPECT_TRUE(t.serviceManager.isLoaded("a"));
    EXPECT_TRUE(t.messages.listener != nullptr && t.messages.listener->active);
    EXPECT_EQ(supervisor.preferences().version().value(), Value("5.11.1"));
    EXPECT_EQ(testing::readFile(t.paths.supportDirectory() + "/AppIcon.icns"), "icon v1");
    EXPECT_EQ(supervisor.authorizationRightsForCommands().size(), 13U);
    EXPECT_EQ(supervisor.authorizationRightsForCommands().count("status"), 0U);
    EXPECT_EQ(supervisor.requirementsForCommands(),
              (TYSupervisor::CommandTable{{"status", "true"}}));

    // The power watcher's handlers raise and lower drowsy, each with a sync.
    willSleep();
    EXPECT_TRUE(supervisor.drowsy());
    didWake();
    EXPECT_FALSE(supervisor.drowsy());

    // The app watcher's handlers: will-change stops everything.
    willChange();
    EXPECT_FALSE(t.serviceManager.isLoaded("a"));
    wasReplaced();
    wasRemoved();
    EXPECT_EQ(std::vector<std::string>(steps.end() - 4, steps.end()),
              (std::vector<std::string>{"showAppReplacementAlert", "update", "showAppRemovalAlert",
                                        "demote"}));
    const std::string app = t.paths.appBundle();
    EXPECT_EQ(t.log.countStartingWith("WARNING: " + app +
                                      " is being replaced or removed, determining which..."),
              1U);
    EXPECT_EQ(t.log.countStartingWith("WARNING: " + app + " was replaced."), 1U);
    EXPECT_EQ(t.log.countStartingWith("WARNING: " + app + " was removed."), 1U);
}

TEST_F(StartupTest, IncompatibleAppLoadsNothingButStillAnswers) {
    makeApp();
    t.addDefinition("a.plist", testing::definition("a"));
    supervisor.preferences().setServiceEnabled("a", true);
    t.productInfo.installed = "5.9";
    t.productInfo.minimum = "5.10";
    avoidAlert = true;
    startDaemon();
    EXPECT_TRUE(supervisor.isIncompatibleVersion());
    EXPECT_FALSE(supervisor.services());
    EXPECT_FALSE(t.serviceManager.isLoaded("a"));
    EXPECT_FALSE(supervisor.preferences().version());
    EXPECT_EQ(steps, (std::vector<std::string>{"checkForActivePromotion", "checkForUpdate",
                                               "startAppWatcher"}));
    EXPECT_TRUE(t.messages.listener->active);

    avoidAlert = false;
    steps.clear();
    TYSupervisor again(t.platform);
    again.setLifecycleSteps({});
    supervisor.init();
    supervisor.start();
    EXPECT_EQ(steps[2], "showIncompatibleTessaryVersionAlert");
}

TEST_F(StartupTest, VersionRulesForCompatibility) {
    for (const auto& [installed, minimum, incompatible] :
         std::vector<std::tuple<std::optional<std::string>, std::optional<std::string>, bool>>{
             {"5.9", "5.10", true},
             {"5.10", "5.10", false},
             {std::nullopt, "5.10", false},
             {"5.9", std::nullopt, false}}) {
        t.productInfo.installed = installed;
        t.productInfo.minimum = minimum;
        supervisor.init();
        EXPECT_EQ(supervisor.isIncompatibleVersion(), incompatible);
    }
}

TEST_F(StartupTest, MissingAppDemotesWithoutAChannel) {
    std::filesystem::remove_all(t.paths.appBundle());
    startDaemon();
    EXPECT_EQ(t.log.lines(),
              (std::vector<std::string>{"WARNING: " + t.paths.appBundle() + " not found."}));
    EXPECT_EQ(std::vector<std::string>(steps.end() - 2, steps.end()),
              (std::vector<std::string>{"showAppRemovalAlert", "demote"}));
    EXPECT_EQ(t.messages.listener, nullptr);
}

TEST_F(StartupTest, DifferentVersionsUpdateOnlyWithFewerThanTwoParkedServices) {
    makeApp();
    setVersions("5.11.1", "5.11");
    supervisor.preferences().setServiceEnabled("x", true);
    supervisor.preferences().savePreviouslyEnabledServices();
    startDaemon();
    EXPECT_EQ(t.log.lines(),
              (std::vector<std::string>{"WARNING: " + t.paths.appBundle() + " was replaced."}));
    EXPECT_EQ(std::vector<std::string>(steps.end() - 2, steps.end()),
              (std::vector<std::string>{"showAppReplacementAlert", "update"}));
    EXPECT_EQ(t.messages.listener, nullptr);

    // With two parked services nothing at all happens, and no listener opens.
    steps.clear();
    t.log.clear();
    supervisor.preferences().setServiceEnabled("y", true);
    supervisor.preferences().setServiceEnabled("z", true);
    supervisor.preferences().savePreviouslyEnabledServices();
    supervisor.start();
    EXPECT_TRUE(t.log.empty());
    EXPECT_EQ(steps, (std::vector<std::string>{"startPowerWatcher"}));
    EXPECT_EQ(t.messages.listener, nullptr);
}

TEST_F(StartupTest, SecondStartKeepsTheCopiedIcon) {
    makeApp();
    startDaemon();
    testing::writeFile(t.paths.appResources() + "/AppIcon.icns", "icon v2");
    supervisor.start();
    EXPECT_EQ(testing::readFile(t.paths.supportDirectory() + "/AppIcon.icns"), "icon v1");
}

}  // namespace
}  // namespace tessary
