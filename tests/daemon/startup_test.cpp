#include "daemon/version_compare.h"
#include "daemon_fixture.h"

namespace tessary {
namespace {

using plist::Dictionary;
using plist::Value;

TEST(VersionCompare, DigitRunsCompareByValue) {
    EXPECT_GT(compareVersions("5.10", "5.9"), 0);
    EXPECT_LT(compareVersions("5.9", "5.10"), 0);
    EXPECT_EQ(compareVersions("5.010", "5.10"), 0);
    EXPECT_LT(compareVersions("5.10", "5.10.1"), 0);
    EXPECT_GT(compareVersions("99999999999999999999999.1", "9.1"), 0);
    EXPECT_NE(compareVersions("5.10a", "5.10A"), 0);
}

class StartupTest : public testing::DaemonFixture {
  protected:
    void makeApp() { testing::writeFile(t.paths.appResources() + "/AppIcon.icns", "icon v1"); }
    std::vector<std::string> noticeHeaders() {
        std::vector<std::string> out;
        for (const auto& n : t.notices.shown) {
            out.push_back(n.header);
        }
        return out;
    }
};

TEST_F(StartupTest, CompatibleMatchingAppLoadsServicesAndOpensTheChannel) {
    makeApp();
    t.addDefinition("a.plist", testing::definition("a"));
    supervisor.preferences().setServiceEnabled("a", true);
    testing::writeFile(t.paths.setupDoneMarker(), "");  // set up earlier: nothing parked
    startDaemon();
    EXPECT_EQ(steps, (std::vector<std::string>{"startPowerWatcher", "startAppWatcher"}));
    EXPECT_TRUE(t.serviceManager.isLoaded("a"));
    EXPECT_TRUE(t.messages.listener != nullptr && t.messages.listener->active);
    EXPECT_EQ(supervisor.preferences().version().value(), Value("5.11.1"));
    EXPECT_EQ(testing::readFile(t.paths.supportDirectory() + "/AppIcon.icns"), "icon v1");

    // The power watcher's handlers raise and lower drowsy, each with a sync.
    willSleep();
    EXPECT_TRUE(supervisor.drowsy());
    didWake();
    EXPECT_FALSE(supervisor.drowsy());

    // The app watcher's handlers: will-change stops everything; replaced and
    // removed tell the user, then update or demote on the next turn.
    t.log.clear();
    willChange();
    EXPECT_FALSE(t.serviceManager.isLoaded("a"));
    EXPECT_FALSE(std::filesystem::exists(t.paths.setupDoneMarker()));
    wasReplaced();
    wasRemoved();
    const std::string app = "WARNING: " + t.paths.appBundle();
    std::vector<std::string> lines = t.log.lines();
    std::erase_if(lines, [&](const std::string& l) { return !l.starts_with(app); });
    EXPECT_EQ(lines,
              (std::vector<std::string>{app + " is being replaced or removed, determining which...",
                                        app + " was replaced.", app + " was removed."}));
    EXPECT_EQ(noticeHeaders(), (std::vector<std::string>{"Tessary app replacement detected.",
                                                         "Tessary app removal detected."}));
    EXPECT_EQ(t.queue.pendingWork(), 2U);
}

TEST_F(StartupTest, IncompatibleAppLoadsNothingButStillAnswers) {
    makeApp();
    t.addDefinition("a.plist", testing::definition("a"));
    supervisor.preferences().setServiceEnabled("a", true);
    t.productInfo.installed = "5.9";
    t.productInfo.minimum = "5.10";
    startDaemon();  // nobody logged in: the notice is held back
    EXPECT_TRUE(supervisor.isIncompatibleVersion());
    EXPECT_FALSE(supervisor.services());
    EXPECT_FALSE(t.serviceManager.isLoaded("a"));
    EXPECT_FALSE(supervisor.preferences().version());
    EXPECT_TRUE(t.notices.shown.empty());
    EXPECT_EQ(steps, (std::vector<std::string>{"startAppWatcher"}));
    EXPECT_TRUE(t.messages.listener->active);

    t.runningApplications.apps = {{{1, "com.orvane.trovel"}}};
    supervisor.start();
    EXPECT_EQ(noticeHeaders(),
              (std::vector<std::string>{"The installed version of Tessary is no longer supported "
                                        "on this version of Velora."}));

    // Which versions are incompatible.
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
    EXPECT_EQ(noticeHeaders(), (std::vector<std::string>{"Tessary app removal detected."}));
    EXPECT_EQ(t.messages.listener, nullptr);
    // The self-removal runs on the next turn and ends the process with 0.
    EXPECT_THROW(t.queue.runPending(), testing::ProcessExited);
    EXPECT_EQ(t.process.exitStatus, 0);
}

TEST_F(StartupTest, DifferentVersionsUpdateOnlyWithFewerThanTwoParkedServices) {
    makeApp();
    setVersions("5.11.1", "5.11");
    supervisor.preferences().setServiceEnabled("x", true);
    startDaemon();  // the update check parks "x"
    EXPECT_EQ(t.log.lines(),
              (std::vector<std::string>{"WARNING: " + t.paths.appBundle() + " was replaced."}));
    EXPECT_EQ(noticeHeaders(), (std::vector<std::string>{"Tessary app replacement detected."}));
    EXPECT_EQ(t.queue.pendingWork(), 1U);  // the self-update
    EXPECT_EQ(t.messages.listener, nullptr);

    // With two parked services nothing at all happens, and no listener opens.
    t.log.clear();
    t.notices.shown.clear();
    supervisor.preferences().setServiceEnabled("y", true);
    startDaemon();
    EXPECT_TRUE(t.log.empty()) << ::testing::PrintToString(t.log.lines());
    EXPECT_TRUE(t.notices.shown.empty());
    EXPECT_EQ(t.messages.listener, nullptr);
}

}  // namespace
}  // namespace tessary
