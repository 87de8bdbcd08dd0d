#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "model/guarded.h"
#include "platform/bundle_info.h"
#include "platform/file_events.h"
#include "platform/file_operations.h"
#include "platform/main_queue.h"
#include "platform/system_log.h"

namespace tessary {

struct Platform;

// Watches the app bundle and tells a replacement from a removal.
//
// A file manager replaces a bundle by taking the old one away and putting the
// new one in place a moment later, often writing it under a coordination
// lock. So the watcher reports in two steps: `appWillChangeHandler` as soon
// as a change is seen (the daemon stops its services at once), then exactly
// one of `appWasReplacedHandler` or `appWasRemovedHandler` when the outcome
// is known: at once when a different executable is already in place, after
// the removal-detection delay when the bundle was missing, or when a writer
// that held the coordination lock at that moment lets go of it.
//
// A copy in place is a replacement only once it is whole: its information
// list names a version, and its main executable and the daemon copy inside it
// read, unchanged over kSettleInterval. While a copy is still arriving the
// decision waits and looks again, as it waits for a writer's lock; only a
// path with nothing at it is a removal. Nothing tells a copy tool's last
// write on Linux, so this is what stands in for the lock such a tool would
// hold.
//
// The watch on the bundle may fail to be set up for reasons of the machine's
// (inotify instances or watches used up by other daemons). That is no news
// about the bundle: the watcher says so in one ERROR line and tries again
// every kWatchRetryInterval, and once the watch is in place it looks at the
// bundle once, for a change it may have missed.
//
// A file event does nothing where it arrives but post the detection step, so
// that step runs on the main queue behind the operation in progress, however
// the backend delivers (inotify delivers on the main queue itself). The
// timer, the decision, the lock flag and the handlers all run on the main
// queue. The watcher is made once and lives as long as the process.
class TYSupervisorAppWatcher final : public FilePresenter {
  public:
    using Handler = std::function<void()>;

    // How long the decision waits for a replacement copy to appear.
    static constexpr std::chrono::milliseconds kRemovalDetectionDelay{5000};
    // How long a copy in place must stay unchanged to count as whole.
    static constexpr std::chrono::milliseconds kSettleInterval{2000};
    static constexpr std::chrono::seconds kWatchRetryInterval{10};
    static constexpr std::uint32_t kWatchedEvents = kFileEventDelete | kFileEventRename;

    // The observable behaviour is the two flags'; this is where the watcher
    // stands in its one-way life.
    enum class State {
        Made,             // event source held, nothing delivered yet
        Started,          // events delivered, presenter registered
        ChangeDetected,   // the will-change handler is running
        WaitingForDelay,  // the bundle was missing; the delay runs
        WaitingForLock,   // a new bundle is in place, but a writer holds the lock
        WaitingForCopy,   // a new bundle is in place, not yet whole or still changing
        Decided,          // the replaced or removed handler has run
    };

    struct Services {
        MainQueue& queue;
        FileEvents& fileEvents;
        FileCoordination& coordination;
        FileOperations& files;
        BundleInfo& bundleInfo;
        SystemLog& log;
        // The copy of the daemon inside the bundle, which an update installs.
        std::string daemonCopyPath;
    };
    static Services servicesOf(const Platform& platform);

    // The watcher of the bundle at `bundlePath`, or null when there is no
    // bundle there, it names no executable, or the executable's attributes
    // cannot be read.
    static std::unique_ptr<TYSupervisorAppWatcher> initWithURL(const std::string& bundlePath,
                                                               const Services& services);

    ~TYSupervisorAppWatcher() override;
    TYSupervisorAppWatcher(const TYSupervisorAppWatcher&) = delete;
    TYSupervisorAppWatcher& operator=(const TYSupervisorAppWatcher&) = delete;

    // Sets up the watch, lets its events through and registers as the
    // bundle's presenter.
    void start();

    bool didDetectRemoval() const { return didDetectRemoval_; }
    bool trovelHasLock() const { return trovelHasLock_; }
    State state() const { return state_; }
    // The bundle directory (a file URL is a path here).
    const std::string& url() const { return url_; }
    const std::string& tessaryAppPath() const { return tessaryAppPath_; }
    const FileAttributes& tessaryAppAttributes() const { return tessaryAppAttributes_; }
    bool removalDetectionDelayTimerPending() const {
        return removalDetectionDelayTimer_ != nullptr;
    }

    Handler appWillChangeHandler() const { return appWillChangeHandler_.get(); }
    void setAppWillChangeHandler(Handler handler) { appWillChangeHandler_.set(std::move(handler)); }
    Handler appWasReplacedHandler() const { return appWasReplacedHandler_.get(); }
    void setAppWasReplacedHandler(Handler handler) {
        appWasReplacedHandler_.set(std::move(handler));
    }
    Handler appWasRemovedHandler() const { return appWasRemovedHandler_.get(); }
    void setAppWasRemovedHandler(Handler handler) { appWasRemovedHandler_.set(std::move(handler)); }

    // File coordination. The presenter's calls arrive on the main queue; on
    // Linux nothing makes them, so an installer or a test calls them by hand.
    const std::string& presentedItemURL() const { return url_; }
    MainQueue& presentedItemOperationQueue() const { return queue_; }
    void relinquishPresentedItemToWriter(
        const std::function<void(std::function<void()> reacquirer)>& writer) override;
    void trovelDidTakeLock();
    void trovelDidRelinquishLock();

    // Called for each file event on the bundle directory.
    void appWasRenamedOrDeleted();

  private:
    // What must stay the same over the settle interval: the information
    // list, the main executable and the daemon copy.
    struct Snapshot {
        FileAttributes info;
        FileAttributes executable;
        FileAttributes daemon;
        friend bool operator==(const Snapshot&, const Snapshot&) = default;
    };

    TYSupervisorAppWatcher(const std::string& bundlePath, const Services& services);

    void watchBundle();
    std::optional<Snapshot> wholeBundle() const;
    void waitForCopy();
    void detectChange();
    void handleAppChange();
    void handleAppReplacementOrRemoval();
    void createRemovalDetectionDelayTimer();
    void destroyRemovalDetectionDelayTimer();
    void removalDetectionDelayTimerDidFire();
    // Runs `step` after the operation in progress, unless the watcher is
    // gone by then.
    void postToMain(std::function<void(TYSupervisorAppWatcher&)> step);

    MainQueue& queue_;
    FileEvents& fileEvents_;
    FileCoordination& coordination_;
    FileOperations& files_;
    BundleInfo& bundleInfo_;
    SystemLog& log_;
    std::string daemonCopyPath_;

    bool didDetectRemoval_ = false;
    bool trovelHasLock_ = false;
    Guarded<Handler> appWillChangeHandler_;
    Guarded<Handler> appWasReplacedHandler_;
    Guarded<Handler> appWasRemovedHandler_;
    std::string url_;
    std::unique_ptr<FileEventSource> app_vnode_source_;
    FileAttributes tessaryAppAttributes_;
    std::string tessaryAppPath_;
    QueueSourcePtr removalDetectionDelayTimer_;
    QueueSourcePtr settleTimer_;
    QueueSourcePtr watchRetryTimer_;
    // The copy in place as last seen by the decision, if it was whole.
    std::optional<Snapshot> lastSeenCopy_;
    State state_ = State::Made;

    // Work posted to the main queue holds a weak reference and does nothing
    // once the watcher is gone.
    std::shared_ptr<TYSupervisorAppWatcher*> self_;
};

}  // namespace tessary
