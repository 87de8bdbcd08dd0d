#include "watchers/app_watcher.h"

#include "platform/platform.h"

namespace tessary {

TYSupervisorAppWatcher::Services TYSupervisorAppWatcher::servicesOf(const Platform& platform) {
    return {platform.queue,      platform.fileEvents, platform.fileCoordination,     platform.files,
            platform.bundleInfo, platform.log,        platform.paths.appDaemonCopy()};
}

TYSupervisorAppWatcher::TYSupervisorAppWatcher(const std::string& bundlePath,
                                               const Services& services)
    : queue_(services.queue),
      fileEvents_(services.fileEvents),
      coordination_(services.coordination),
      files_(services.files),
      bundleInfo_(services.bundleInfo),
      log_(services.log),
      daemonCopyPath_(services.daemonCopyPath),
      url_(bundlePath),
      self_(std::make_shared<TYSupervisorAppWatcher*>(this)) {}

TYSupervisorAppWatcher::~TYSupervisorAppWatcher() = default;

std::unique_ptr<TYSupervisorAppWatcher> TYSupervisorAppWatcher::initWithURL(
    const std::string& bundlePath, const Services& services) {
    if (bundlePath.empty()) {
        return nullptr;
    }
    std::unique_ptr<TYSupervisorAppWatcher> watcher(
        new TYSupervisorAppWatcher(bundlePath, services));
    TYSupervisorAppWatcher* w = watcher.get();
    auto executable = w->bundleInfo_.mainExecutablePath(bundlePath);
    if (!executable) {
        return nullptr;
    }
    w->tessaryAppPath_ = *executable;
    auto attributes = w->files_.attributes(w->tessaryAppPath_);
    if (!attributes) {
        return nullptr;
    }
    w->tessaryAppAttributes_ = attributes.value();
    return watcher;
}

void TYSupervisorAppWatcher::start() {
    coordination_.addFilePresenter(*this, url_);
    if (state_ == State::Made) {
        state_ = State::Started;
    }
    watchBundle();
}

void TYSupervisorAppWatcher::watchBundle() {
    // The source belongs to the watcher, so its action never outlives it.
    app_vnode_source_ = fileEvents_.watch(
        url_, kWatchedEvents, [this](std::uint32_t /*event*/) { appWasRenamedOrDeleted(); });
    if (app_vnode_source_) {
        app_vnode_source_->resume();
        return;
    }
    if (!files_.exists(url_)) {
        detectChange();  // gone while it could not be watched
        return;
    }
    log_.error("ERROR: Unable to watch %@ for changes; trying again in %d seconds", url_,
               kWatchRetryInterval.count());
    watchRetryTimer_ =
        queue_.after(kWatchRetryInterval, [alive = std::weak_ptr<TYSupervisorAppWatcher*>(self_)] {
            if (auto self = alive.lock()) {
                TYSupervisorAppWatcher& w = **self;
                w.watchRetryTimer_.reset();
                w.watchBundle();
                if (w.app_vnode_source_) {
                    w.detectChange();  // a change made while nothing watched
                }
            }
        });
}

void TYSupervisorAppWatcher::postToMain(std::function<void(TYSupervisorAppWatcher&)> step) {
    queue_.post([alive = std::weak_ptr<TYSupervisorAppWatcher*>(self_), step = std::move(step)] {
        if (auto self = alive.lock()) {
            step(**self);
        }
    });
}

void TYSupervisorAppWatcher::relinquishPresentedItemToWriter(
    const std::function<void(std::function<void()> reacquirer)>& writer) {
    trovelDidTakeLock();
    // The writer is never kept waiting; it may hand the reacquirer back long
    // after this call, when the watcher could be gone.
    writer([alive = std::weak_ptr<TYSupervisorAppWatcher*>(self_)] {
        if (auto self = alive.lock()) {
            (*self)->trovelDidRelinquishLock();
        }
    });
}

// The lock flag changes behind the operation in progress, so a decision
// never sees it change half-way.
void TYSupervisorAppWatcher::trovelDidTakeLock() {
    postToMain([](TYSupervisorAppWatcher& w) {
        if (!w.trovelHasLock_) {
            w.trovelHasLock_ = true;
        }
    });
}

void TYSupervisorAppWatcher::trovelDidRelinquishLock() {
    postToMain([](TYSupervisorAppWatcher& w) {
        if (w.trovelHasLock_) {
            w.trovelHasLock_ = false;
            w.handleAppReplacementOrRemoval();
        }
    });
}

void TYSupervisorAppWatcher::appWasRenamedOrDeleted() {
    postToMain([](TYSupervisorAppWatcher& w) { w.detectChange(); });
}

void TYSupervisorAppWatcher::detectChange() {
    if (files_.exists(url_)) {
        // A bundle stands at the path: the one we know, renamed in place, or
        // another one already. Only the executable tells; an unreadable one
        // is not the one we know.
        auto now = files_.attributes(tessaryAppPath_);
        if (now && now.value() == tessaryAppAttributes_) {
            return;
        }
        if (didDetectRemoval_) {
            return;
        }
        didDetectRemoval_ = true;
        state_ = State::ChangeDetected;
        handleAppChange();
        // A different bundle is already in place: no reason to wait.
        handleAppReplacementOrRemoval();
        return;
    }
    if (didDetectRemoval_) {
        return;
    }
    didDetectRemoval_ = true;
    state_ = State::ChangeDetected;
    handleAppChange();
    // Give a replacement copy the time to appear before calling it removal.
    createRemovalDetectionDelayTimer();
}

void TYSupervisorAppWatcher::handleAppChange() {
    if (auto handler = appWillChangeHandler()) {
        handler();
    }
}

void TYSupervisorAppWatcher::handleAppReplacementOrRemoval() {
    if (!didDetectRemoval_) {
        return;
    }
    if (files_.exists(url_)) {
        if (trovelHasLock_) {
            // The release of the lock runs the decision again.
            state_ = State::WaitingForLock;
            return;
        }
        const auto now = wholeBundle();
        if (!now || now != lastSeenCopy_) {
            lastSeenCopy_ = now;
            waitForCopy();
            return;
        }
        state_ = State::Decided;
        if (auto handler = appWasReplacedHandler()) {
            handler();
        }
        return;
    }
    settleTimer_.reset();
    lastSeenCopy_.reset();
    trovelHasLock_ = false;
    state_ = State::Decided;
    if (auto handler = appWasRemovedHandler()) {
        handler();
    }
}

std::optional<TYSupervisorAppWatcher::Snapshot> TYSupervisorAppWatcher::wholeBundle() const {
    const auto info = bundleInfo_.infoDictionary(url_);
    const auto daemonInfo = bundleInfo_.infoDictionary(daemonCopyPath_);
    const auto executable = bundleInfo_.mainExecutablePath(url_);
    if (!info || info->stringAt("CFBundleShortVersionString") == nullptr || !daemonInfo ||
        daemonInfo->stringAt("CFBundleVersion") == nullptr || !executable) {
        return std::nullopt;
    }
    auto infoFile = files_.attributes(url_ + "/Contents/Info.plist");
    auto executableFile = files_.attributes(*executable);
    auto daemonFile = files_.attributes(daemonCopyPath_);
    if (!infoFile || !executableFile || !daemonFile) {
        return std::nullopt;
    }
    return Snapshot{infoFile.value(), executableFile.value(), daemonFile.value()};
}

// Looks at the copy again after the settle interval; one look pending at a
// time.
void TYSupervisorAppWatcher::waitForCopy() {
    state_ = State::WaitingForCopy;
    if (settleTimer_) {
        return;
    }
    settleTimer_ =
        queue_.after(kSettleInterval, [alive = std::weak_ptr<TYSupervisorAppWatcher*>(self_)] {
            if (auto self = alive.lock()) {
                (*self)->settleTimer_.reset();
                (*self)->handleAppReplacementOrRemoval();
            }
        });
}

void TYSupervisorAppWatcher::createRemovalDetectionDelayTimer() {
    if (removalDetectionDelayTimer_) {
        return;
    }
    removalDetectionDelayTimer_ = queue_.after(
        kRemovalDetectionDelay, [alive = std::weak_ptr<TYSupervisorAppWatcher*>(self_)] {
            if (auto self = alive.lock()) {
                (*self)->removalDetectionDelayTimerDidFire();
            }
        });
    // Without a timer the decision waits for a lock release; the queue only
    // refuses a timer when it is out of memory.
    if (removalDetectionDelayTimer_) {
        state_ = State::WaitingForDelay;
    }
}

void TYSupervisorAppWatcher::destroyRemovalDetectionDelayTimer() {
    removalDetectionDelayTimer_.reset();
}

void TYSupervisorAppWatcher::removalDetectionDelayTimerDidFire() {
    postToMain([](TYSupervisorAppWatcher& w) {
        w.destroyRemovalDetectionDelayTimer();
        w.handleAppReplacementOrRemoval();
    });
}

}  // namespace tessary
