#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "base/error.h"
#include "base/unique_fd.h"
#include "platform/linux/sd_handles.h"
#include "platform/linux/systemd/manager_bus.h"

namespace tessary::linux_backend {

// A connection to the manager that the threads other than the kept
// connection's use together (see SystemdServiceManager's comment). Each
// thread sends its own calls; whichever of the waiting threads finds nobody
// reading reads for all of them, and the others wait to be told. Every use
// of the sd-bus objects, building and reading messages included, happens
// under the one lock.
class SharedManagerConnection {
  public:
    static Result<std::shared_ptr<SharedManagerConnection>> open(const std::string& address);

    // Whether it can still be handed to an operation.
    bool usable();

    // As sd_bus_call: >= 0 once `parse` has read the answer; else the negative
    // errno, with `error` set when the manager answered with one.
    int call(const char* path, const char* interface, const char* member, sd_bus_error* error,
             const CallBuild& build, const CallParse& parse);

    // Waits until every job in `jobs` has ended; their results by job path.
    Result<JobResults> waitForJobs(const std::vector<std::string>& jobs);

  private:
    struct Pending {
        const CallParse& parse;
        sd_bus_error* error;
        sd_bus* bus;
        bool done = false;
        int r = 0;
    };

    static int onReply(sd_bus_message* m, void* userdata, sd_bus_error* /*error*/);

    // A reader waiting in poll learns of what was just sent: a new call may
    // have left bytes to write or brought a nearer time limit.
    void wakeReader();

    // Until `done` holds: reads for every waiting thread when no other does,
    // else waits to be told that something was read. 0, or the negative errno
    // that ended the connection.
    int waitUntil(std::unique_lock<std::mutex>& lock, const std::function<bool()>& done);

    // Waits, without the lock, until the connection has something to do or a
    // sender woke it.
    int poll(std::unique_lock<std::mutex>& lock);

    std::mutex mutex_;
    std::condition_variable changed_;
    SdBusPtr bus_;
    UniqueFd wake_;
    JobResults finished_;
    bool reading_ = false;
    int failure_ = 0;     // the negative errno that ended the connection
    SdBusSlotPtr match_;  // declared last: released first
};

}  // namespace tessary::linux_backend
