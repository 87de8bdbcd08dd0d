#include "watchers/app_watcher.h"

#include "platform/platform.h"

namespace tessary {

TYSupervisorAppWatcher::Services TYSupervisorAppWatcher::servicesOf(const Platform& platform) {
    return {platform.queue, platform.fileEvents, platform.fileCoordination, platform.files,
            platform.bundleInfo};
}

TYSupervisorAppWatcher::TYSupervisorAppWatcher(const std::string& bundlePath,
                                               const Services& services)
    : queue_(services.queue),
      fileEvents_(services.fileEvents),
      coordination_(services.coordination),
      files_(services.files),
      bundleInfo_(services.bundleInfo),
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

    // The source holds its events until `start`; it belongs to the watcher,
    // so its action never outlives it.
    w->app_vnode_source_ = w->fileEvents_.watch(
        bundlePath, kWatchedEvents, [w](std::uint32_t /*event*/) { w->appWasRenamedOrDeleted(); });
    if (!w->app_vnode_source_) {
        return nullptr;
    }

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
    app_vnode_source_->resume();
    coordination_.addFilePresenter(*this, url_);
    if (state_ == State::Made) {
        state_ = State::Started;
    }
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
        state_ = State::Decided;
        if (auto handler = appWasReplacedHandler()) {
            handler();
        }
        return;
    }
    trovelHasLock_ = false;
    state_ = State::Decided;
    if (auto handler = appWasRemovedHandler()) {
        handler();
    }
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
