#include "watchers/app_watcher.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "doubles/fake_desktop.h"
#include "doubles/fake_main_queue.h"
#include "doubles/fake_watches.h"
#include "doubles/recording_system_log.h"
#include "platform/linux/fs/posix_file_operations.h"
#include "support/temp_dir.h"

namespace tessary {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

// A bundle on disk, the doubles around it, and every callback written down
// with the virtual time it ran at.
class AppWatcherTest : public ::testing::Test {
  protected:
    AppWatcherTest() {
        putBundle("first build");
        bundleInfo.executables[bundle] = executable;
        bundleInfo.dictionaries[bundle] =
            plist::Value(plist::Dictionary{{"CFBundleShortVersionString", plist::Value("5.12")}});
        bundleInfo.dictionaries[daemonCopy] =
            plist::Value(plist::Dictionary{{"CFBundleVersion", plist::Value("5.12")}});
    }

    // A whole bundle: information list, daemon copy, main executable.
    void putBundle(const std::string& executableText) {
        testing::writeFile(bundle + "/Contents/Info.plist", "info");
        testing::writeFile(daemonCopy, "daemon");
        testing::writeFile(executable, executableText);
    }
    void removeBundle() { fs::remove_all(bundle); }
    void moveBundleAway() { fs::rename(bundle, dir / "Trash.app"); }

    std::unique_ptr<TYSupervisorAppWatcher> make() {
        return TYSupervisorAppWatcher::initWithURL(
            bundle, {queue, events, coordination, files, bundleInfo, log, daemonCopy});
    }

    void startWatcher() {
        watcher = make();
        ASSERT_NE(watcher, nullptr);
        watcher->setAppWillChangeHandler([this] { record("will-change"); });
        watcher->setAppWasReplacedHandler([this] { record("replaced"); });
        watcher->setAppWasRemovedHandler([this] { record("removed"); });
        watcher->start();
    }

