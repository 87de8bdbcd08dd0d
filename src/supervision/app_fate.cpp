#include <chrono>
#include <optional>
#include <string>

#include "daemon/supervisor.h"
#include "model/supervised_job.h"

namespace tessary {

namespace {

constexpr const char* kBackendService = "com.orvane.tessaryadmind.backend";
// The installed daemon runs as root: it is root's and nobody else's to change.
constexpr std::uint32_t kInstalledDaemonMode = 0755;

std::string parentOf(const std::string& path) {
    return path.substr(0, path.find_last_of('/'));
}

// The first of `file` and the directories above it, up to and with
// `bundle`, that someone other than root could change; none when there is
// none.
std::optional<std::string> changeableByOthers(FileOperations& files, const std::string& file,
                                              const std::string& bundle) {
    if (!files.writableOnlyByRoot(file)) {
        return file;
    }
    for (std::string dir = parentOf(file); dir.size() >= bundle.size(); dir = parentOf(dir)) {
        if (!files.writableOnlyByRoot(dir)) {
            return dir;
        }
        if (dir == bundle) {
            break;
        }
    }
    return std::nullopt;
}

}  // namespace

void TYSupervisor::checkForActivePromotion() {
    const auto type = preferences_.activePromotionType();
    if (!type) {
        return;
    }
    platform_.log.warning("WARNING: Incomplete promotion detected.");
    (void)platform_.files.removeItem(platform_.paths.setupDoneMarker());
    preferences_.setActivePromotionType(std::nullopt);
    preferences_.clearEnabledServices();
    // A promotion begun on a machine never set up leaves nothing to keep.
    if (*type == plist::Value("unconfigured")) {
        preferences_.clearPreviouslyEnabledServices();
        finishDemotion();
    }
}

void TYSupervisor::checkForUpdate() {
    const bool versionsMatch = bundleVersionsMatch();
    const std::string marker = platform_.paths.setupDoneMarker();
    if (preferences_.serviceIsEnabled(kBackendService) ||
        preferences_.serviceIsPreviouslyEnabled(kBackendService)) {
        const bool settled =
            versionsMatch && preferences_.version().has_value() && !isIncompatibleVersion();
        if (!settled) {
            (void)platform_.files.removeItem(marker);
        }
    }
    if (!platform_.files.exists(marker) && !(versionsMatch && isIncompatibleVersion())) {
        // Parked until a promotion ends and restores them.
        preferences_.savePreviouslyEnabledServices();
    }
}

void TYSupervisor::demote() {
    stopAllServices();
    preferences_.clearEnabledServices();
    preferences_.clearPreviouslyEnabledServices();
    preferences_.setActivePromotionType(std::nullopt);
    // After the work in progress, so that a command that demotes answers first.
    platform_.queue.post([this] { finishDemotion(); });
}

void TYSupervisor::finishDemotion() {
    FileOperations& files = platform_.files;
    const Paths& paths = platform_.paths;
    startUninstallExtrasService();
    (void)files.removeItem(paths.installedDaemon());
    (void)files.removeItem(paths.daemonJobDefinition());
    platform_.process.sleepFor(std::chrono::seconds(2));
    (void)files.removeItem(paths.supportDirectory());
    // The request socket is the daemon's endpoint; it goes with the daemon
    // rather than stay in /run until the next boot.
    (void)files.removeItem(paths.requestSocket());
    TYSupervisedJob::removeSupervisorJob(environment_);
    platform_.process.exit(0);
}

void TYSupervisor::update() {
    platform_.queue.post([this] {
        FileOperations& files = platform_.files;
        const Paths& paths = platform_.paths;
        SystemLog& log = platform_.log;
        std::optional<Error> failure;

        // What the service manager will run as root comes only from a copy
        // that nobody but root could have changed.
        const std::string source = paths.appDaemonCopy();
        const auto exposed = files.exists(source)
                                 ? changeableByOthers(files, source, paths.appBundle())
                                 : std::nullopt;
        // The new executable is copied beside the installed one and takes its
        // place in one rename: the service manager, or anyone, starting the
        // daemon meanwhile finds the old file or the new one, never a part.
        if (exposed) {
            log.error("ERROR: Not installing %@: users other than root can change %@", source,
                      *exposed);
            failure = Error{"Tessary", 1, "The daemon in the app can be changed by other users"};
        } else if (auto staged =
                       files.copyBeside(source, paths.installedDaemon(), kInstalledDaemonMode);
                   !staged) {
            log.warning("WARNING: Copying of com.orvane.tessaryd failed");
            failure = staged.error();
        } else if (Status replaced = files.replaceFile(staged.value(), paths.installedDaemon());
                   !replaced) {
            log.warning("WARNING: Removal of com.orvane.tessaryd failed");
            failure = replaced.error();
            (void)files.removeItem(staged.value());
        } else if (files.exists(paths.setupDoneMarker())) {
            if (Status marker = files.removeItem(paths.setupDoneMarker()); !marker) {
                log.warning("WARNING: Removal of .TessarySetupDone failed");
                failure = marker.error();
            }
        }

        if (!failure) {
            // The service manager starts the new executable: the daemon's job
            // keeps it running.
            startKillallTessaryAppsService();
            platform_.process.exit(0);
            return;
        }
        if (failure->description.empty()) {
            failure =
                Error{"Tessary", 1, "The operation couldn't be completed. (Tessary error 1.)"};
        }
        log.warning("WARNING: Error updating com.orvane.tessaryd %@", *failure);
        // The old executable may be gone already: there is nothing to fall
        // back to, so the daemon uninstalls itself.
        demote();
    });
}

void TYSupervisor::createPowerAssertion() {
    std::uint32_t id = 0;
    (void)platform_.powerAssertions.createAssertion(
        plist::Value(plist::Dictionary{
            {"AssertType", plist::Value("PreventUserIdleSystemSleep")},
            {"AssertLevel", plist::Value::integer(255)},
            {"AssertName", plist::Value("com.orvane.tessaryd")},
        }),
        id);
    setPowerAssertion(id);
}

void TYSupervisor::releasePowerAssertion() {
    (void)platform_.powerAssertions.releaseAssertion(powerAssertion());
    setPowerAssertion(0);
}

}  // namespace tessary
