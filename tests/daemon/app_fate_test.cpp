#include <algorithm>

#include "daemon/version_compare.h"
#include "daemon_fixture.h"

namespace tessary {
namespace {

using plist::Array;
using plist::Dictionary;
using plist::Value;
using testing::FaultyFileOperations;

class AppFateTest : public testing::DaemonFixture {
  protected:
    AppFateTest() {
        testing::writeFile(t.paths.installedDaemon(), "old daemon");
        testing::writeFile(t.paths.daemonJobDefinition(), "job");
        testing::writeFile(t.paths.supportDirectory() + "/AppIcon.icns", "icon");
        testing::writeFile(t.paths.setupDoneMarker(), "");
    }
    bool exists(const std::string& p) { return std::filesystem::exists(p); }
    TYSupervisorPreferences& prefs = supervisor.preferences();
};

TEST_F(AppFateTest, UnfinishedPromotionIsCleanedUpAtStart) {
    prefs.setServiceEnabled("parked", true);
    prefs.savePreviouslyEnabledServices();
    prefs.setServiceEnabled("a", true);
    prefs.setActivePromotionType("updatable");
    supervisor.checkForActivePromotion();
    EXPECT_EQ(t.log.lines(), (std::vector<std::string>{"WARNING: Incomplete promotion detected."}));
    EXPECT_FALSE(prefs.activePromotionType());
    EXPECT_FALSE(exists(t.paths.setupDoneMarker()));
    EXPECT_FALSE(prefs.serviceIsEnabled("a"));
    EXPECT_TRUE(prefs.serviceIsPreviouslyEnabled("parked"));
    EXPECT_FALSE(t.process.exitStatus);

    // Begun on a machine never set up: the daemon removes itself. The
    // clean-up job is given two seconds with the executable and its job
    // definition gone; the support directory and the daemon's own job go
    // after them.
    prefs.setActivePromotionType("unconfigured");
    std::vector<bool> atTheSleep;
    t.process.onSleep = [&] {
        atTheSleep = {t.serviceManager.isLoaded("com.orvane.tessaryd.UninstallExtras"),
                      exists(t.paths.installedDaemon()), exists(t.paths.daemonJobDefinition()),
                      exists(t.paths.supportDirectory()), t.serviceManager.asked().removed.empty()};
    };
    EXPECT_THROW(supervisor.checkForActivePromotion(), testing::ProcessExited);
    EXPECT_EQ(atTheSleep, (std::vector<bool>{true, false, false, true, true}));
    EXPECT_EQ(t.process.exitStatus, 0);
    EXPECT_FALSE(prefs.serviceIsPreviouslyEnabled("parked"));
    EXPECT_FALSE(exists(t.paths.supportDirectory()));
    EXPECT_EQ(t.process.slept, std::chrono::seconds(2));
    EXPECT_EQ(t.serviceManager.asked().removed, std::vector<std::string>{"com.orvane.tessaryd"});
}

TEST_F(AppFateTest, UpdateCheckParksServicesAfterAnAppChange) {
    prefs.setServiceEnabled("com.orvane.tessaryadmind.backend", true);
    prefs.setServiceEnabled("x", true);
    prefs.setVersion("5.11.1");
    supervisor.checkForUpdate();  // settled: everything stays
    EXPECT_TRUE(exists(t.paths.setupDoneMarker()));
    EXPECT_TRUE(prefs.serviceIsEnabled("x"));

    setVersions("5.11.1", "5.12");
    supervisor.checkForUpdate();
    EXPECT_FALSE(exists(t.paths.setupDoneMarker()));
    EXPECT_FALSE(prefs.serviceIsEnabled("x"));
    EXPECT_TRUE(prefs.serviceIsPreviouslyEnabled("x"));
    EXPECT_TRUE(prefs.serviceIsPreviouslyEnabled("com.orvane.tessaryadmind.backend"));
}

// The self-update that works is the end-to-end tests' (the app replaced);
// here, the ones that fail. The installed executable is never left in part.
TEST_F(AppFateTest, FailedSelfUpdateSaysWhyAndDemotes) {
    testing::writeFile(t.paths.appDaemonCopy(), "new daemon");
    testing::writeFile(t.paths.installedDaemon(), "old daemon");
    t.files.fail(FaultyFileOperations::Op::Move, EROFS);
    supervisor.update();
    // The failure demotes, and the demotion ends the process.
    EXPECT_THROW(t.queue.runPending(), testing::ProcessExited);
    t.files.heal();
    std::vector<std::string> lines;
    for (const auto& e : t.log.entries()) {
        if (e.level == LogLevel::Warning) {
            lines.push_back(e.text);
        }
    }
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0], "WARNING: Removal of com.orvane.tessaryd failed");
    EXPECT_NE(lines[1].find("Read-only file system"), std::string::npos);
    // Demoted, and no copy is left behind.
    EXPECT_TRUE(
        std::filesystem::is_empty(std::filesystem::path(t.paths.installedDaemon()).parent_path()));
    EXPECT_TRUE(t.serviceManager.isLoaded("com.orvane.tessaryd.UninstallExtras"));

