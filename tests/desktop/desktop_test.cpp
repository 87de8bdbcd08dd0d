#include <gtest/gtest.h>
#include <sys/stat.h>

#include <iomanip>
#include <sstream>

#include "backends/event_loop.h"
#include "doubles/recording_system_log.h"
#include "platform/linux/desktop/desktop_notices.h"
#include "platform/linux/desktop/session_applications.h"
#include "platform/linux/logind/logind_power.h"
#include "support/process.h"
#include "watchers/power_watcher.h"

namespace tessary::linux_backend {
namespace {

using namespace std::chrono_literals;
using Strings = std::vector<std::string>;

TEST(DesktopNames, ApplicationIdsOfUnits) {
    const std::vector<std::pair<const char*, std::optional<std::string>>> table = {
        {"app-gnome-org.gnome.Nautilus-1234.scope", "org.gnome.Nautilus"},
        {"app-gnome-org.gnome.Evince@12345.service", "org.gnome.Evince"},
        {"app-flatpak-org.example\\x2dsoft.Editor-99.scope", "org.example-soft.Editor"},
        {"app-org.example.Big\\x2d\\x2dDash@1.service", "org.example.Big--Dash"},
        {"app-org.gnome.Evince.scope", std::nullopt},           // a scope without its random part
        {"app-gnome-org.gnome.Evince@.service", std::nullopt},  // a template runs nothing
        {"app-org.gnome.Terminal.slice", std::nullopt},
        {"session-2.scope", std::nullopt},
    };
    for (const auto& [unit, id] : table) {
        EXPECT_EQ(applicationIdOfUnit(unit), id) << unit;
    }
    const OperatingSystemVersion v = kernelReleaseVersion("6.1.0-18-amd64");
    EXPECT_EQ(std::tie(v.major, v.minor, v.patch), std::make_tuple(6, 1, 0));
}

using testing::kNobody;
constexpr const char* kLogind = "org.freedesktop.login1";
constexpr const char* kPath = "/org/freedesktop/login1";
constexpr const char* kManager = "org.freedesktop.login1.Manager";

plist::Value assertion(const char* name) {
    return plist::Value(plist::Dictionary{
        {"AssertType", plist::Value("PreventUserIdleSystemSleep")},
        {"AssertLevel", plist::Value::integer(255)},
        {"AssertName", plist::Value(name)},
    });
}

// A system bus for the logind stand-in, with a connection of the test's own;
// on demand, a session bus of the user "nobody" in its runtime directory,
// configured as a user's session bus is (only its owner may connect), with the
// notification stand-in.
class DesktopBuses : public ::testing::Test {
  protected:
    void SetUp() override {
        if (::access("/usr/bin/dbus-daemon", X_OK) != 0) {
            GTEST_SKIP() << "needs dbus-daemon (Debian package dbus-daemon)";
        }
        ASSERT_TRUE(testing::startBusDaemon(systemBus, dir / "system_bus_socket"));
    }

    void TearDown() override {
        for (pid_t* pid : {&notifications, &login, &sessionBus, &systemBus}) {
            testing::stopProcess(*pid);
        }
    }

    // Needs root: the session bus and its server run as "nobody".
    void startSessionBus() {
        ::chmod(dir.path().c_str(), 0755);
        ::mkdir(runtime.c_str(), 0700);
        ASSERT_EQ(::chown(runtime.c_str(), kNobody, kNobody), 0);
        ASSERT_TRUE(
            testing::startBusDaemon(sessionBus, runtime + "/bus", false, testing::becomeNobody));
    }
    void standIn(pid_t& pid, const Strings& argv, const std::string& file, bool asNobody) {
        testing::stopProcess(pid);
        std::filesystem::remove(file + ".ready");
        Strings all{BUS_STANDIN};
        all.insert(all.end(), argv.begin(), argv.end());
        pid = testing::spawnProcess(all, dir / "standin.log",
                                    asNobody ? testing::becomeNobody : nullptr);
        ASSERT_TRUE(testing::eventually([&] { return std::filesystem::exists(file + ".ready"); }));
    }
    // The logind stand-in with the console's "UID GID RUNTIME-PATH CLASS".
    void startLogin(const Strings& console = {}) {
        Strings argv{"login1", address, dir / "login1"};
        argv.insert(argv.end(), console.begin(), console.end());
        standIn(login, argv, dir / "login1", false);
    }
    void startNotifications(const Strings& hang = {}) {
        Strings argv{"notifications", "unix:path=" + runtime + "/bus", record};
        argv.insert(argv.end(), hang.begin(), hang.end());
        standIn(notifications, argv, record, true);
    }

