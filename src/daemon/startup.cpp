#include "daemon/daemon_info.h"
#include "daemon/supervisor.h"
#include "daemon/version_compare.h"

namespace tessary {

namespace {

constexpr const char* kAdminRight = "system.privilege.admin";

}  // namespace

void TYSupervisor::init() {
    preferences_.upgradePreferences();

    const auto installed = platform_.productInfo.tessaryVersion();
    const auto minimum = platform_.productInfo.minimumTessaryVersion();
    setIsIncompatibleVersion(installed && minimum && compareVersions(*minimum, *installed) > 0);

    checkForActivePromotion();
    checkForUpdate();

    CommandTable rights;
    for (const char* command : {"demote", "list", "enable", "disable", "reset", "programArguments",
                                "sockets", "startCalendarIntervals", "create", "destroy",
                                "restoreServices", "beginPromotion", "endPromotion"}) {
        rights.emplace(command, kAdminRight);
    }
    setAuthorizationRightsForCommands(std::move(rights));
    setRequirementsForCommands({{"status", "true"}});
}

void TYSupervisor::start() {
    const Paths& paths = platform_.paths;
    FileOperations& files = platform_.files;
    SystemLog& log = platform_.log;

    // The notices show the icon from here, so it must outlive the app.
    const std::string support = paths.supportDirectory();
    if (!files.exists(support)) {
        (void)files.createDirectory(support, true, std::nullopt);
    }
    (void)files.copyFile(paths.appResources() + "/" + std::string(Paths::kAppIconName),
                         support + "/" + std::string(Paths::kAppIconName));

    if (!isIncompatibleVersion()) {
        const plist::Value info = daemonInfoDictionary();
        const std::string* version = info.stringAt("CFBundleVersion");
        preferences_.setVersion(version != nullptr ? std::optional<std::string>(*version)
                                                   : std::nullopt);
        loadServices();
        syncServices();
        if (watchers_.startPowerWatcher) {
            watchers_.startPowerWatcher(
                [this] {
                    setDrowsy(true);
                    syncServices();
                },
                [this] {
                    setDrowsy(false);
                    syncServices();
                });
        }
    } else if (!avoidShowingAlert()) {
        showIncompatibleTessaryVersionAlert();
    }

    const std::string app = paths.appBundle();
    std::optional<WatcherFactories::AppWatcher> watcher;
    if (watchers_.makeAppWatcher) {
        watcher = watchers_.makeAppWatcher(app);
    }
    if (!watcher) {
        log.warning("WARNING: %@ not found.", app);
        showAppRemovalAlert();
        demote();
        return;
    }

    if (bundleVersionsMatch()) {
        watcher->start(
            [this, app] {
                platform_.log.warning(
                    "WARNING: %@ is being replaced or removed, determining which...", app);
                stopAllServices();
            },
            [this, app] {
                platform_.log.warning("WARNING: %@ was replaced.", app);
                showAppReplacementAlert();
                update();
            },
            [this, app] {
                platform_.log.warning("WARNING: %@ was removed.", app);
                showAppRemovalAlert();
                demote();
            });
        startRequestListener();
        return;
    }

    // Versions differ. With two or more services parked for the update the
    // daemon stays idle, without a listener, until it is restarted.
    const auto parked = preferences_.previouslyEnabledServices();
    const std::size_t count = (parked && parked->array() != nullptr) ? parked->array()->size() : 0;
    if (count < 2) {
        log.warning("WARNING: %@ was replaced.", app);
        showAppReplacementAlert();
        update();
    }
}

bool TYSupervisor::bundleVersionsMatch() const {
    const auto daemon = platform_.bundleInfo.infoDictionary(platform_.paths.installedDaemon());
    const auto app = platform_.bundleInfo.infoDictionary(platform_.paths.appBundle());
    if (!daemon || !app) {
        return false;
    }
    const std::string* daemonVersion = daemon->stringAt("CFBundleVersion");
    const std::string* appVersion = app->stringAt("CFBundleShortVersionString");
    return daemonVersion != nullptr && appVersion != nullptr && *daemonVersion == *appVersion;
}

std::string TYSupervisor::currentSetupStatus() const {
    // All four facts are read every time, in this order.
    const bool backendEnabled = preferences_.serviceIsEnabled("com.orvane.tessaryadmind.backend");
    const bool setupDone = platform_.files.exists(platform_.paths.setupDoneMarker());
    const bool versionsMatch = bundleVersionsMatch();
    const auto parked = preferences_.previouslyEnabledServices();
    const std::size_t count = (parked && parked->array() != nullptr) ? parked->array()->size() : 0;
    if (setupDone && backendEnabled && versionsMatch) {
        return "configured";
    }
    return count < 2 ? "unconfigured" : "updatable";
}

}  // namespace tessary