    // An app without a daemon inside: copying fails.
    t.log.clear();
    std::filesystem::remove(t.paths.appDaemonCopy());
    testing::writeFile(t.paths.installedDaemon(), "old daemon");
    supervisor.update();
    EXPECT_THROW(t.queue.runPending(), testing::ProcessExited);
    EXPECT_EQ(t.log.lines()[0], "WARNING: Copying of com.orvane.tessaryd failed");
}

// The daemon in the app becomes root's executable: it is taken only when
// nobody but root could have changed it or the directories up to the app
// (else the update fails and demotes), and it is installed root's alone,
// whatever its own mode.
TEST_F(AppFateTest, SelfUpdateTakesOnlyADaemonNobodyButRootCouldChange) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root to hand files to another user";
    }
    const std::string daemon = t.paths.appDaemonCopy();
    const std::string dir = daemon.substr(0, daemon.rfind('/'));
    const std::string app = t.paths.appBundle();
    const std::vector<std::tuple<std::string, mode_t, uid_t>> table = {
        {daemon, 0757, 0}, {daemon, 0775, 0}, {daemon, 0755, 65534},
        {dir, 0777, 0},    {app, 0775, 0},    {daemon, 04700, 0}};  // the last one is taken
    testing::writeFile(daemon, "new daemon");
    for (const auto& [path, mode, owner] : table) {
        ASSERT_EQ(::chown(path.c_str(), owner, owner) | ::chmod(path.c_str(), mode), 0);
        supervisor.update();
        EXPECT_THROW(t.queue.runPending(), testing::ProcessExited);
        EXPECT_EQ(exists(t.paths.installedDaemon()), mode == 04700) << path;
        ASSERT_EQ(::chown(path.c_str(), 0, 0) | ::chmod(path.c_str(), 0755), 0);
    }
    EXPECT_EQ(t.log.countStartingWith("ERROR: Not installing " + daemon), table.size() - 1);
    EXPECT_EQ(t.files.attributes(t.paths.installedDaemon()).value().mode & 07777, 0755U);
}

TEST_F(AppFateTest, NoticesAndWhenTheFirstIsHeldBack) {
    EXPECT_TRUE(supervisor.avoidShowingAlert());  // nobody logged in
    t.runningApplications.apps = {{{1, "com.example.other"}}};
    EXPECT_TRUE(supervisor.avoidShowingAlert());  // no file manager
    t.runningApplications.apps->push_back({2, "com.orvane.trovel"});
    EXPECT_FALSE(supervisor.avoidShowingAlert());
    t.runningApplications.frontmost = RunningApplication{3, "com.orvane.Movanta"};
    EXPECT_TRUE(supervisor.avoidShowingAlert());

    t.runningApplications.version = {10, 11, 6};
    t.notices.result = 7;
    supervisor.showIncompatibleTessaryVersionAlert();
    supervisor.showAppReplacementAlert();
    supervisor.showAppRemovalAlert();
    ASSERT_EQ(t.notices.shown.size(), 3U);
    // The system's name follows its version.
    EXPECT_EQ(
        t.notices.shown[0].header,
        "The installed version of Tessary is no longer supported on this version of Kestrine.");
    EXPECT_EQ(t.notices.shown[0].iconPath, t.paths.supportDirectory() + "/AppIcon.icns");
    EXPECT_EQ(t.log.lines(),
              (std::vector<std::string>{
                  "WARNING: Failed to notify user of incompatible tessary version.: 7",
                  "WARNING: Failed to notify user of app replacement: 7",
                  "WARNING: Failed to notify user of app removal: 7"}));
}

class PromotionTest : public testing::DaemonFixture {
  protected:
    PromotionTest() {
        t.addDefinition("backend.plist", testing::definition("com.orvane.tessaryadmind.backend"));
        t.addDefinition("svc.plist", testing::definition("svc"));
        startDaemon();
        t.log.clear();
    }
    TYSupervisorPreferences& prefs = supervisor.preferences();
};

