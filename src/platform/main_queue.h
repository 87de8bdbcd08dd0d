#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>

namespace tessary {

// A registered timer or descriptor watch. Destroying it cancels it; it may be
// destroyed from inside its own callback.
class QueueSource {
  public:
    virtual ~QueueSource() = default;
};
using QueueSourcePtr = std::unique_ptr<QueueSource>;

// The main queue: the one thread on which requests, watcher decisions,
// timers and power messages run, one at a time. Only the main thread uses it;
// the stop-all workers never post to it.
class MainQueue {
  public:
    using Duration = std::chrono::nanoseconds;

    virtual ~MainQueue() = default;

    // Runs `work` after the work in progress, in posting order.
    virtual void post(std::function<void()> work) = 0;
    // Runs `fire` once, `delay` from now (monotonic clock).
    virtual QueueSourcePtr after(Duration delay, std::function<void()> fire) = 0;
    // Calls `ready` with the poll events each time `fd` is ready for `events`
    // (EPOLLIN and friends). The descriptor stays the caller's.
    virtual QueueSourcePtr watch(int fd, std::uint32_t events,
                                 std::function<void(std::uint32_t)> ready) = 0;
    // Monotonic time of the queue, for measuring delays.
    virtual Duration now() const = 0;
};

}  // namespace tessary
