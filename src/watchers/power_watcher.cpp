#include "watchers/power_watcher.h"

namespace tessary {

TYSupervisorPowerWatcher::TYSupervisorPowerWatcher(SystemPowerNotifier& notifier, MainQueue& queue,
                                                   SystemLog& log)
    : notifier_(notifier),
      queue_(queue),
      log_(log),
      self_(std::make_shared<TYSupervisorPowerWatcher*>(this)) {}

TYSupervisorPowerWatcher::~TYSupervisorPowerWatcher() {
    cancel();
}

void TYSupervisorPowerWatcher::start() {
    const auto registration =
        notifier_.registerForSystemPower([alive = std::weak_ptr<TYSupervisorPowerWatcher*>(self_)](
                                             std::uint32_t messageType, std::intptr_t argument) {
            if (auto self = alive.lock()) {
                (*self)->systemPowerNotification(messageType, argument);
            }
        });
    setPowerConnection(registration.connection);
    if (powerConnection() == 0) {
        log_.warning("WARNING: Failed to register for system power notifications.");
        return;
    }
    setPowerNotifyPort(registration.port);
    setPowerObject(registration.notifier);
    notifier_.setDispatchQueue(powerNotifyPort(), queue_);
}

void TYSupervisorPowerWatcher::cancel() {
    if (powerConnection() == 0) {
        return;
    }
    notifier_.deregister(powerObject());
    setPowerObject(0);
    notifier_.destroyPort(powerNotifyPort());
    setPowerNotifyPort(0);
    notifier_.closeConnection(powerConnection());
    setPowerConnection(0);
}

void TYSupervisorPowerWatcher::systemPowerNotification(std::uint32_t messageType,
                                                       std::intptr_t argument) {
    switch (messageType) {
        case SystemPowerNotifier::kCanSystemSleep:
            // Sleep is never vetoed.
            notifier_.allowPowerChange(powerConnection(), argument);
            break;
        case SystemPowerNotifier::kSystemWillSleep:
            // The handler takes the services down before the system may go.
            if (auto handler = willSleepHandler()) {
                handler();
            }
            notifier_.allowPowerChange(powerConnection(), argument);
            break;
        case SystemPowerNotifier::kSystemHasPoweredOn:
            if (auto handler = didWakeHandler()) {
                handler();
            }
            break;
        default:
            break;
    }
}

}  // namespace tessary
