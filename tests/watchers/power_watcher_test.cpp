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
// logind tests'; here, the messages a real logind never sends. Each message
// that asks for an answer gets exactly one, after its handler; a powered-on
// message and any other code get none.
TEST(PowerWatcherTest, EveryMessageIsAnsweredAsItAsks) {
    testing::FakeSystemPowerNotifier notifier;
    testing::FakeMainQueue queue;
    testing::RecordingSystemLog log;
    TYSupervisorPowerWatcher watcher(notifier, queue, log);
    std::vector<std::string> calls;
    watcher.cancel();  // before the start: nothing to undo
    watcher.start();
    notifier.deliver(Notifier::kSystemWillSleep, 42);  // without handlers: only the reply
    notifier.deliver(Notifier::kSystemHasPoweredOn, 5);
    watcher.setWillSleepHandler([&] {
        calls.push_back("will-sleep, replies: " + std::to_string(notifier.allowed.size()));
    });
    watcher.setDidWakeHandler([&] { calls.push_back("did-wake"); });
    notifier.deliver(Notifier::kCanSystemSleep, 3);
    notifier.deliver(Notifier::kSystemWillSleep, 8);
    notifier.deliver(Notifier::kSystemHasPoweredOn, 9);
    for (std::uint32_t other : {0xE0000320u, 0xE0000290u, 0u}) {
        notifier.deliver(other, 1);
    }
    EXPECT_EQ(calls, (std::vector<std::string>{"will-sleep, replies: 2", "did-wake"}));
    EXPECT_EQ(notifier.allowed, (Allowed{{7, 42}, {7, 3}, {7, 8}}));

    watcher.cancel();
    watcher.cancel();
    EXPECT_EQ(notifier.deregistered, std::vector<std::uint32_t>{11});
    EXPECT_EQ(notifier.destroyedPorts, std::vector<std::uint32_t>{13});
    EXPECT_EQ(notifier.closed, std::vector<std::uint32_t>{7});
}

}  // namespace
}  // namespace tessary
