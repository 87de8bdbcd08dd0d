#pragma once

#include <mutex>
#include <utility>

namespace tessary {

// A value read and replaced whole under a lock: a reader gets the old value
// or the new one, never a mix. Used for what the stop-all workers read while
// the main thread may own the object.
template <class T>
class Guarded {
  public:
    Guarded() = default;
    explicit Guarded(T value) : value_(std::move(value)) {}

    T get() const {
        std::lock_guard lock(mutex_);
        return value_;
    }
    void set(T value) {
        std::lock_guard lock(mutex_);
        value_ = std::move(value);
    }

  private:
    mutable std::mutex mutex_;
    T value_{};
};

}  // namespace tessary