    // The stand-in's locks as "what/who/why/mode"; "(no answer)" when it
    // gives none.
    Strings inhibitors() {
        std::istringstream out(testing::commandOutput(busctl + " ListInhibitors"));
        std::string type, what, who, why, mode, uid, pid;
        std::size_t count = 0;
        Strings locks;
        if (!(out >> type >> count)) {
            return {"(no answer)"};
        }
        while (locks.size() < count && out >> std::quoted(what) >> std::quoted(who) >>
                                           std::quoted(why) >> std::quoted(mode) >> uid >> pid) {
            locks.push_back(what + "/" + who + "/" + why + "/" + mode);
        }
        return locks;
    }
    bool suspend() { return std::system((busctl + " Suspend b false").c_str()) == 0; }

    testing::TempDir dir;
    const std::string address = "unix:path=" + (dir / "system_bus_socket");
    const std::string runtime = dir / "user";
    const std::string record = runtime + "/notify.txt";
    const std::string busctl =
        "busctl --address=" + address + " call " + kLogind + " " + kPath + " " + kManager;
    pid_t systemBus = -1, sessionBus = -1, login = -1, notifications = -1;
    SdEventQueue queue;
    testing::RecordingSystemLog log;
};

// Without logind (no bus at the address, or a bus that logind is not on) the
// daemon runs without sleep handling, notices or a list of applications, and
// finds that out at once rather than after a timeout.
TEST_F(DesktopBuses, WithoutLogindNothingIsAvailable) {
    for (const std::string& at : {"unix:path=" + (dir / "no_bus_socket"), address}) {
        LogindSystemPowerNotifier notifier(queue, at);
        TYSupervisorPowerWatcher watcher(notifier, queue, log);
        watcher.start();
        EXPECT_EQ(watcher.powerConnection(), 0u);
        EXPECT_EQ(log.lines(),
                  Strings{"WARNING: Failed to register for system power notifications."});
        log.clear();
        std::uint32_t id = 5;
        EXPECT_NE(LogindPowerAssertions(at).createAssertion(assertion("a"), id), 0);
        EXPECT_EQ(id, 0u);
        EXPECT_EQ(DesktopNotices(at).displayNotice({}), DesktopNotices::kNoConsoleUser);
        EXPECT_FALSE(SessionApplications(at, dir / "proc").runningApplications());
    }
}

// The system is held by a delay lock while the services go down for sleep,
// and the lock is taken again after the wake; cancelled, the watcher holds
// no lock and hears of no sleep.
TEST_F(DesktopBuses, SleepWaitsForTheWillSleepHandlerAndTheLockReturnsAfterWake) {
    startLogin();
    LogindSystemPowerNotifier notifier(queue, address);
    TYSupervisorPowerWatcher watcher(notifier, queue, log);
    Strings calls;
    watcher.setWillSleepHandler(
        [&] { calls.push_back("will-sleep, locks: " + std::to_string(inhibitors().size())); });
    watcher.setDidWakeHandler([&] { calls.push_back("did-wake"); });
    watcher.start();
    const Strings delayLock = {
        "sleep/com.orvane.tessaryd/Taking down the services that stop for sleep/delay"};
    EXPECT_EQ(inhibitors(), delayLock);

    // Anyone may send a signal to the watcher's connection alone, and the bus
    // delivers it whatever the match: a sleep so announced is not believed.
    const std::string forge = "b='busctl --address=" + address + "'; for n in $($b list --unique " +
                              "| cut -d' ' -f1 | grep :); do $b emit --destination=$n " + kPath +
                              " " + kManager + " PrepareForSleep b true; done";
    ASSERT_EQ(std::system(forge.c_str()), 0);
    EXPECT_FALSE(testing::runUntil(
        queue, [&] { return !calls.empty(); }, 300ms));
    EXPECT_EQ(inhibitors(), delayLock);

    for (std::size_t round = 1; round <= 2; ++round) {
        ASSERT_TRUE(suspend());
        // The wake comes only once the stand-in saw the lock closed.
        ASSERT_TRUE(testing::runUntil(queue, [&] { return calls.size() == 2 * round; }));
        EXPECT_EQ(calls[2 * round - 2], "will-sleep, locks: 1");
        EXPECT_EQ(calls[2 * round - 1], "did-wake");
        ASSERT_TRUE(testing::runUntil(queue, [&] { return inhibitors() == delayLock; }));
    }

    // logind started again owns its name under a new unique name: heard.
    startLogin();
    ASSERT_TRUE(suspend());
    ASSERT_TRUE(testing::runUntil(queue, [&] { return calls.size() == 6; }));

    watcher.cancel();
    ASSERT_TRUE(testing::eventually([&] { return inhibitors().empty(); }, 5s));
    ASSERT_TRUE(suspend());
    EXPECT_FALSE(testing::runUntil(
        queue, [&] { return calls.size() > 6; }, 200ms));
    EXPECT_TRUE(log.empty());
}

TEST_F(DesktopBuses, AssertionsAreIdleBlockLocksUntilReleased) {
    startLogin();
    LogindPowerAssertions assertions(address);
    std::uint32_t first = 0;
    std::uint32_t second = 0;
    ASSERT_EQ(assertions.createAssertion(assertion("com.orvane.tessaryd"), first), 0);
    ASSERT_EQ(assertions.createAssertion(assertion("com.orvane.backup"), second), 0);
    EXPECT_NE(first, second);
    const std::string held = "idle/com.orvane.backup/PreventUserIdleSystemSleep/block";
    EXPECT_EQ(inhibitors(),
              (Strings{"idle/com.orvane.tessaryd/PreventUserIdleSystemSleep/block", held}));

    EXPECT_EQ(assertions.releaseAssertion(first), 0);
    EXPECT_TRUE(testing::eventually([&] { return inhibitors() == Strings{held}; }, 5s));
    EXPECT_NE(assertions.releaseAssertion(first), 0);
    EXPECT_NE(assertions.releaseAssertion(0), 0);
}

// A notice is a Notify call on the console user's session bus; each piece
// missing on the way there has its own code.
TEST_F(DesktopBuses, NoticeGoesToTheConsoleUsersNotificationServer) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root to run a session bus as another user";
    }
    UserNotice notice;
    notice.iconPath = "/Library/Application Support/Orvane/Tessary/AppIcon.icns";
    notice.header = "Tessary app replacement detected.";
    notice.message = "The services have been stopped.";
    DesktopNotices notices(address);
    startLogin();
    EXPECT_EQ(notices.displayNotice(notice), DesktopNotices::kNoConsoleUser);
    startLogin({"65534", "65534", runtime, "greeter"});
    EXPECT_EQ(notices.displayNotice(notice), DesktopNotices::kNoConsoleUser);

