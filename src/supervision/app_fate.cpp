#include <chrono>

#include "daemon/supervisor.h"
#include "model/supervised_job.h"

namespace tessary {

namespace {

constexpr const char* kBackendService = "com.orvane.tessaryadmind.backend";

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

        // The new executable is copied beside the installed one and takes its
        // place in one rename: the service manager, or anyone, starting the
        // daemon meanwhile finds the old file or the new one, never a part.
        const std::string staged = paths.stagedDaemon();
        if (files.exists(staged)) {
            (void)files.removeItem(staged);  // left by an update that died
        }
        if (Status copied = files.copyFile(paths.appDaemonCopy(), staged); !copied) {
            log.warning("WARNING: Copying of com.orvane.tessaryd failed");
            failure = copied.error();
        } else if (Status replaced = files.replaceFile(staged, paths.installedDaemon());
                   !replaced) {
            log.warning("WARNING: Removal of com.orvane.tessaryd failed");
            failure = replaced.error();
            (void)files.removeItem(staged);
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
