#pragma once

#include <chrono>
#include <functional>

#include "platform/linux/event/sd_event_queue.h"

namespace tessary::testing {

// Turns the real main queue until `done` holds or `limit` passes; false on
// the latter. The loop is turned by hand (not run) so that a test can go
// back to it as often as it likes.
inline bool runUntil(linux_backend::SdEventQueue& queue, const std::function<bool()>& done,
                     std::chrono::milliseconds limit = std::chrono::seconds(5)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline ||
            sd_event_run(queue.event(), 10'000) < 0) {
            return false;
        }
    }
    return true;
}

// Turns the queue for `duration`, whatever happens.
inline void runFor(linux_backend::SdEventQueue& queue, std::chrono::milliseconds duration) {
    const auto deadline = std::chrono::steady_clock::now() + duration;
    (void)runUntil(
        queue, [&] { return std::chrono::steady_clock::now() >= deadline; },
        duration + std::chrono::seconds(1));
}

}  // namespace tessary::testing
