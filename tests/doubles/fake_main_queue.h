#pragma once

#include <deque>
#include <map>
#include <memory>

#include "platform/main_queue.h"

namespace tessary::testing {

// A main queue on virtual time. Posted work runs when the test says so;
// `advance` moves the clock and fires the timers that fall due, in deadline
// order, with the posted work they cause run in between. Descriptor watches
// never fire: nothing on the doubles has a descriptor.
class FakeMainQueue final : public MainQueue {
  public:
    void post(std::function<void()> work) override { posted_.push_back(std::move(work)); }

    QueueSourcePtr after(Duration delay, std::function<void()> fire) override {
        const std::uint64_t id = nextId_++;
        timers_.emplace(std::make_pair(now_ + delay, id), std::move(fire));
        return std::make_unique<Source>(this, id);
    }

    QueueSourcePtr watch(int /*fd*/, std::uint32_t /*events*/,
                         std::function<void(std::uint32_t)> /*ready*/) override {
        return std::make_unique<Source>(this, 0);
    }

    Duration now() const override { return now_; }

    // Runs posted work until none is left (including work posted meanwhile).
    void runPending() {
        while (!posted_.empty()) {
            auto work = std::move(posted_.front());
            posted_.pop_front();
            work();
        }
    }

    void advance(Duration by) {
        const Duration until = now_ + by;
        runPending();
        while (!timers_.empty() && timers_.begin()->first.first <= until) {
            auto it = timers_.begin();
            now_ = it->first.first;
            auto fire = std::move(it->second);
            timers_.erase(it);
            fire();
            runPending();
        }
        now_ = until;
    }

    std::size_t pendingTimers() const { return timers_.size(); }
    std::size_t pendingWork() const { return posted_.size(); }

  private:
    class Source final : public QueueSource {
      public:
        Source(FakeMainQueue* q, std::uint64_t id) : q_(q), id_(id) {}
        ~Source() override {
            for (auto it = q_->timers_.begin(); it != q_->timers_.end(); ++it) {
                if (it->first.second == id_) {
                    q_->timers_.erase(it);
                    break;
                }
            }
        }
        Source(const Source&) = delete;
        Source& operator=(const Source&) = delete;

      private:
        FakeMainQueue* q_;
        std::uint64_t id_;
    };

    Duration now_{0};
    std::uint64_t nextId_ = 1;
    std::deque<std::function<void()>> posted_;
    std::map<std::pair<Duration, std::uint64_t>, std::function<void()>> timers_;
};

}  // namespace tessary::testing
