#pragma once
// Hostile clients of the daemon's socket for the benchmark of root's requests
// beside an unprivileged flood: a raw connection and a child process that
// holds a user's identity.

#include <fcntl.h>
#include <grp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "plist/value.h"

namespace tessary::testing {

// A connection to the daemon's socket that sends what the client library
// never would.
class RawConnection {
  public:
    explicit RawConnection(const std::string& socket)
        : fd_(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)) {
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::strncpy(addr.sun_path, socket.c_str(), sizeof addr.sun_path - 1);
        (void)::connect(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    }
    ~RawConnection() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }
    RawConnection(const RawConnection&) = delete;
    RawConnection& operator=(const RawConnection&) = delete;

    bool send(const plist::Bytes& bytes) const {
        return ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(bytes.size());
    }
    // The next datagram within `wait`; none on timeout; empty at hang-up.
    std::optional<plist::Bytes> receive(std::chrono::milliseconds wait) const {
        timeval tv{static_cast<time_t>(wait.count() / 1000),
                   static_cast<suseconds_t>((wait.count() % 1000) * 1000)};
        ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        plist::Bytes buf(65536);
        const ssize_t n = ::recv(fd_, buf.data(), buf.size(), 0);
        if (n < 0) {
            return std::nullopt;
        }
        buf.resize(static_cast<std::size_t>(n));
        return buf;
    }

  private:
    int fd_;
};

// A child process running `body` with every id set to `uid`, and room for
// `descriptors` open files. It writes its findings to `report()`'s pipe and
// may wait for `release()` before it ends.
class HostileChild {
  public:
    HostileChild(uid_t uid, rlim_t descriptors,
                 const std::function<void(int out, int release)>& body) {
        int toParent[2];
        int toChild[2];
        if (::pipe2(toParent, O_CLOEXEC) != 0 || ::pipe2(toChild, O_CLOEXEC) != 0) {
            return;
        }
        pid_ = ::fork();
        if (pid_ == 0) {
            ::close(toParent[0]);
            ::close(toChild[1]);
            const rlimit files{descriptors, descriptors};
            if (::setrlimit(RLIMIT_NOFILE, &files) != 0 || ::setgroups(0, nullptr) != 0 ||
                ::setresgid(uid, uid, uid) != 0 || ::setresuid(uid, uid, uid) != 0) {
                ::_exit(90);
            }
            body(toParent[1], toChild[0]);
            ::_exit(0);
        }
        ::close(toParent[1]);
        ::close(toChild[0]);
        out_ = toParent[0];
        release_ = toChild[1];
    }
    ~HostileChild() { end(); }
    HostileChild(const HostileChild&) = delete;
    HostileChild& operator=(const HostileChild&) = delete;

    // Everything the child wrote before it began to wait for its release.
    std::string report() {
        std::string out;
        char buf[256];
        for (;;) {
            const ssize_t n = ::read(out_, buf, sizeof buf);
            if (n <= 0) {
                break;
            }
            out.append(buf, static_cast<std::size_t>(n));
            if (out.back() == '\n') {
                break;
            }
        }
        return out;
    }
    // Lets the child go on past its wait, and waits for its end; its exit
    // status.
    int end() {
        if (release_ >= 0) {
            ::close(release_);
            release_ = -1;
        }
        if (out_ >= 0) {
            ::close(out_);
            out_ = -1;
        }
        if (pid_ <= 0) {
            return -1;
        }
        int status = 0;
        ::waitpid(pid_, &status, 0);
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 99;
    }
    pid_t pid() const { return pid_; }

    static void say(int out, const std::string& line) {
        (void)::write(out, line.data(), line.size());
    }

  private:
    pid_t pid_ = -1;
    int out_ = -1;
    int release_ = -1;
};

}  // namespace tessary::testing
