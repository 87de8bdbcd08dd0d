#pragma once

#include <atomic>
#include <chrono>
#include <functional>

#include "platform/process_control.h"

namespace tessary::testing {

// Thrown instead of ending the test process; a test catches it to see that,
// and with which status, the daemon would have ended.
struct ProcessExited {
    int status;
};

class FakeProcessControl final : public ProcessControl {
  public:
    [[noreturn]] void exit(int status) override {
        exitStatus = status;
        throw ProcessExited{status};
    }
    void sleepFor(std::chrono::milliseconds duration) override {
        slept += duration;
        if (onSleep) {
            onSleep();
        }
    }

    std::optional<int> exitStatus;
    std::chrono::milliseconds slept{0};
    std::function<void()> onSleep;  // runs at each sleep, to see what stands then
};

}  // namespace tessary::testing
