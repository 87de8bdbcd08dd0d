#include "watchers/power_watcher.h"

#include <gtest/gtest.h>

#include "doubles/fake_main_queue.h"
#include "doubles/fake_power.h"
#include "doubles/recording_system_log.h"

namespace tessary {
namespace {

using Notifier = SystemPowerNotifier;
using Allowed = std::vector<std::pair<std::uint32_t, std::intptr_t>>;
using Calls = std::vector<std::string>;

class PowerWatcherTest : public ::testing::Test {
  protected:
    // Each handler notes how many replies had gone out when it ran.
    void setHandlers() {
        watcher->setWillSleepHandler(
            [this] { calls.push_back("will-sleep/" + std::to_string(notifier.allowed.size())); });
        watcher->setDidWakeHandler(
            [this] { calls.push_back("did-wake/" + std::to_string(notifier.allowed.size())); });
    }

    testing::FakeSystemPowerNotifier notifier;
    testing::FakeMainQueue queue;
    testing::RecordingSystemLog log;
    std::unique_ptr<TYSupervisorPowerWatcher> watcher =
        std::make_unique<TYSupervisorPowerWatcher>(notifier, queue, log);
    Calls calls;
};

TEST_F(PowerWatcherTest, StartKeepsTheRegistrationOrLogsTheRefusal) {
    watcher->start();
    EXPECT_EQ(watcher->powerConnection(), 7u);
    EXPECT_EQ(notifier.dispatchPort, 13u);
    EXPECT_TRUE(log.empty());

    testing::FakeSystemPowerNotifier refusing;
    refusing.refuse = true;
    TYSupervisorPowerWatcher unregistered(refusing, queue, log);
    unregistered.start();
    EXPECT_EQ(log.lines(), Calls{"WARNING: Failed to register for system power notifications."});
    EXPECT_EQ(unregistered.powerConnection(), 0u);
    EXPECT_EQ(refusing.dispatchPort, 0u);
}

TEST_F(PowerWatcherTest, EachMessageGetsItsHandlerAndItsReply) {
    watcher->start();
    notifier.deliver(Notifier::kSystemWillSleep, 42);  // without handlers: only the reply
    notifier.deliver(Notifier::kSystemHasPoweredOn, 43);
    EXPECT_EQ(notifier.allowed, (Allowed{{7, 42}}));
    notifier.allowed.clear();

    setHandlers();
    notifier.deliver(Notifier::kSystemWillSleep, 0x5eed);
    EXPECT_EQ(calls, Calls{"will-sleep/0"});  // the handler first, then one reply
    EXPECT_EQ(notifier.allowed, (Allowed{{7, 0x5eed}}));

    notifier.deliver(Notifier::kCanSystemSleep, 3);
    EXPECT_EQ(calls, Calls{"will-sleep/0"});
    EXPECT_EQ(notifier.allowed, (Allowed{{7, 0x5eed}, {7, 3}}));

    notifier.deliver(Notifier::kSystemHasPoweredOn, 5);
    EXPECT_EQ(calls, (Calls{"will-sleep/0", "did-wake/2"}));

    for (std::uint32_t other : {0xE0000320u, 0xE0000290u, 0u}) {
        notifier.deliver(other, 1);
    }
    EXPECT_EQ(calls, (Calls{"will-sleep/0", "did-wake/2"}));
    EXPECT_EQ(notifier.allowed.size(), 2u);
}

TEST_F(PowerWatcherTest, CancelUndoesTheRegistrationOnceAndSoDoesTheEnd) {
    watcher->cancel();
    watcher->start();
    watcher->cancel();
    watcher->cancel();
    EXPECT_EQ(notifier.deregistered, std::vector<std::uint32_t>{11});
    EXPECT_EQ(notifier.destroyedPorts, std::vector<std::uint32_t>{13});
    EXPECT_EQ(notifier.closed, std::vector<std::uint32_t>{7});
    EXPECT_EQ(watcher->powerConnection(), 0u);

    // A message still on its way when the watcher is gone is dropped.
    setHandlers();
    watcher->start();
    watcher.reset();
    EXPECT_EQ(notifier.closed, (std::vector<std::uint32_t>{7, 7}));
    notifier.deliver(Notifier::kSystemWillSleep, 1);
    EXPECT_TRUE(calls.empty());
    EXPECT_TRUE(notifier.allowed.empty());
}

}  // namespace
}  // namespace tessary
