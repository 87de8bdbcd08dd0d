#pragma once

#include <chrono>

namespace tessary {

// How the daemon's process ends and waits. The daemon ends itself on purpose
// (status 0 after self-removal or self-update, 1 when the run loop or the
// listener fails); tests record that instead of dying.
class ProcessControl {
  public:
    virtual ~ProcessControl() = default;
    [[noreturn]] virtual void exit(int status) = 0;
    // Blocks the calling thread.
    virtual void sleepFor(std::chrono::milliseconds duration) = 0;
};

}  // namespace tessary
