#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/unique_fd.h"
#include "platform/linux/event/sd_event_queue.h"
#include "platform/linux/fs/posix_file_operations.h"
#include "platform/system_log.h"
#include "support/temp_dir.h"

namespace tessary {
namespace {

using namespace std::chrono_literals;

TEST(LogFormat, ExpandsEachConversionOnce) {
    const plist::Value label("com.example.a");
    const Error err{"NSPOSIXErrorDomain", 28, "No space left on device"};
    EXPECT_EQ(formatLogLine("ERROR: Failure writing preferences: %@", {err}),
              "ERROR: Failure writing preferences: No space left on device");
    EXPECT_EQ(formatLogLine("WARNING: Service %@ took %f seconds to stop", {label, 0.25}),
              "WARNING: Service com.example.a took 0.250000 seconds to stop");
    EXPECT_EQ(formatLogLine("SUBMIT: %s", {"a b"}), "SUBMIT: a b");
    EXPECT_EQ(formatLogLine("Relkamport() failed: %d", {-60001}), "Relkamport() failed: -60001");
    // The stray ".:" stays as written, and "%" of arguments is not reparsed.
    EXPECT_EQ(
        formatLogLine("WARNING: Failed to notify user of incompatible tessary version.: %d", {3}),
        "WARNING: Failed to notify user of incompatible tessary version.: 3");
    EXPECT_EQ(formatLogLine("%@ and %@", {"100%d", "x"}), "100%d and x");
    EXPECT_EQ(formatLogLine("100%% %@ %@", {"only"}), "100% only %@");
}

// The real loop: posted work in order, work posted by work on a later turn,
// timers by deadline, a cancelled timer never fires, descriptors wake it.
TEST(SdEventQueue, RunsWorkTimersAndDescriptorsInOrder) {
    linux_backend::SdEventQueue queue;
    ASSERT_TRUE(queue.valid());
    std::vector<std::string> order;
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    UniqueFd readEnd(fds[0]);
    UniqueFd writeEnd(fds[1]);

    QueueSourcePtr cancelled = queue.after(1ms, [&] { order.push_back("cancelled"); });
    QueueSourcePtr late = queue.after(20ms, [&] {
        order.push_back("timer 20ms");
        queue.exit(7);
    });
    QueueSourcePtr early = queue.after(5ms, [&] {
        order.push_back("timer 5ms");
        ASSERT_EQ(::write(writeEnd.get(), "x", 1), 1);
    });
    QueueSourcePtr watch;
    watch = queue.watch(readEnd.get(), EPOLLIN, [&](std::uint32_t) {
        char c;
        (void)::read(readEnd.get(), &c, 1);
        order.push_back("readable");
        watch.reset();  // a watch may end itself
    });
    for (int i = 0; i < 3; ++i) {
        queue.post([&, i] {
            order.push_back("post " + std::to_string(i));
            if (i == 0) {
                queue.post([&] { order.push_back("posted by post 0"); });
            }
        });
    }
    cancelled.reset();
    EXPECT_EQ(queue.run(), 7);
    EXPECT_EQ(order, (std::vector<std::string>{"post 0", "post 1", "post 2", "posted by post 0",
                                               "timer 5ms", "readable", "timer 20ms"}));
}

// Writing is the preferences' (e2e.kill kills the daemon at any instant,
// e2e.faults fills its disk); copying and moving never overwrite.
TEST(PosixFileOperations, CopyAndMoveNeverOverwrite) {
    testing::TempDir dir;
    linux_backend::PosixFileOperations files;
    const std::string path = dir / "file";
    ASSERT_TRUE(files.writeFileAtomically(path, {1, 2, 3}).ok());
    ASSERT_TRUE(files.setPermissions(path, 0755).ok());
    EXPECT_FALSE(files.copyFile(path, path).ok());
    ASSERT_TRUE(files.copyFile(path, dir / "copy").ok());
    struct stat st {};
    ASSERT_EQ(::stat((dir / "copy").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0755U);
    EXPECT_FALSE(files.moveItem(dir / "copy", path).ok());
    auto missing = files.readFile(dir / "nope");
    ASSERT_FALSE(missing.ok());
    EXPECT_EQ(missing.error().code, ENOENT);
}

}  // namespace
}  // namespace tessary
