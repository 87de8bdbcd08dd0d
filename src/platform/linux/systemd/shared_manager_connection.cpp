#include "platform/linux/systemd/shared_manager_connection.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <ctime>

namespace tessary::linux_backend {

Result<std::shared_ptr<SharedManagerConnection>> SharedManagerConnection::open(
    const std::string& address) {
    auto connection = std::make_shared<SharedManagerConnection>();
    if (const int r = openManagerBus(address, connection->bus_); r < 0) {
        return unreachable(address, r);
    }
    connection->wake_.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!connection->wake_) {
        return Error::posix(errno, "Unable to make an event descriptor");
    }
    // Every job's end is recorded from the start, so that none can slip
    // by between a call that makes a job and the wait for it; the manager
    // sends JobRemoved to its private connections without a Subscribe.
    sd_bus_slot* raw = nullptr;
    if (const int r = sd_bus_match_signal(connection->bus_.get(), &raw, nullptr, kManagerPath,
                                          kManagerInterface, "JobRemoved", &recordJobRemoved,
                                          &connection->finished_);
        r < 0) {
        return Error::posix(-r, "Unable to watch the service manager's jobs");
    }
    connection->match_.reset(raw);
    return connection;
}

bool SharedManagerConnection::usable() {
    std::lock_guard lock(mutex_);
    return failure_ == 0 && sd_bus_is_open(bus_.get()) > 0;
}

int SharedManagerConnection::call(const char* path, const char* interface, const char* member,
                                  sd_bus_error* error, const CallBuild& build,
                                  const CallParse& parse) {
    std::unique_lock lock(mutex_);
    if (failure_ < 0) {
        return failure_;
    }
    Pending pending{parse, error, bus_.get()};
    sd_bus_message* rawCall = nullptr;
    int r =
        sd_bus_message_new_method_call(bus_.get(), &rawCall, kDestination, path, interface, member);
    SdBusMessagePtr message(rawCall);
    if (r >= 0 && build) {
        r = build(rawCall);
    }
    sd_bus_slot* rawSlot = nullptr;
    if (r >= 0) {
        r = sd_bus_call_async(bus_.get(), &rawSlot, rawCall, &onReply, &pending, 0);
    }
    SdBusSlotPtr slot(rawSlot);
    message.reset();
    if (r < 0) {
        return r;
    }
    wakeReader();
    r = waitUntil(lock, [&] { return pending.done; });
    slot.reset();
    return pending.done ? pending.r : r;
}

Result<JobResults> SharedManagerConnection::waitForJobs(const std::vector<std::string>& jobs) {
    std::unique_lock lock(mutex_);
    const int r = waitUntil(lock, [&] {
        return std::all_of(jobs.begin(), jobs.end(),
                           [&](const std::string& job) { return finished_.count(job) != 0; });
    });
    if (r < 0) {
        return Error::posix(-r, "Lost the service manager while waiting for its jobs");
    }
    JobResults results;
    for (const auto& job : jobs) {
        results.insert(finished_.extract(job));
    }
    return results;
}

int SharedManagerConnection::onReply(sd_bus_message* m, void* userdata, sd_bus_error* /*error*/) {
    auto* pending = static_cast<Pending*>(userdata);
    if (const sd_bus_error* e = sd_bus_message_get_error(m); e != nullptr) {
        if (sd_bus_is_open(pending->bus) <= 0) {
            // The answer sd-bus makes up for a call the closed connection
            // took with it: told as sd_bus_call tells a lost connection.
            pending->r = -ECONNRESET;
        } else {
            pending->r = sd_bus_error_copy(pending->error, e);
            if (pending->r >= 0) {
                pending->r = -EIO;
            }
        }
    } else {
        pending->parse(m);
        pending->r = 1;
    }
    pending->done = true;
    return 0;
}

void SharedManagerConnection::wakeReader() {
    if (reading_) {
        const std::uint64_t one = 1;
        (void)!::write(wake_.get(), &one, sizeof one);
    }
}

int SharedManagerConnection::poll(std::unique_lock<std::mutex>& lock) {
    const int fd = sd_bus_get_fd(bus_.get());
    const int events = sd_bus_get_events(bus_.get());
    std::uint64_t until = UINT64_MAX;
    int r = sd_bus_get_timeout(bus_.get(), &until);
    if (fd < 0 || events < 0 || r < 0) {
        return fd < 0 ? fd : events < 0 ? events : r;
    }
    timespec wait{};
    timespec* timeout = nullptr;
    if (until != UINT64_MAX) {
        timespec now{};
        ::clock_gettime(CLOCK_MONOTONIC, &now);
        const std::uint64_t nowUsec = static_cast<std::uint64_t>(now.tv_sec) * 1000000U +
                                      static_cast<std::uint64_t>(now.tv_nsec) / 1000U;
        const std::uint64_t left = until > nowUsec ? until - nowUsec : 0;
        wait.tv_sec = static_cast<time_t>(left / 1000000U);
        wait.tv_nsec = static_cast<long>((left % 1000000U) * 1000U);
        timeout = &wait;
    }
    pollfd fds[2] = {{fd, static_cast<short>(events), 0}, {wake_.get(), POLLIN, 0}};
    lock.unlock();
    r = ::ppoll(fds, 2, timeout, nullptr);
    const int err = errno;
    lock.lock();
    if (r < 0) {
        return err == EINTR ? 0 : -err;
    }
    if ((fds[1].revents & POLLIN) != 0) {
        std::uint64_t count = 0;
        (void)!::read(wake_.get(), &count, sizeof count);
    }
    return 0;
}

int SharedManagerConnection::waitUntil(std::unique_lock<std::mutex>& lock,
                                       const std::function<bool()>& done) {
    while (!done()) {
        if (failure_ < 0) {
            return failure_;
        }
        if (reading_) {
            changed_.wait(lock);
            continue;
        }
        reading_ = true;
        while (!done() && failure_ == 0) {
            int r = 0;
            bool processed = false;
            while ((r = sd_bus_process(bus_.get(), nullptr)) > 0) {
                processed = true;
            }
            if (processed) {
                changed_.notify_all();
            }
            if (r >= 0 && !done()) {
                r = poll(lock);
            }
            if (r < 0) {
                failure_ = r;
            }
        }
        // Another waiting thread takes over the reading.
        reading_ = false;
        changed_.notify_all();
    }
    return 0;
}

}  // namespace tessary::linux_backend
