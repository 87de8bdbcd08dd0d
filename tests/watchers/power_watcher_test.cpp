#include "watchers/power_watcher.h"

#include <gtest/gtest.h>

#include "doubles/fake_main_queue.h"
#include "doubles/fake_power.h"
#include "doubles/recording_system_log.h"

namespace tessary {
namespace {

using Notifier = SystemPowerNotifier;
using Allowed = std::vector<std::pair<std::uint32_t, std::intptr_t>>;

// Sleep and wake through logind, the refusal's line and the cancel are the
// logind tests'; here, the messages a real logind never sends, and the end.
TEST(PowerWatcherTest, EveryMessageIsAnsweredOnceAndNothingAfterTheEnd) {
    testing::FakeSystemPowerNotifier notifier;
    testing::FakeMainQueue queue;
    testing::RecordingSystemLog log;
    auto watcher = std::make_unique<TYSupervisorPowerWatcher>(notifier, queue, log);
    std::vector<std::string> calls;
    watcher->cancel();  // before the start: nothing to undo
    watcher->start();
    notifier.deliver(Notifier::kSystemWillSleep, 42);  // without handlers: only the reply
    watcher->setWillSleepHandler([&] { calls.push_back("will-sleep"); });
    notifier.deliver(Notifier::kCanSystemSleep, 3);
    for (std::uint32_t other : {0xE0000320u, 0xE0000290u, 0u}) {
        notifier.deliver(other, 1);
    }
    EXPECT_TRUE(calls.empty());
    EXPECT_EQ(notifier.allowed, (Allowed{{7, 42}, {7, 3}}));

    watcher->cancel();
    watcher->cancel();
    EXPECT_EQ(notifier.deregistered, std::vector<std::uint32_t>{11});
    EXPECT_EQ(notifier.destroyedPorts, std::vector<std::uint32_t>{13});

    // A message still on its way when the watcher is gone is dropped.
    watcher->start();
    watcher.reset();
    EXPECT_EQ(notifier.closed, (std::vector<std::uint32_t>{7, 7}));
    notifier.deliver(Notifier::kSystemWillSleep, 1);
    EXPECT_TRUE(calls.empty());
    EXPECT_EQ(notifier.allowed.size(), 2u);
}

}  // namespace
}  // namespace tessary
