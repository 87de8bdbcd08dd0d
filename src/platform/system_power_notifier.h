#pragma once

#include <cstdint>
#include <functional>

namespace tessary {

class MainQueue;

// System sleep and wake messages.
class SystemPowerNotifier {
  public:
    static constexpr std::uint32_t kCanSystemSleep = 0xE0000270;
    static constexpr std::uint32_t kSystemWillSleep = 0xE0000280;
    static constexpr std::uint32_t kSystemHasPoweredOn = 0xE0000300;

    using Callback = std::function<void(std::uint32_t messageType, std::intptr_t argument)>;

    struct Registration {
        std::uint32_t connection = 0;  // 0: registration refused
        std::uint32_t notifier = 0;
        std::uint32_t port = 0;
    };

    virtual ~SystemPowerNotifier() = default;
    virtual Registration registerForSystemPower(Callback callback) = 0;
    // Messages of `port` are delivered on `queue` from then on.
    virtual void setDispatchQueue(std::uint32_t port, MainQueue& queue) = 0;
    virtual void deregister(std::uint32_t notifier) = 0;
    virtual void destroyPort(std::uint32_t port) = 0;
    virtual void closeConnection(std::uint32_t connection) = 0;
    // The reply that lets a pending sleep go ahead.
    virtual void allowPowerChange(std::uint32_t connection, std::intptr_t argument) = 0;
};

}  // namespace tessary
