// The daemon's entry point: builds the Linux backends of every role on the
// fixed paths, makes the one supervisor, starts it, and runs the main loop.
// It reads no options and no environment.
#include <sys/resource.h>

#include <cerrno>

#include "daemon/daemon_info.h"
#include "daemon/supervisor.h"
#include "platform/linux/absent_facilities.h"
#include "platform/linux/desktop/desktop_notices.h"
#include "platform/linux/desktop/session_applications.h"
#include "platform/linux/event/sd_event_queue.h"
#include "platform/linux/fs/file_bundle_info.h"
#include "platform/linux/fs/file_product_info.h"
#include "platform/linux/fs/inotify_file_events.h"
#include "platform/linux/fs/posix_file_operations.h"
#include "platform/linux/ipc/proc_code_signing_service.h"
#include "platform/linux/ipc/unix_message_service.h"
#include "platform/linux/log/syslog_system_log.h"
#include "platform/linux/logind/logind_power.h"
#include "platform/linux/polkit/polkit_authorization_service.h"
#include "platform/linux/process/pidfd_exit_watch.h"
#include "platform/linux/process/process_control.h"
#include "platform/linux/systemd/systemd_service_manager.h"
#include "watchers/app_watcher.h"
#include "watchers/power_watcher.h"

using namespace tessary;
using namespace tessary::linux_backend;

namespace {

// Where the project's own small commands (jobtool, syslog) are installed; the
// service manager puts it first on the PATH of the jobs it submits.

// The service manager gives a service a soft limit of 1,024 descriptors. The
// request channel's own caps, not the kernel, must decide when a flood of
// connections is refused, so the soft limit goes up to the hard one.
void raiseDescriptorLimit(SystemLog& log) {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == limit.rlim_max) {
        return;
    }
    limit.rlim_cur = limit.rlim_max;
    if (::setrlimit(RLIMIT_NOFILE, &limit) != 0) {
        log.warning("WARNING: Unable to raise the descriptor limit: %@",
                    Error::posix(errno, "setrlimit"));
    }
}

}  // namespace

int main() {
    const Paths paths("/");
    SyslogSystemLog log;
    raiseDescriptorLimit(log);
    RealProcessControl process;
    SdEventQueue queue;
    if (!queue.valid()) {
        log.error("ERROR: Unable to set up the main loop");
        return 1;
    }
    PosixFileOperations files;
    SystemdServiceManager serviceManager(
        {std::string(paths.systemdPrivateSocket()), std::string(paths.systemdUnitDirectory()),
         std::string(Paths::kHelperBinDirectory), queue.event(), paths.systemdGeneratorDirectory(),
         kDaemonLabel},
        log);
    PolkitAuthorizationService authorization;
    ProcCodeSigningService codeSigning;
    UnixMessageService messages(queue, log, paths.requestSocket());
    FileProductInfo productInfo(paths.resolve(FileProductInfo::kVersionFile),
                                paths.resolve(FileProductInfo::kMinimumVersionFile));
    FileBundleInfo bundleInfo;
    PidfdExitWatch exitWatch(queue);
    InotifyFileEvents fileEvents(queue);
    NoFileCoordination fileCoordination;
    LogindSystemPowerNotifier powerNotifier(queue);
    LogindPowerAssertions powerAssertions;
    DesktopNotices notices;
    NoBackupExclusion backupExclusion;
    SessionApplications runningApplications;

    Platform platform{paths,
                      log,
                      queue,
                      process,
                      files,
                      serviceManager,
                      authorization,
                      codeSigning,
                      messages,
                      powerAssertions,
                      powerNotifier,
                      notices,
                      backupExclusion,
                      productInfo,
                      bundleInfo,
                      exitWatch,
                      runningApplications,
                      fileEvents,
                      fileCoordination};

    // Lives until the process ends; never torn down.
    auto* supervisor = new TYSupervisor(platform);  // NOLINT(cppcoreguidelines-owning-memory)
    // Both watchers live until the process ends.
    std::unique_ptr<TYSupervisorPowerWatcher> powerWatcher;
    std::unique_ptr<TYSupervisorAppWatcher> appWatcher;
    WatcherFactories factories;
    factories.startPowerWatcher = [&](std::function<void()> willSleep,
                                      std::function<void()> didWake) {
        powerWatcher = std::make_unique<TYSupervisorPowerWatcher>(powerNotifier, queue, log);
        powerWatcher->setWillSleepHandler(std::move(willSleep));
        powerWatcher->setDidWakeHandler(std::move(didWake));
        powerWatcher->start();
    };
    factories.makeAppWatcher =
        [&](const std::string& bundlePath) -> std::optional<WatcherFactories::AppWatcher> {
        appWatcher = TYSupervisorAppWatcher::initWithURL(
            bundlePath, TYSupervisorAppWatcher::servicesOf(platform));
        if (!appWatcher) {
            return std::nullopt;
        }
        return WatcherFactories::AppWatcher{[&](std::function<void()> willChange,
                                                std::function<void()> wasReplaced,
                                                std::function<void()> wasRemoved) {
            appWatcher->setAppWillChangeHandler(std::move(willChange));
            appWatcher->setAppWasReplacedHandler(std::move(wasReplaced));
            appWatcher->setAppWasRemovedHandler(std::move(wasRemoved));
            appWatcher->start();
        }};
    };
    supervisor->setWatcherFactories(std::move(factories));
    supervisor->init();
    supervisor->start();

    // sd-event keeps running without a source of its own; it returns only
    // when the loop fails, and then the service manager starts us again.
    (void)queue.run();
    process.exit(1);
}
