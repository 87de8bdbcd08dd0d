#pragma once

#include <cstdint>
#include <functional>

#include "base/error.h"
#include "platform/main_queue.h"

namespace tessary {

// Reports the exit of any process (child or not) on the main queue.
class ProcessExitWatch {
  public:
    virtual ~ProcessExitWatch() = default;
    // The watch, or why there is none: a POSIX ESRCH error when the process
    // is already gone, another error when it could not be watched.
    virtual Result<QueueSourcePtr> watchExit(std::int32_t pid, std::function<void()> exited) = 0;
};

}  // namespace tessary
