#include <grp.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "platform/linux/desktop_notices.h"
#include "platform/linux/session_applications.h"
#include "support/process.h"

namespace tessary::linux_backend {
namespace {

using namespace std::chrono_literals;
using Strings = std::vector<std::string>;

TEST(DesktopNames, ApplicationIdsOfUnits) {
    const std::vector<std::pair<const char*, std::optional<std::string>>> table = {
        {"app-gnome-org.gnome.Nautilus-1234.scope", "org.gnome.Nautilus"},
        {"app-org.gnome.Evince-12345.scope", "org.gnome.Evince"},
        {"app-gnome-org.gnome.Evince@12345.service", "org.gnome.Evince"},
        {"app-org.kde.amarok.service", "org.kde.amarok"},
        {"app-KDE-com.orvane.trovel.service", "com.orvane.trovel"},
        {"app-flatpak-org.example\\x2dsoft.Editor-99.scope", "org.example-soft.Editor"},
        {"app-org.example.Big\\x2d\\x2dDash@1.service", "org.example.Big--Dash"},
        {"app-org.gnome.Evince.scope", std::nullopt},           // a scope without its random part
        {"app-gnome-org.gnome.Evince@.service", std::nullopt},  // a template runs nothing
        {"app-gnome--12.scope", std::nullopt},
        {"app-org.gnome.Terminal.slice", std::nullopt},
        {"session-2.scope", std::nullopt},
        {"user@1000.service", std::nullopt},
    };
    for (const auto& [unit, id] : table) {
        EXPECT_EQ(applicationIdOfUnit(unit), id) << unit;
    }
}

TEST(DesktopNames, OperatingSystemVersionIsTheKernelRelease) {
    const auto text = [](OperatingSystemVersion v) {
        return std::to_string(v.major) + "." + std::to_string(v.minor) + "." +
               std::to_string(v.patch);
    };
    EXPECT_EQ(text(kernelReleaseVersion("6.1.0-18-amd64")), "6.1.0");
    EXPECT_EQ(text(kernelReleaseVersion("5.15")), "5.15.0");
}

constexpr uid_t kNobody = 65534;  // gid 65534 too

// Run in the child: become `uid`, with the group of the same number.
std::function<bool()> asUser(uid_t uid) {
    return [uid] {
        const gid_t gid = uid;
        return ::setgroups(1, &gid) == 0 && ::setresgid(gid, gid, gid) == 0 &&
               ::setresuid(uid, uid, uid) == 0;
    };
}

// A system bus for the logind stand-in; on demand, a session bus of the user
// "nobody" in its runtime directory, configured as a user's session bus is
// (only its owner may connect), with the notification stand-in.
class DesktopBuses : public ::testing::Test {
  protected:
    void SetUp() override {
        if (::access("/usr/bin/dbus-daemon", X_OK) != 0 || ::geteuid() != 0) {
            GTEST_SKIP() << "needs root and dbus-daemon (Debian package dbus-daemon)";
        }
        ::chmod(dir.path().c_str(), 0755);
        ::mkdir(runtime.c_str(), 0700);
        ASSERT_EQ(::chown(runtime.c_str(), kNobody, kNobody), 0);
        ASSERT_TRUE(testing::startBusDaemon(systemBus, dir / "system_bus_socket"));
    }

    void TearDown() override {
        for (pid_t* pid : {&notifications, &login, &sessionBus, &systemBus}) {
            testing::stopProcess(*pid);
        }
    }

    void startSessionBus() {
        ASSERT_TRUE(testing::startBusDaemon(sessionBus, runtime + "/bus", false, asUser(kNobody)));
    }
    void standIn(pid_t& pid, const Strings& argv, const std::string& file, uid_t uid) {
        testing::stopProcess(pid);
        std::filesystem::remove(file + ".ready");
        Strings all{DESKTOP_STANDIN};
        all.insert(all.end(), argv.begin(), argv.end());
        pid = testing::spawnProcess(all, dir / "standin.log", asUser(uid));
        ASSERT_TRUE(testing::appears(file + ".ready"));
    }
    // The logind stand-in with the console's "UID GID RUNTIME-PATH CLASS".
    void startLogin(const Strings& console) {
        Strings argv{"login1", "unix:path=" + (dir / "system_bus_socket"), dir / "login1"};
        argv.insert(argv.end(), console.begin(), console.end());
        standIn(login, argv, dir / "login1", 0);
    }
    void startNotifications(const Strings& hang = {}) {
        Strings argv{"notifications", "unix:path=" + runtime + "/bus", record};
        argv.insert(argv.end(), hang.begin(), hang.end());
        standIn(notifications, argv, record, kNobody);
    }

    testing::TempDir dir;
    const std::string address = "unix:path=" + (dir / "system_bus_socket");
    const std::string runtime = dir / "user";
    const std::string record = runtime + "/notify.txt";
    const Strings nobodyAtConsole{"65534", "65534", runtime, "user"};
    pid_t systemBus = -1, sessionBus = -1, login = -1, notifications = -1;
};

UserNotice noticeOf(std::string header) {
    UserNotice n;
    n.iconPath = "/Library/Application Support/Orvane/Tessary/AppIcon.icns";
    n.localizationPath = "/System/Library/PrivateFrameworks/TessaryInformation.framework";
    n.header = std::move(header);
    n.message = "The services have been stopped.";
    return n;
}

// A notice is a Notify call on the console user's session bus; each piece
// missing on the way there has its own code.
TEST_F(DesktopBuses, NoticeGoesToTheConsoleUsersNotificationServer) {
    DesktopNotices notices(address);
    const UserNotice notice = noticeOf("Tessary app replacement detected.");
    EXPECT_EQ(notices.displayNotice(notice), DesktopNotices::kNoConsoleUser);  // no logind
    startLogin({});
    EXPECT_EQ(notices.displayNotice(notice), DesktopNotices::kNoConsoleUser);
    startLogin({"65534", "65534", runtime, "greeter"});
    EXPECT_EQ(notices.displayNotice(notice), DesktopNotices::kNoConsoleUser);

    startLogin(nobodyAtConsole);
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
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(DesktopNotices(address, 300ms).displayNotice(notice), DesktopNotices::kNoAnswer);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 1500ms);
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
        {"34", "0::/user.slice/user-42420.slice/app-com.orvane.Movanta-1.scope"},
        {"35", "0::/system.slice/app-com.orvane.Movanta-1.scope"},
        {"self", "0::" + apps + "app-com.orvane.Self-1.scope"},
    };
    for (const auto& [pid, text] : cgroups) {
        testing::writeFile(proc + "/" + pid + "/cgroup", text + "\n");
    }
    std::filesystem::create_directories(proc + "/40");

    SessionApplications applications(address, proc);
    EXPECT_FALSE(applications.runningApplications());  // no logind
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
    EXPECT_FALSE(applications.menuBarOwningApplication());
    startLogin({});
    EXPECT_FALSE(applications.runningApplications());
}

}  // namespace
}  // namespace tessary::linux_backend
