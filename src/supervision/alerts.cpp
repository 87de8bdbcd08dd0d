#include "daemon/supervisor.h"

namespace tessary {

namespace {

constexpr const char* kFileManager = "com.orvane.trovel";
constexpr const char* kMigrationApp = "com.orvane.Movanta";
constexpr const char* kLocalizationBundle =
    "/System/Library/PrivateFrameworks/TessaryInformation.framework";

constexpr const char* kUninstallExtrasLabel = "com.orvane.tessaryd.UninstallExtras";
constexpr const char* kUninstallExtrasScript =
    "shopt -s nullglob; for f in /Library/Tessary/.UninstallExtras/*; do syslog -s -k Sender "
    "com.orvane.tessaryd.UninstallExtras -k Level 5 -k Message \"Running $f...\"; \"$f\"; done; "
    "rm -rf /Library/Tessary/.UninstallExtras; jobtool remove "
    "com.orvane.tessaryd.UninstallExtras;";
constexpr const char* kKillallLabel = "com.orvane.tessaryd.killallTessaryApps";
constexpr const char* kKillallScript =
    "killall -KILL Tessary; jobtool remove com.orvane.tessaryd.killallTessaryApps;";

bool atLeast(const OperatingSystemVersion& v, int major, int minor, int patch) {
    if (v.major != major) {
        return v.major > major;
    }
    if (v.minor != minor) {
        return v.minor > minor;
    }
    return v.patch >= patch;
}

}  // namespace

bool TYSupervisor::avoidShowingAlert() const {
    RunningApplications& apps = platform_.runningApplications;
    const auto running = apps.runningApplications();
    if (!running || running->empty()) {
        return true;
    }
    const bool fileManagerRuns =
        std::any_of(running->begin(), running->end(),
                    [](const RunningApplication& a) { return a.bundleIdentifier == kFileManager; });
    if (!fileManagerRuns) {
        return true;
    }
    const auto frontmost = apps.frontmostApplication();
    if (frontmost && frontmost->bundleIdentifier == kMigrationApp) {
        return true;
    }
    const auto owner = apps.menuBarOwningApplication();
    return owner && owner->bundleIdentifier == kMigrationApp;
}

int TYSupervisor::showNotice(const std::string& header, const std::string& message) const {
    UserNotice notice;
    notice.timeout = 0;
    notice.level = UserNotice::Level::Note;
    // The copy start-up took, so that it is there after the app is gone.
    notice.iconPath = platform_.paths.supportDirectory() + "/" + std::string(Paths::kAppIconName);
    notice.localizationPath = kLocalizationBundle;
    notice.header = header;
    notice.message = message;
    return platform_.notices.displayNotice(notice);
}

void TYSupervisor::showIncompatibleTessaryVersionAlert() const {
    const bool velora = atLeast(platform_.runningApplications.operatingSystemVersion(), 10, 12, 0);
    const int rc = showNotice(
        velora ? "The installed version of Tessary is no longer supported on this version of "
                 "Velora."
               : "The installed version of Tessary is no longer supported on this version of "
                 "Kestrine.",
        "The services have been stopped, and service data preserved. Visit the Bazarel to get the "
        "latest version of Tessary.");
    if (rc != 0) {
        platform_.log.warning("WARNING: Failed to notify user of incompatible tessary version.: %d",
                              rc);
    }
}

void TYSupervisor::showAppReplacementAlert() const {
    const int rc = showNotice("Tessary app replacement detected.",
                              "Tessary was replaced in the Applications folder. The services have "
                              "been stopped, and service data preserved.");
    if (rc != 0) {
        platform_.log.warning("WARNING: Failed to notify user of app replacement: %d", rc);
    }
}

void TYSupervisor::showAppRemovalAlert() const {
    const int rc = showNotice(
        "Tessary app removal detected.",
        "Tessary was removed from the Applications folder. The services have been stopped, and "
        "service data preserved. Tessary app must be re-installed before services can be "
        "restarted.");
    if (rc != 0) {
        platform_.log.warning("WARNING: Failed to notify user of app removal: %d", rc);
    }
}

// A one-shot job that outlives the daemon: submitted at once, never listed,
// and it removes itself when its script ends.
void TYSupervisor::startCleanupJob(const char* label, const char* script) {
    const plist::Value definition(plist::Dictionary{
        {"Label", plist::Value(label)},
        {"ProgramArguments", plist::Value(plist::Array{plist::Value("/bin/sh"), plist::Value("-c"),
                                                       plist::Value(script)})},
        {"RunAtLoad", plist::Value::boolean(true)},
    });
    TYSupervisedService::make(*this, definition)->start();
}

void TYSupervisor::startUninstallExtrasService() {
    startCleanupJob(kUninstallExtrasLabel, kUninstallExtrasScript);
}

void TYSupervisor::startKillallTessaryAppsService() {
    startCleanupJob(kKillallLabel, kKillallScript);
}

}  // namespace tessary