// Promotions that end and that are abandoned run against the real daemon in
// the end-to-end tests; here, what only the doubles see.
TEST_F(PromotionTest, PromotionHoldsThePowerAssertionAndWatchesItsClient) {
    EXPECT_EQ(command("beginPromotion").code, 0);  // senderPID is always added
    EXPECT_EQ(prefs.activePromotionType(), Value("unconfigured"));
    EXPECT_NE(supervisor.powerAssertion(), 0U);
    EXPECT_TRUE(t.serviceManager.isLoaded("com.orvane.tessaryadmind.backend"));
    EXPECT_EQ(t.exitWatch.watchCount(kClientPid), 1U);
    EXPECT_EQ(command("endPromotion").code, 0);
    EXPECT_TRUE(t.powerAssertions.held.empty());
    t.exitWatch.exit(kClientPid);  // gone after the end: nothing more happens
    EXPECT_EQ(t.exitWatch.watchCount(kClientPid), 0U);
    EXPECT_EQ(command("beginPromotion").code, 0);
    EXPECT_EQ(prefs.activePromotionType(), Value("configured"));
}

// A client already gone when its exit is to be watched has exited; a watch
// that fails for another reason is said, and the promotion goes on.
TEST_F(PromotionTest, AClientThatCannotBeWatched) {
    t.exitWatch.failing = true;
    EXPECT_EQ(command("beginPromotion").code, 0);
    t.queue.runPending();
    const auto lines = t.log.lines();
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                            [](const std::string& l) {
                                return l.starts_with("WARNING: Unable to watch client 4242: ");
                            }),
              1);

    t.exitWatch.failing = false;
    t.exitWatch.gone.insert(kClientPid);
    EXPECT_EQ(command("beginPromotion").code, 0);
    EXPECT_THROW(t.queue.runPending(), testing::ProcessExited);
    EXPECT_EQ(t.log.lines().back(), "WARNING: Client 4242 exited before promotion ended.");
}

TEST_F(PromotionTest, FailuresAndRestoration) {
    TYSupervisor::Arguments none;
    EXPECT_FALSE(supervisor.beginPromotionWithArguments(none));
    EXPECT_FALSE(prefs.activePromotionType());

    EXPECT_EQ(command("beginPromotion").code, 0);
    const auto held = supervisor.powerAssertion();
    std::filesystem::remove_all(std::filesystem::path(t.paths.setupDoneMarker()).parent_path());
    EXPECT_EQ(command("endPromotion").code, 1);
    EXPECT_TRUE(
        t.log.lines().back().starts_with("WARNING: Creation of .TessarySetupDone failed: "));
    EXPECT_TRUE(prefs.activePromotionType());
    EXPECT_EQ(supervisor.powerAssertion(), held);

    const auto restored = command("restoreServices");
    EXPECT_EQ(restored.data.value(),
              Value(Dictionary{{"previouslyEnabledServices", Value(Array{})}}));
    prefs.setServiceEnabled("svc", true);
    prefs.savePreviouslyEnabledServices();
    prefs.setServiceEnabled("svc", true);
    EXPECT_EQ(
        command("restoreServices").data.value(),
        Value(Dictionary{{"previouslyEnabledServices",
                          Value(Array{Value("com.orvane.tessaryadmind.backend"), Value("svc")})}}));
    EXPECT_TRUE(t.serviceManager.isLoaded("svc"));
}

TEST_F(PromotionTest, DemoteAnswersFirstThenRemovesTheDaemon) {
    EXPECT_EQ(command("demote").code, 0);
    EXPECT_FALSE(prefs.serviceIsEnabled("com.orvane.tessaryadmind.backend"));
    EXPECT_THROW(t.queue.runPending(), testing::ProcessExited);
    EXPECT_EQ(t.process.exitStatus, 0);
}

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

// That it loads nothing, watches no sleep and still answers is the booted
// machine's to see; here, that it records no version and holds its notice
// back until someone is there to read it.
TEST_F(StartupTest, IncompatibleAppStoresNoVersionAndHoldsItsNoticeBack) {
    makeApp();
    t.productInfo.installed = "5.9";
    t.productInfo.minimum = "5.10";
    startDaemon();  // nobody logged in: the notice is held back
    EXPECT_FALSE(supervisor.preferences().version());
    EXPECT_TRUE(t.notices.shown.empty());

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
