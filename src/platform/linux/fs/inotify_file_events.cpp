#include "platform/linux/fs/inotify_file_events.h"

#include <sys/epoll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
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
    InotifySource(MainQueue& queue, UniqueFd fd, int selfWatch, int parentWatch, std::string name,
                  std::uint32_t mask, std::function<void(std::uint32_t)> event)
        : queue_(queue),
          fd_(std::move(fd)),
          selfWatch_(selfWatch),
          parentWatch_(parentWatch),
          name_(std::move(name)),
          mask_(mask),
          event_(std::move(event)) {}
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
                const char* name = buf + at + sizeof e;
                at += static_cast<ssize_t>(sizeof e + e.len);
                if (e.wd == parentWatch_ && e.wd != selfWatch_) {
                    // The parent's events count only for the path's own entry.
                    if (e.len == 0 || name_ != name) {
                        if ((e.mask & IN_IGNORED) != 0) {
                            parentWatch_ = -1;
                        }
                        continue;
                    }
                    if ((e.mask & IN_MOVED_FROM) != 0) {
                        due.push_back(kFileEventRename);
                    }
                    if ((e.mask & IN_DELETE) != 0) {
                        due.push_back(kFileEventDelete);
                    }
                    continue;
                }
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
                if ((e.mask & IN_IGNORED) != 0 && e.wd == selfWatch_) {
                    selfWatch_ = -1;
                }
            }
        }
        // The receiver may destroy this source; nothing of it is used once
        // the first event is out.
        const std::uint32_t mask = mask_;
        const auto event = event_;
        if (selfWatch_ < 0 && parentWatch_ < 0) {
            // The kernel dropped both watches: nothing more will come.
            ended_ = true;
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
    int selfWatch_;
    int parentWatch_;  // -1 when the parent cannot be watched
    std::string name_;
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
    const int self = ::inotify_add_watch(fd.get(), path.c_str(), inotifyMaskFor(mask));
    if (self < 0) {
        return nullptr;
    }
    // The parent's watch is a help, not a condition: without it (a path at
    // the root, an unreadable parent) the path's own events still come.
    std::string parent;
    std::string name = path;
    if (const auto slash = path.find_last_of('/'); slash != std::string::npos) {
        parent = slash == 0 ? "/" : path.substr(0, slash);
        name = path.substr(slash + 1);
    }
    std::uint32_t parentMask = 0;
    if ((mask & kFileEventDelete) != 0) {
        parentMask |= IN_DELETE;
    }
    if ((mask & kFileEventRename) != 0) {
        parentMask |= IN_MOVED_FROM;
    }
    const int parentWatch =
        (parent.empty() || name.empty() || parentMask == 0)
            ? -1
            : ::inotify_add_watch(fd.get(), parent.c_str(), parentMask | IN_ONLYDIR);
    return std::make_unique<InotifySource>(queue_, std::move(fd), self, parentWatch,
                                           std::move(name), mask, std::move(event));
}

}  // namespace tessary::linux_backend
