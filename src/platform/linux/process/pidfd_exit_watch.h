#pragma once

#include "platform/main_queue.h"
#include "platform/process_exit_watch.h"

namespace tessary::linux_backend {

// A pidfd of the watched process on the main queue: it becomes readable when
// the process exits, whether or not it is our child.
class PidfdExitWatch final : public ProcessExitWatch {
  public:
    explicit PidfdExitWatch(MainQueue& queue) : queue_(queue) {}
    Result<QueueSourcePtr> watchExit(std::int32_t pid, std::function<void()> exited) override;

  private:
    MainQueue& queue_;
};

}  // namespace tessary::linux_backend
