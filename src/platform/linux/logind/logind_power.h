#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "base/unique_fd.h"
#include "platform/linux/event/sd_event_queue.h"
#include "platform/power_assertion_service.h"
#include "platform/system_power_notifier.h"

namespace tessary::linux_backend {

inline constexpr const char* kSystemBusAddress = "unix:path=/run/dbus/system_bus_socket";
// Calls to logind give up after this: the daemon's start-up and its
// commands wait for them.
inline constexpr std::chrono::seconds kLogindCallTimeout{5};

// Sleep and wake from systemd-logind (org.freedesktop.login1) over the
// system bus.
//
// A registration is one bus connection with three parts, each with its own
// handle (they share one number):
// - the port: the connection itself; its messages wait in the socket until
//   `setDispatchQueue` attaches it to the main queue's sd-event loop;
// - the notifier: the match on logind's PrepareForSleep signal. true arrives
//   as kSystemWillSleep with a fresh argument, false as kSystemHasPoweredOn.
//   Only a signal that the current owner of logind's name sent to every
//   listener counts: the owner is followed through the bus's NameOwnerChanged,
//   and a signal addressed to this connection alone, which the bus delivers
//   from anyone whatever the match says, is ignored;
// - the connection: a "delay" inhibitor lock on sleep, held while
//   registered. logind holds the system awake (up to its InhibitDelayMaxSec)
//   until the lock is closed; `allowPowerChange` with the will-sleep's
//   argument closes it, and the powered-on message takes a new one.
//
// kCanSystemSleep is never delivered: logind asks nobody whether an idle
// system may sleep (an idle "block" lock is the only way to say no), so that
// query has no counterpart here.
//
// Registration is refused (connection 0) when the bus cannot be reached, or
// logind does not answer or refuses the delay lock.
//
// A connection the bus drops is not made again: sleep handling ends with it
// (the daemon is restarted with the bus in practice), and a lock still held
// stays logind's to count until it is closed.
class LogindSystemPowerNotifier final : public SystemPowerNotifier {
  public:
    static constexpr const char* kWho = "com.orvane.tessaryd";

    explicit LogindSystemPowerNotifier(SdEventQueue& queue,
                                       std::string busAddress = kSystemBusAddress);
    ~LogindSystemPowerNotifier() override;
    LogindSystemPowerNotifier(const LogindSystemPowerNotifier&) = delete;
    LogindSystemPowerNotifier& operator=(const LogindSystemPowerNotifier&) = delete;

    Registration registerForSystemPower(Callback callback) override;
    // The messages go to the sd-event loop of the queue this notifier was
    // made with, which is the main queue; `queue` is that same queue.
    void setDispatchQueue(std::uint32_t port, MainQueue& queue) override;
    void deregister(std::uint32_t notifier) override;
    void destroyPort(std::uint32_t port) override;
    void closeConnection(std::uint32_t connection) override;
    void allowPowerChange(std::uint32_t connection, std::intptr_t argument) override;

    // Whether the registration holds its delay lock now.
    bool holdsSleepDelay(std::uint32_t connection) const;

    struct Registered;

  private:
    Registered* find(std::uint32_t handle) const;
    void forgetIfDone(std::uint32_t handle);

    SdEventQueue& queue_;
    std::string address_;
    std::uint32_t nextHandle_ = 1;
    std::map<std::uint32_t, std::unique_ptr<Registered>> registered_;
};

// Sleep-preventing assertions as logind inhibitor locks: "idle" in
// "block" mode, who the assertion's "AssertName", why its "AssertType". The
// id stands for the lock's descriptor; releasing closes it, and logind drops
// the lock. Without a reachable logind the id stays 0 and creation answers a
// negative errno. Safe to call from several threads.
class LogindPowerAssertions final : public PowerAssertionService {
  public:
    explicit LogindPowerAssertions(std::string busAddress = kSystemBusAddress);

    int createAssertion(const plist::Value& properties, std::uint32_t& id) override;
    int releaseAssertion(std::uint32_t id) override;

  private:
    std::string address_;
    std::mutex mutex_;
    std::uint32_t nextId_ = 1;
    std::map<std::uint32_t, UniqueFd> locks_;
};

}  // namespace tessary::linux_backend
