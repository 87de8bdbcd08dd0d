#include "watchers/app_watcher.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "doubles/fake_desktop.h"
#include "doubles/fake_main_queue.h"
#include "doubles/fake_watches.h"
#include "platform/linux/posix_file_operations.h"
#include "support/temp_dir.h"

namespace tessary {
namespace {

using namespace std::chrono_literals;
using State = TYSupervisorAppWatcher::State;
namespace fs = std::filesystem;

// A bundle on disk, the doubles around it, and every callback written down
// with the virtual time it ran at.
class AppWatcherTest : public ::testing::Test {
  protected:
    AppWatcherTest() {
        putBundle("first build");
        bundleInfo.executables[bundle] = executable;
    }

    void putBundle(const std::string& executableText) {
        testing::writeFile(executable, executableText);
    }
    void removeBundle() { fs::remove_all(bundle); }
    void moveBundleAway() { fs::rename(bundle, dir / "Trash.app"); }

    std::unique_ptr<TYSupervisorAppWatcher> make() {
        return TYSupervisorAppWatcher::initWithURL(
            bundle, {queue, events, coordination, files, bundleInfo});
    }

    void startWatcher() {
        watcher = make();
        ASSERT_NE(watcher, nullptr);
        watcher->setAppWillChangeHandler([this] { record("will-change"); });
        watcher->setAppWasReplacedHandler([this] { record("replaced"); });
        watcher->setAppWasRemovedHandler([this] { record("removed"); });
        watcher->start();
    }

    void record(const std::string& what) {
        calls.push_back(what + "@" + std::to_string(queue.now() / 100ms));
    }

    // An event from the file system, then what the main queue does with it.
    void event(std::uint32_t kind) {
        events.raise(bundle, kind);
        queue.runPending();
    }

    // What a coordinated writer does: take the lock, write, give it back.
    std::function<void()> takeLock() {
        std::function<void()> reacquire;
        watcher->relinquishPresentedItemToWriter(
            [&](std::function<void()> reacquirer) { reacquire = std::move(reacquirer); });
        queue.runPending();
        return reacquire;
    }

    using Calls = std::vector<std::string>;

