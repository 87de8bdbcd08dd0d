#pragma once

#include "platform/linux/sd_handles.h"
#include "platform/main_queue.h"

namespace tessary::linux_backend {

// The main queue on sd-event, run on the main thread.
class SdEventQueue final : public MainQueue {
  public:
    // Null event loop when sd-event cannot be set up; `valid` tells.
    SdEventQueue();
    ~SdEventQueue() override;
    SdEventQueue(const SdEventQueue&) = delete;
    SdEventQueue& operator=(const SdEventQueue&) = delete;
    bool valid() const { return event_ != nullptr; }
    sd_event* event() const { return event_.get(); }

    void post(std::function<void()> work) override;
    QueueSourcePtr after(Duration delay, std::function<void()> fire) override;
    QueueSourcePtr watch(int fd, std::uint32_t events,
                         std::function<void(std::uint32_t)> ready) override;
    Duration now() const override;

    // Runs until `exit` is called or the loop fails; the exit code or a
    // negative errno.
    int run();
    void exit(int code);

    struct PostedWork;

  private:
    SdEventPtr event_;
    std::unique_ptr<PostedWork> posted_;  // declared after event_: destroyed first
};

}  // namespace tessary::linux_backend
