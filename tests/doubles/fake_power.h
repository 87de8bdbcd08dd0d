#pragma once

#include <map>
#include <vector>

#include "platform/main_queue.h"
#include "platform/power_assertion_service.h"
#include "platform/system_power_notifier.h"

namespace tessary::testing {

// Holds assertions by id; ids start at 1 so that 0 keeps meaning none.
class FakePowerAssertions final : public PowerAssertionService {
  public:
    int createAssertion(const plist::Value& properties, std::uint32_t& id) override {
        id = nextId_++;
        held[id] = properties;
        return 0;
    }
    int releaseAssertion(std::uint32_t id) override {
        released.push_back(id);
        return held.erase(id) != 0 ? 0 : -1;
    }

    std::map<std::uint32_t, plist::Value> held;
    std::vector<std::uint32_t> released;

  private:
    std::uint32_t nextId_ = 1;
};

// Lets a test deliver power messages and see the replies.
class FakeSystemPowerNotifier final : public SystemPowerNotifier {
  public:
    Registration registerForSystemPower(Callback callback) override {
        callback_ = std::move(callback);
        return {7, 11, 13};
    }
    void setDispatchQueue(std::uint32_t /*port*/, MainQueue& /*queue*/) override {}
    void deregister(std::uint32_t notifier) override { deregistered.push_back(notifier); }
    void destroyPort(std::uint32_t port) override { destroyedPorts.push_back(port); }
    void closeConnection(std::uint32_t connection) override { closed.push_back(connection); }
    void allowPowerChange(std::uint32_t connection, std::intptr_t argument) override {
        allowed.emplace_back(connection, argument);
    }

    void deliver(std::uint32_t messageType, std::intptr_t argument) {
        if (callback_) {
            callback_(messageType, argument);
        }
    }

    std::vector<std::uint32_t> deregistered, destroyedPorts, closed;
    std::vector<std::pair<std::uint32_t, std::intptr_t>> allowed;

  private:
    Callback callback_;
};

}  // namespace tessary::testing
