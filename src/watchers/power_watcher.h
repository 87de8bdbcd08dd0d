#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "model/guarded.h"
#include "platform/main_queue.h"
#include "platform/system_log.h"
#include "platform/system_power_notifier.h"

namespace tessary {

// Passes the system's sleep and wake messages to two handlers and answers
// the ones that wait for an answer. The daemon makes one, starts it and keeps
// it for the rest of the process.
class TYSupervisorPowerWatcher final {
  public:
    using Handler = std::function<void()>;

    TYSupervisorPowerWatcher(SystemPowerNotifier& notifier, MainQueue& queue, SystemLog& log);
    // Deregisters, so that no message reaches a watcher that is gone.
    ~TYSupervisorPowerWatcher();
    TYSupervisorPowerWatcher(const TYSupervisorPowerWatcher&) = delete;
    TYSupervisorPowerWatcher& operator=(const TYSupervisorPowerWatcher&) = delete;

    // Registers for the messages, delivered on the main queue from then on;
    // a refusal is logged and leaves the watcher unregistered.
    void start();
    // Deregisters; harmless when not registered.
    void cancel();
    // Every delivered message comes through here.
    void systemPowerNotification(std::uint32_t messageType, std::intptr_t argument);

    std::uint32_t powerObject() const { return powerObject_; }
    void setPowerObject(std::uint32_t notifier) { powerObject_ = notifier; }
    std::uint32_t powerConnection() const { return powerConnection_; }
    void setPowerConnection(std::uint32_t connection) { powerConnection_ = connection; }
    Handler willSleepHandler() const { return willSleepHandler_.get(); }
    void setWillSleepHandler(Handler handler) { willSleepHandler_.set(std::move(handler)); }
    Handler didWakeHandler() const { return didWakeHandler_.get(); }
    void setDidWakeHandler(Handler handler) { didWakeHandler_.set(std::move(handler)); }
    // 0 when there is none.
    std::uint32_t powerNotifyPort() const { return powerNotifyPort_; }
    void setPowerNotifyPort(std::uint32_t port) { powerNotifyPort_ = port; }

  private:
    SystemPowerNotifier& notifier_;
    MainQueue& queue_;
    SystemLog& log_;

    std::uint32_t powerObject_ = 0;
    std::uint32_t powerConnection_ = 0;
    Guarded<Handler> willSleepHandler_;
    Guarded<Handler> didWakeHandler_;
    std::uint32_t powerNotifyPort_ = 0;

    // The notifier's callback holds a weak reference: a message that is
    // already on its way when the watcher goes is dropped.
    std::shared_ptr<TYSupervisorPowerWatcher*> self_;
};

}  // namespace tessary
