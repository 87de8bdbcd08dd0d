#include "platform/linux/logind_power.h"

#include <gtest/gtest.h>

#include "doubles/recording_system_log.h"
#include "support/process.h"
#include "watchers/power_watcher.h"

namespace tessary::linux_backend {
namespace {

using namespace std::chrono_literals;
using Strings = std::vector<std::string>;

constexpr const char* kLogind = "org.freedesktop.login1";
constexpr const char* kPath = "/org/freedesktop/login1";
constexpr const char* kManager = "org.freedesktop.login1.Manager";
const std::string kDelayLock =
    "sleep/com.orvane.tessaryd/Taking down the services that stop for sleep/delay";

// Polls `done`, turning `queue` in between when there is one.
bool waitFor(const std::function<bool()>& done, SdEventQueue* queue = nullptr,
             std::chrono::milliseconds limit = 5s) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        if (queue != nullptr) {
            sd_event_run(queue->event(), 10'000);
        } else {
            std::this_thread::sleep_for(10ms);
        }
    }
    return true;
}

plist::Value assertion(const char* name) {
    return plist::Value(plist::Dictionary{
        {"AssertType", plist::Value("PreventUserIdleSystemSleep")},
        {"AssertLevel", plist::Value::integer(255)},
        {"AssertName", plist::Value(name)},
    });
}

// A dbus-daemon of our own configuration on a socket in a temporary
// directory; the test talks to the bus over a connection of its own.
class PrivateBus : public ::testing::Test {
  protected:
    void SetUp() override {
        if (::access("/usr/bin/dbus-daemon", X_OK) != 0) {
            GTEST_SKIP() << "no dbus-daemon (Debian package dbus-daemon)";
        }
        const std::string socket = dir / "system_bus_socket";
        address = "unix:path=" + socket;
        ASSERT_TRUE(testing::startBusDaemon(daemon, socket));
        sd_bus* raw = nullptr;
        ASSERT_GE(sd_bus_new(&raw), 0);
        control.reset(raw);
        ASSERT_GE(sd_bus_set_address(raw, address.c_str()), 0);
        ASSERT_GE(sd_bus_set_bus_client(raw, 1), 0);
        ASSERT_GE(sd_bus_start(raw), 0);
    }

    void TearDown() override {
        testing::stopProcess(standIn);
        testing::stopProcess(daemon);
    }

    // The stand-in's locks as "what/who/why/mode".
    Strings inhibitors() {
        sd_bus_message* raw = nullptr;
        if (sd_bus_call_method(control.get(), kLogind, kPath, kManager, "ListInhibitors", nullptr,
                               &raw, "") < 0) {
            return {"(no answer)"};
        }
        SdBusMessagePtr reply(raw);
        Strings out;
        const char *what, *who, *why, *mode;
        std::uint32_t uid, pid;
        (void)sd_bus_message_enter_container(raw, 'a', "(ssssuu)");
        while (sd_bus_message_read(raw, "(ssssuu)", &what, &who, &why, &mode, &uid, &pid) > 0) {
            out.push_back(std::string(what) + "/" + who + "/" + why + "/" + mode);
        }
        return out;
    }

    testing::TempDir dir;
    std::string address;
    pid_t daemon = -1;
    pid_t standIn = -1;
    SdBusPtr control;
};

// The bus with the logind stand-in on it.
class LogindPowerTest : public PrivateBus {
  protected:
    void SetUp() override {
        PrivateBus::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        standIn = testing::spawnProcess({LOGIN1_STANDIN, address}, dir / "standin.log");
        ASSERT_TRUE(waitFor([&] { return inhibitors() != Strings{"(no answer)"}; }));
    }

    void suspend() {
        ASSERT_GE(sd_bus_call_method(control.get(), kLogind, kPath, kManager, "Suspend", nullptr,
                                     nullptr, "b", 0),
                  0);
    }