    // The bundle deleted under a started watcher, and the event seen.
    void startThenDelete() {
        startWatcher();
        removeBundle();
        event(kFileEventDelete);
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
    const std::string daemonCopy = bundle + "/Contents/Library/LaunchServices/com.orvane.tessaryd";
    testing::FakeMainQueue queue;
    testing::FakeFileEvents events;
    testing::FakeFileCoordination coordination;
    linux_backend::PosixFileOperations files;
    testing::FakeBundleInfo bundleInfo;
    testing::RecordingSystemLog log;
    std::unique_ptr<TYSupervisorAppWatcher> watcher;
    Calls calls;  // "what@tenths of a second"
};

TEST_F(AppWatcherTest, InitNeedsABundleAndOnlyAChangedBundleIsNews) {
    auto made = make();
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(made->tessaryAppPath(), executable);
    EXPECT_TRUE(coordination.presenters.empty());
    made->start();
    ASSERT_EQ(coordination.presenters.size(), 1u);
    EXPECT_EQ(coordination.presenters[0].second, bundle);

    // A rename that leaves the bundle in place, executable unchanged, is no
    // change at all.
    startWatcher();
    event(kFileEventRename);
    queue.advance(10s);
    EXPECT_EQ(calls, Calls{});

    fs::remove(executable);
    EXPECT_EQ(make(), nullptr);
}

// A watch the machine cannot give (its inotify instances used up) is no news
// about the bundle: an ERROR line, a retry, and once watched a look for what
// changed meanwhile.
TEST_F(AppWatcherTest, AWatchThatCannotBeSetUpIsRetriedNotARemoval) {
    events.refuse = true;
    startWatcher();
    EXPECT_EQ(log.countStartingWith("ERROR: Unable to watch "), 1U);
    queue.advance(10s);
    EXPECT_EQ(log.countStartingWith("ERROR: Unable to watch "), 2U);
    EXPECT_EQ(calls, Calls{});

    // Replaced while nothing watched: seen at the first watch that holds.
    putBundle("second build, longer");
    events.refuse = false;
    queue.advance(10s);
    EXPECT_EQ(log.countStartingWith("ERROR: Unable to watch "), 2U);
    queue.advance(2s);
    EXPECT_EQ(calls, (Calls{"will-change@200", "replaced@220"}));

    // Removed while nothing watched.
    calls.clear();
    events.refuse = true;
    startWatcher();
    removeBundle();
    queue.advance(10s);
    queue.advance(5s);
    EXPECT_EQ(calls, (Calls{"will-change@320", "removed@370"}));
}

// A copy that arrives file by file, its daemon in two halves and its
// executable last, is a replacement only once it is whole and still; never a
// removal while something stands at the path.
TEST_F(AppWatcherTest, ACopyStillArrivingIsWaitedFor) {
    startThenDelete();
    queue.advance(1s);
    testing::writeFile(bundle + "/Contents/Info.plist", "info");
    queue.advance(4s);  // the delay ends with half a bundle in place
    testing::writeFile(daemonCopy, "dae");
    queue.advance(2s);
    testing::writeFile(daemonCopy, "daemon, whole");
    testing::writeFile(executable, "second");
    queue.advance(1s);
    testing::writeFile(executable, "second build, growing");
    queue.advance(2s);  // whole at last, and seen so
    testing::writeFile(executable, "second build, grown again");
    queue.advance(2s);  // changed since: still not in place
    EXPECT_EQ(calls, Calls{"will-change@0"});
    queue.advance(1s);
    EXPECT_EQ(calls, (Calls{"will-change@0", "replaced@130"}));
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
    startThenDelete();
    queue.advance(2s);
    putBundle("second build, longer");
    queue.advance(3s);
    EXPECT_EQ(calls, Calls{"will-change@0"});
    // Whole at the end of the delay; replaced once it has stayed so.
    queue.advance(2s);
    EXPECT_EQ(calls, (Calls{"will-change@0", "replaced@70"}));
}

TEST_F(AppWatcherTest, CopyStillUnderTheLockWaitsForItsRelease) {
    startThenDelete();
    queue.advance(1s);
    watcher->trovelDidTakeLock();
    EXPECT_FALSE(watcher->trovelHasLock());  // behind the operation in progress
    queue.runPending();
    EXPECT_TRUE(watcher->trovelHasLock());
    auto release = [this] { watcher->trovelDidRelinquishLock(); };
    putBundle("second build, half written");
    queue.advance(4s);
    EXPECT_EQ(calls, Calls{"will-change@0"});

    queue.advance(3s);
    release();
    EXPECT_EQ(calls, Calls{"will-change@0"});  // posted, not yet run
    queue.runPending();
    queue.advance(2s);
    EXPECT_EQ(calls, (Calls{"will-change@0", "replaced@100"}));
    EXPECT_FALSE(watcher->trovelHasLock());

    // The flag stays set: each later coordinated write on a bundle in place
    // reports a replacement again.
    takeLock()();
    queue.runPending();
    EXPECT_EQ(calls, (Calls{"will-change@0", "replaced@100", "replaced@100"}));
}

TEST_F(AppWatcherTest, LockReleasedWhileTheBundleIsMissingIsARemoval) {
    startThenDelete();
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
    startThenDelete();
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

TEST_F(AppWatcherTest, ChangedExecutableInOneRenameIsReplacedOnceSettled) {
    startWatcher();
    removeBundle();
    putBundle("second build, longer");
    event(kFileEventRename);
    EXPECT_EQ(calls, (Calls{"will-change@0"}));
    queue.advance(2s);
    EXPECT_EQ(calls, (Calls{"will-change@0", "replaced@20"}));
    EXPECT_EQ(queue.pendingTimers(), 0u);

    // Once detected, a bundle that differs again is not news.
    putBundle("third build, longer still");
    event(kFileEventRename);
    EXPECT_EQ(calls, (Calls{"will-change@0", "replaced@20"}));
}

}  // namespace
}  // namespace tessary
