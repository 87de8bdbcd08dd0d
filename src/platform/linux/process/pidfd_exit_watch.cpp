#include "platform/linux/process/pidfd_exit_watch.h"

#include <sys/epoll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

#include "base/unique_fd.h"

namespace tessary::linux_backend {

namespace {

// Owns the pidfd and its watch; the watch goes first.
struct PidfdSource final : QueueSource {
    UniqueFd pidfd;
    QueueSourcePtr watch;
    ~PidfdSource() override { watch.reset(); }
};

}  // namespace

Result<QueueSourcePtr> PidfdExitWatch::watchExit(std::int32_t pid, std::function<void()> exited) {
    auto source = std::make_unique<PidfdSource>();
    source->pidfd.reset(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
    if (!source->pidfd) {
        return Error::posix(errno, "pidfd_open " + std::to_string(pid));
    }
    // Readable once, at exit; the callback may destroy the source.
    source->watch = queue_.watch(source->pidfd.get(), EPOLLIN,
                                 [fire = std::move(exited)](std::uint32_t) { fire(); });
    if (!source->watch) {
        return Error{"TYExitWatchErrorDomain", 1,
                     "cannot watch the pidfd of " + std::to_string(pid)};
    }
    return QueueSourcePtr(std::move(source));
}

}  // namespace tessary::linux_backend