    SdEventQueue queue;
    testing::RecordingSystemLog log;
};

// Cancelled, the watcher holds no lock and hears of no sleep.
TEST_F(LogindPowerTest, SleepWaitsForTheWillSleepHandlerAndTheLockReturnsAfterWake) {
    LogindSystemPowerNotifier notifier(queue, address);
    TYSupervisorPowerWatcher watcher(notifier, queue, log);
    Strings calls;
    watcher.setWillSleepHandler([&] {
        // The system is still held while the services go down.
        calls.push_back("will-sleep, locks: " + std::to_string(inhibitors().size()));
    });
    watcher.setDidWakeHandler([&] { calls.push_back("did-wake"); });
    watcher.start();
    ASSERT_NE(watcher.powerConnection(), 0u);
    EXPECT_TRUE(log.empty());
    EXPECT_EQ(inhibitors(), Strings{kDelayLock});

    for (std::size_t round = 1; round <= 2; ++round) {
        suspend();
        // The wake comes only once the stand-in saw the lock closed.
        ASSERT_TRUE(waitFor([&] { return calls.size() == 2 * round; }, &queue));
        EXPECT_EQ(calls[2 * round - 2], "will-sleep, locks: 1");
        EXPECT_EQ(calls[2 * round - 1], "did-wake");
        ASSERT_TRUE(waitFor(
            [&] {
                return notifier.holdsSleepDelay(watcher.powerConnection()) &&
                       inhibitors() == Strings{kDelayLock};
            },
            &queue));
    }

    const std::uint32_t connection = watcher.powerConnection();
    watcher.cancel();
    EXPECT_FALSE(notifier.holdsSleepDelay(connection));
    ASSERT_TRUE(waitFor([&] { return inhibitors().empty(); }));
    suspend();
    EXPECT_FALSE(waitFor([&] { return calls.size() > 4; }, &queue, 200ms));
}

TEST_F(LogindPowerTest, MessagesWaitForTheQueueAndOnlyTheCurrentSleepIsAllowed) {
    LogindSystemPowerNotifier notifier(queue, address);
    std::vector<std::pair<std::uint32_t, std::intptr_t>> got;
    const auto reg = notifier.registerForSystemPower(
        [&](std::uint32_t type, std::intptr_t argument) { got.emplace_back(type, argument); });
    ASSERT_NE(reg.connection, 0u);
    suspend();
    EXPECT_FALSE(waitFor([&] { return !got.empty(); }, &queue, 200ms));
    notifier.setDispatchQueue(reg.port, queue);
    ASSERT_TRUE(waitFor([&] { return !got.empty(); }, &queue));
    ASSERT_EQ(got[0].first, SystemPowerNotifier::kSystemWillSleep);

    // A reply that is not for this sleep keeps the system held.
    notifier.allowPowerChange(reg.connection, got[0].second + 1);
    notifier.allowPowerChange(reg.connection + 1, got[0].second);
    EXPECT_TRUE(notifier.holdsSleepDelay(reg.connection));
    EXPECT_FALSE(waitFor([&] { return got.size() > 1; }, &queue, 200ms));

    notifier.allowPowerChange(reg.connection, got[0].second);
    EXPECT_FALSE(notifier.holdsSleepDelay(reg.connection));
    ASSERT_TRUE(waitFor([&] { return got.size() == 2; }, &queue));
    EXPECT_EQ(got[1].first, SystemPowerNotifier::kSystemHasPoweredOn);
}

TEST_F(LogindPowerTest, AssertionsAreIdleSleepBlockLocksUntilReleased) {
    LogindPowerAssertions assertions(address);
    std::uint32_t first = 0;
    std::uint32_t second = 0;
    ASSERT_EQ(assertions.createAssertion(assertion("com.orvane.tessaryd"), first), 0);
    ASSERT_EQ(assertions.createAssertion(assertion("com.orvane.backup"), second), 0);
    EXPECT_NE(first, 0u);
    EXPECT_NE(second, 0u);
    EXPECT_NE(first, second);
    const std::string held = "idle:sleep/com.orvane.backup/PreventUserIdleSystemSleep/block";
    EXPECT_EQ(inhibitors(),
              (Strings{"idle:sleep/com.orvane.tessaryd/PreventUserIdleSystemSleep/block", held}));

    EXPECT_EQ(assertions.releaseAssertion(first), 0);
    EXPECT_TRUE(waitFor([&] { return inhibitors() == Strings{held}; }));
    EXPECT_NE(assertions.releaseAssertion(first), 0);
    EXPECT_NE(assertions.releaseAssertion(0), 0);

    std::uint32_t nameless = 9;
    EXPECT_NE(assertions.createAssertion(plist::Value(plist::Dictionary{}), nameless), 0);
    EXPECT_EQ(nameless, 0u);
}

// Without logind (no bus at the address, or a bus that logind is not on) the
// daemon runs without sleep handling: registration is refused and assertions
// are 0, at once rather than after a timeout.
TEST_F(PrivateBus, WithoutLogindThereIsNoSleepHandling) {
    for (const std::string& at : {"unix:path=" + (dir / "no_bus_socket"), address}) {
        const auto start = std::chrono::steady_clock::now();
        SdEventQueue queue;
        LogindSystemPowerNotifier notifier(queue, at);
        testing::RecordingSystemLog log;
        TYSupervisorPowerWatcher watcher(notifier, queue, log);
        watcher.start();
        EXPECT_EQ(watcher.powerConnection(), 0u);
        EXPECT_EQ(log.lines(),
                  Strings{"WARNING: Failed to register for system power notifications."});

        LogindPowerAssertions assertions(at);
        std::uint32_t id = 5;
        EXPECT_NE(assertions.createAssertion(assertion("com.orvane.tessaryd"), id), 0);
        EXPECT_EQ(id, 0u);
        EXPECT_LT(std::chrono::steady_clock::now() - start, 1s) << at;
    }
}

}  // namespace
}  // namespace tessary::linux_backend