    testing::TempDir dir;
    const std::string bundle = dir / "Tessary.app";
    const std::string executable = bundle + "/Contents/MacOS/Tessary";
    testing::FakeMainQueue queue;
    testing::FakeFileEvents events;
    testing::FakeFileCoordination coordination;
    linux_backend::PosixFileOperations files;
    testing::FakeBundleInfo bundleInfo;
    std::unique_ptr<TYSupervisorAppWatcher> watcher;
    Calls calls;  // "what@tenths of a second"
};

TEST_F(AppWatcherTest, InitNeedsAWatchableBundleAndStartLetsEventsThrough) {
    auto made = make();
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(made->tessaryAppPath(), executable);
    events.raise(bundle, kFileEventDelete);  // held: not started
    queue.runPending();
    EXPECT_FALSE(made->didDetectRemoval());
    EXPECT_TRUE(coordination.presenters.empty());
    made->start();
    EXPECT_EQ(made->state(), State::Started);
    ASSERT_EQ(coordination.presenters.size(), 1u);
    EXPECT_EQ(coordination.presenters[0].second, bundle);

    events.refuse = true;
    EXPECT_EQ(make(), nullptr);
    events.refuse = false;
    fs::remove(executable);
    EXPECT_EQ(make(), nullptr);
}

TEST_F(AppWatcherTest, RenameInPlaceWithTheSameExecutableIsNoChange) {
    startWatcher();
    event(kFileEventRename);
    queue.advance(10s);
    EXPECT_EQ(calls, Calls{});
    EXPECT_EQ(watcher->state(), State::Started);
}

TEST_F(AppWatcherTest, DeletedForGoodIsRemovedAfterTheDelay) {
    startWatcher();
    removeBundle();
    events.raise(bundle, kFileEventDelete);
    // The event only posts; the detection runs behind the current operation.
    EXPECT_EQ(calls, Calls{});
    queue.runPending();
    EXPECT_EQ(calls, Calls{"will-change@0"});
    EXPECT_TRUE(watcher->didDetectRemoval());
    EXPECT_EQ(watcher->state(), State::WaitingForDelay);

    // Later events neither restart nor double the delay.
    queue.advance(3s);
    event(kFileEventDelete);
    event(kFileEventRename);
    EXPECT_EQ(queue.pendingTimers(), 1u);
    queue.advance(1900ms);
    EXPECT_EQ(calls, Calls{"will-change@0"});
    queue.advance(100ms);
    EXPECT_EQ(calls, (Calls{"will-change@0", "removed@50"}));
    EXPECT_FALSE(watcher->trovelHasLock());
    EXPECT_EQ(watcher->state(), State::Decided);
    queue.advance(10s);
    EXPECT_EQ(calls, (Calls{"will-change@0", "removed@50"}));
}

TEST_F(AppWatcherTest, MovedAwayIsARemovalEvenThoughTheWatchFollowsIt) {
    startWatcher();
    moveBundleAway();
    event(kFileEventRename);
    // The moved bundle is deleted from the trash: the watch reports it, and
    // it changes nothing.
    queue.advance(2s);
    event(kFileEventDelete);
    queue.advance(3s);
    EXPECT_EQ(calls, (Calls{"will-change@0", "removed@50"}));
}

TEST_F(AppWatcherTest, NewCopyWithinTheDelayIsAReplacement) {
    startWatcher();
    removeBundle();
    event(kFileEventDelete);
    queue.advance(2s);
    putBundle("second build, longer");
    queue.advance(2900ms);
    EXPECT_EQ(calls, Calls{"will-change@0"});
    queue.advance(100ms);
    EXPECT_EQ(calls, (Calls{"will-change@0", "replaced@50"}));
}

TEST_F(AppWatcherTest, CopyStillUnderTheLockWaitsForItsRelease) {
    startWatcher();
    removeBundle();
    event(kFileEventDelete);
    queue.advance(1s);
    watcher->trovelDidTakeLock();
    EXPECT_FALSE(watcher->trovelHasLock());  // behind the operation in progress
    queue.runPending();
    EXPECT_TRUE(watcher->trovelHasLock());
    auto release = [this] { watcher->trovelDidRelinquishLock(); };
    putBundle("second build, half written");
    queue.advance(4s);
    EXPECT_EQ(calls, Calls{"will-change@0"});
    EXPECT_EQ(watcher->state(), State::WaitingForLock);

    queue.advance(3s);
    release();
    EXPECT_EQ(calls, Calls{"will-change@0"});  // posted, not yet run
    queue.runPending();
    EXPECT_EQ(calls, (Calls{"will-change@0", "replaced@80"}));
    EXPECT_FALSE(watcher->trovelHasLock());
    EXPECT_EQ(watcher->state(), State::Decided);

    // The flag stays set: each later coordinated write on a bundle in place
    // reports a replacement again.
    takeLock()();
    queue.runPending();
    EXPECT_EQ(calls, (Calls{"will-change@0", "replaced@80", "replaced@80"}));
}

TEST_F(AppWatcherTest, LockReleasedWhileTheBundleIsMissingIsARemoval) {
    startWatcher();
    removeBundle();
    event(kFileEventDelete);
    queue.advance(1s);
    auto release = takeLock();
    queue.advance(1s);
    release();
    queue.runPending();
    EXPECT_EQ(calls, (Calls{"will-change@0", "removed@20"}));
    EXPECT_FALSE(watcher->trovelHasLock());

    // The delay still ends and repeats the outcome for the bundle's state.
    queue.advance(3s);
    EXPECT_EQ(calls, (Calls{"will-change@0", "removed@20", "removed@50"}));
}

TEST_F(AppWatcherTest, NothingInPlaceWhenTheDelayEndsIsARemovalDespiteTheLock) {
    startWatcher();
    removeBundle();
    event(kFileEventDelete);
    auto release = takeLock();
    queue.advance(5s);
    EXPECT_EQ(calls, (Calls{"will-change@0", "removed@50"}));
    EXPECT_FALSE(watcher->trovelHasLock());
    // The lock was given up with the removal: its release decides nothing.
    putBundle("second build, longer");
    release();
    queue.runPending();
    EXPECT_EQ(calls, (Calls{"will-change@0", "removed@50"}));
}

TEST_F(AppWatcherTest, ChangedExecutableInOneRenameIsReplacedAtOnce) {
    startWatcher();
    removeBundle();
    putBundle("second build, longer");
    event(kFileEventRename);
    EXPECT_EQ(calls, (Calls{"will-change@0", "replaced@0"}));
    EXPECT_EQ(queue.pendingTimers(), 0u);
    EXPECT_EQ(watcher->state(), State::Decided);

    // Once detected, a bundle that differs again is not news.
    putBundle("third build, longer still");
    event(kFileEventRename);
    EXPECT_EQ(calls, (Calls{"will-change@0", "replaced@0"}));
}

TEST_F(AppWatcherTest, WorkPendingWhenTheWatcherGoesIsDropped) {
    startWatcher();
    removeBundle();
    event(kFileEventDelete);
    auto release = takeLock();
    watcher.reset();
    release();
    queue.advance(10s);
    EXPECT_EQ(calls, Calls{"will-change@0"});
}

}  // namespace
}  // namespace tessary
