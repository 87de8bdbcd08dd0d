#include "platform/linux/fs/inotify_file_events.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <vector>

#include "backends/event_loop.h"
#include "platform/linux/event/sd_event_queue.h"
#include "support/temp_dir.h"

namespace tessary::linux_backend {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using Events = std::vector<std::uint32_t>;

std::size_t openDescriptors() {
    std::size_t n = 0;
    for ([[maybe_unused]] const auto& e : fs::directory_iterator("/proc/self/fd")) {
        ++n;
    }
    return n;
}

// A bundle-like directory with contents, watched through the real main
// queue.
class InotifyFileEventsTest : public ::testing::Test {
  protected:
    InotifyFileEventsTest() {
        testing::writeFile(bundle + "/Contents/MacOS/Tessary", "build");
        testing::writeFile(bundle + "/Contents/Info.plist", "<plist/>");
    }

    std::unique_ptr<FileEventSource> watch(std::uint32_t mask = kFileEventDelete |
                                                                kFileEventRename) {
        return events.watch(bundle, mask, [this](std::uint32_t e) { seen.push_back(e); });
    }

    // Turns the loop until `count` events arrived or `limit` passed.
    void turn(std::size_t count, std::chrono::milliseconds limit = 2s) {
        (void)testing::runUntil(
            queue, [&] { return seen.size() >= count; }, limit);
    }

    testing::TempDir dir;
    const std::string bundle = dir / "Tessary.app";
    SdEventQueue queue;
    InotifyFileEvents events{queue};
    Events seen;
};

TEST_F(InotifyFileEventsTest, RemovalIsHeldUntilResumeThenOneDeleteEvent) {
    auto source = watch();
    ASSERT_NE(source, nullptr);
    fs::remove_all(bundle);
    turn(1, 200ms);
    EXPECT_EQ(seen, Events{});
    source->resume();
    // The entry's deletion in the parent and the directory's own; the
    // children's deletions are neither.
    turn(3, 200ms);
    EXPECT_EQ(seen, (Events{kFileEventDelete, kFileEventDelete}));
}

TEST_F(InotifyFileEventsTest, MoveIsARenameAndTheWatchFollowsTheDirectory) {
    auto source = watch();
    ASSERT_NE(source, nullptr);
    source->resume();
    const std::string moved = dir / "Trash.app";
    fs::rename(bundle, moved);
    turn(3, 200ms);
    EXPECT_EQ(seen, (Events{kFileEventRename, kFileEventRename}));  // the entry's and its own
    // The moved directory is still watched.
    seen.clear();
    fs::remove_all(moved);
    turn(1);
    EXPECT_EQ(seen, Events{kFileEventDelete});
}

TEST_F(InotifyFileEventsTest, MissingPathCannotBeWatchedAndSourcesCloseTheirDescriptor) {
    const std::size_t before = openDescriptors();
    EXPECT_EQ(events.watch(dir / "Missing.app", kFileEventDelete, [](std::uint32_t) {}), nullptr);
    {
        auto source = watch();
        ASSERT_NE(source, nullptr);
        source->resume();
        EXPECT_GT(openDescriptors(), before);
    }
    EXPECT_EQ(openDescriptors(), before);
}

}  // namespace
}  // namespace tessary::linux_backend
