#include "platform/linux/inotify_file_events.h"

#include <sys/epoll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "base/unique_fd.h"

namespace tessary::linux_backend {

namespace {

std::uint32_t inotifyMaskFor(std::uint32_t mask) {
    std::uint32_t out = 0;
    if ((mask & kFileEventDelete) != 0) {
        out |= IN_DELETE_SELF;
    }
    if ((mask & kFileEventRename) != 0) {
        out |= IN_MOVE_SELF;
    }
    return out;
}

class InotifySource final : public FileEventSource {
  public:
    InotifySource(MainQueue& queue, UniqueFd fd, std::uint32_t mask,
                  std::function<void(std::uint32_t)> event)
        : queue_(queue), fd_(std::move(fd)), mask_(mask), event_(std::move(event)) {}
    ~InotifySource() override { watch_.reset(); }  // before the descriptor goes
    InotifySource(const InotifySource&) = delete;
    InotifySource& operator=(const InotifySource&) = delete;

    void resume() override {
        if (watch_ || ended_) {
            return;
        }
        watch_ = queue_.watch(fd_.get(), EPOLLIN, [this](std::uint32_t) { drain(); });
    }

  private:
    // Reads what the kernel holds and delivers one event per kernel event,
    // in order.
    void drain() {
        std::vector<std::uint32_t> due;
        alignas(inotify_event) char buf[4096];
        for (;;) {
            const ssize_t n = ::read(fd_.get(), buf, sizeof buf);
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n <= 0) {
                break;
            }
            for (ssize_t at = 0; at < n;) {
                inotify_event e;
                std::memcpy(&e, buf + at, sizeof e);
                at += static_cast<ssize_t>(sizeof e + e.len);
                if ((e.mask & IN_MOVE_SELF) != 0) {
                    due.push_back(kFileEventRename);
                }
                if ((e.mask & (IN_DELETE_SELF | IN_UNMOUNT)) != 0) {
                    due.push_back(kFileEventDelete);
                }
                if ((e.mask & IN_Q_OVERFLOW) != 0) {
                    // Events were lost; say that something happened and let
                    // the receiver look at the path.
                    due.push_back(kFileEventDelete | kFileEventRename);
                }
                if ((e.mask & IN_IGNORED) != 0) {
                    ended_ = true;
                }
            }
        }
        // The receiver may destroy this source; nothing of it is used once
        // the first event is out.
        const std::uint32_t mask = mask_;
        const auto event = event_;
        if (ended_) {
            // The kernel dropped the watch: nothing more will come.
            watch_.reset();
        }
        for (const std::uint32_t e : due) {
            if ((e & mask) != 0) {
                event(e & mask);
            }
        }
    }

    MainQueue& queue_;
    UniqueFd fd_;
    std::uint32_t mask_;
    std::function<void(std::uint32_t)> event_;
    QueueSourcePtr watch_;
    bool ended_ = false;
};

}  // namespace

std::unique_ptr<FileEventSource> InotifyFileEvents::watch(
    const std::string& path, std::uint32_t mask, std::function<void(std::uint32_t)> event) {
    UniqueFd fd(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    if (!fd) {
        return nullptr;
    }
    // The events of the directory itself only, never of its children. Like
    // an open of the path, the watch follows a symbolic link.
    if (::inotify_add_watch(fd.get(), path.c_str(), inotifyMaskFor(mask)) < 0) {
        return nullptr;
    }
    return std::make_unique<InotifySource>(queue_, std::move(fd), mask, std::move(event));
}

}  // namespace tessary::linux_backend
