#pragma once

#include <cstdint>
#include <functional>

#include "platform/main_queue.h"

namespace tessary {

// Reports the exit of any process (child or not) on the main queue.
class ProcessExitWatch {
  public:
    virtual ~ProcessExitWatch() = default;
    // Null when the process cannot be watched (for instance it is gone).
    virtual QueueSourcePtr watchExit(std::int32_t pid, std::function<void()> exited) = 0;
};

}  // namespace tessary
