#include "platform/linux/event/sd_event_queue.h"

#include <time.h>

#include <deque>

namespace tessary::linux_backend {

// Posted work runs in posting order. sd-event does not order defer sources of
// one priority among themselves, so the queue keeps its own FIFO and one
// defer source that drains it.
struct SdEventQueue::PostedWork {
    std::deque<std::function<void()>> items;
    SdEventSourcePtr source;
};

namespace {

int drainPosted(sd_event_source* /*s*/, void* userdata) {
    auto* posted = static_cast<SdEventQueue::PostedWork*>(userdata);
    // Only what was queued before this turn: work posted by this work runs on
    // the next turn, so descriptors and timers get their say in between.
    std::size_t n = posted->items.size();
    while (n-- > 0 && !posted->items.empty()) {
        auto work = std::move(posted->items.front());
        posted->items.pop_front();
        work();
    }
    if (!posted->items.empty()) {
        sd_event_source_set_enabled(posted->source.get(), SD_EVENT_ONESHOT);
    }
    return 0;
}

struct TimerSource final : QueueSource {
    SdEventSourcePtr source;
    std::function<void()> fire;
};

int timerFired(sd_event_source* /*s*/, uint64_t /*usec*/, void* userdata) {
    auto* timer = static_cast<TimerSource*>(userdata);
    // The callback may destroy the timer; nothing of it is used after this.
    auto fire = std::move(timer->fire);
    fire();
    return 0;
}

struct WatchSource final : QueueSource {
    SdEventSourcePtr source;
    std::shared_ptr<std::function<void(std::uint32_t)>> ready;
};

int descriptorReady(sd_event_source* /*s*/, int /*fd*/, uint32_t revents, void* userdata) {
    auto* watch = static_cast<WatchSource*>(userdata);
    auto keep = watch->ready;  // the callback may destroy the watch
    (*keep)(revents);
    return 0;
}

}  // namespace

SdEventQueue::SdEventQueue() {
    sd_event* e = nullptr;
    if (sd_event_new(&e) < 0) {
        return;
    }
    event_.reset(e);
    auto posted = std::make_unique<PostedWork>();
    sd_event_source* s = nullptr;
    if (sd_event_add_defer(e, &s, drainPosted, posted.get()) < 0) {
        event_.reset();
        return;
    }
    posted->source.reset(s);
    sd_event_source_set_enabled(s, SD_EVENT_OFF);
    posted_ = std::move(posted);
    // sd-event makes its timer descriptor for a clock with the first timer
    // and keeps it: made now, a timer can still be set when the process has
    // no descriptor left, which is when the request channel sets one to try
    // accepting again.
    sd_event_source* warm = nullptr;
    if (sd_event_add_time_relative(
            e, &warm, CLOCK_MONOTONIC, 0, 1, [](sd_event_source*, uint64_t, void*) { return 0; },
            nullptr) >= 0) {
        (void)sd_event_source_disable_unref(warm);
    }
}

SdEventQueue::~SdEventQueue() = default;

void SdEventQueue::post(std::function<void()> work) {
    if (!posted_) {
        return;
    }
    posted_->items.push_back(std::move(work));
    sd_event_source_set_enabled(posted_->source.get(), SD_EVENT_ONESHOT);
}

QueueSourcePtr SdEventQueue::after(Duration delay, std::function<void()> fire) {
    if (!event_) {
        return nullptr;
    }
    auto timer = std::make_unique<TimerSource>();
    timer->fire = std::move(fire);
    const auto usec = std::chrono::duration_cast<std::chrono::microseconds>(delay).count();
    sd_event_source* s = nullptr;
    if (sd_event_add_time_relative(event_.get(), &s, CLOCK_MONOTONIC,
                                   static_cast<uint64_t>(usec < 0 ? 0 : usec), 1, timerFired,
                                   timer.get()) < 0) {
        return nullptr;
    }
    timer->source.reset(s);
    return timer;
}

QueueSourcePtr SdEventQueue::watch(int fd, std::uint32_t events,
                                   std::function<void(std::uint32_t)> ready) {
    if (!event_) {
        return nullptr;
    }
    auto w = std::make_unique<WatchSource>();
    w->ready = std::make_shared<std::function<void(std::uint32_t)>>(std::move(ready));
    sd_event_source* s = nullptr;
    if (sd_event_add_io(event_.get(), &s, fd, events, descriptorReady, w.get()) < 0) {
        return nullptr;
    }
    w->source.reset(s);
    return w;
}

MainQueue::Duration SdEventQueue::now() const {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return std::chrono::seconds(ts.tv_sec) + std::chrono::nanoseconds(ts.tv_nsec);
}

int SdEventQueue::run() {
    return event_ ? sd_event_loop(event_.get()) : -1;
}

void SdEventQueue::exit(int code) {
    if (event_) {
        sd_event_exit(event_.get(), code);
    }
}

}  // namespace tessary::linux_backend