    startLogin({"65534", "65534", runtime, "user"});
    EXPECT_EQ(notices.displayNotice(notice), DesktopNotices::kNoSessionBus);
    startSessionBus();
    EXPECT_EQ(notices.displayNotice(notice), DesktopNotices::kNoNotificationServer);
    startNotifications();
    EXPECT_EQ(notices.displayNotice(notice), 0);
    EXPECT_EQ(testing::readFile(record),
              "Tessary\n0\n/Library/Application Support/Orvane/Tessary/AppIcon.icns\n"
              "Tessary app replacement detected.\nThe services have been stopped.\n"
              "hints: urgency=y:1\nexpire: 0\n");

    // A server that takes the call and never answers holds nobody up.
    startNotifications({"hang"});
    EXPECT_EQ(DesktopNotices(address, 300ms).displayNotice(notice), DesktopNotices::kNoAnswer);
}

TEST_F(DesktopBuses, ApplicationsAreTheAppUnitsInTheConsoleUsersSlice) {
    const std::string proc = dir / "proc";
    const std::string apps = "/user.slice/user-4242.slice/user@4242.service/app.slice/";
    const std::vector<std::pair<std::string, std::string>> cgroups = {
        {"31", "0::" + apps + "app-gnome-com.orvane.trovel-77.scope"},
        // systemd's own hierarchy of a hybrid layout, in a cgroup below the unit
        {"32", "1:name=systemd:" + apps + "app-org.example\\x2dsoft.Editor@2.service/sub\n0::/"},
        {"9", "0::" + apps + "app-com.orvane.Movanta-5.scope"},
        {"33", "0::/user.slice/user-4242.slice/session-2.scope"},
        {"self", "0::" + apps + "app-com.orvane.Self-1.scope"},
    };
    for (const auto& [pid, text] : cgroups) {
        testing::writeFile(proc + "/" + pid + "/cgroup", text + "\n");
    }
    std::filesystem::create_directories(proc + "/40");

    SessionApplications applications(address, proc);
    startLogin({"4242", "4242", runtime, "user"});
    const auto running = applications.runningApplications();
    ASSERT_TRUE(running);
    Strings listed;
    for (const auto& app : *running) {
        listed.push_back(std::to_string(app.pid) + " " + app.bundleIdentifier);
    }
    EXPECT_EQ(listed, (Strings{"9 com.orvane.Movanta", "31 com.orvane.trovel",
                               "32 org.example-soft.Editor"}));
    EXPECT_FALSE(applications.frontmostApplication());
    startLogin();
    EXPECT_FALSE(applications.runningApplications());
}

}  // namespace
}  // namespace tessary::linux_backend
