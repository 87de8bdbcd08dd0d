#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>

#include "base/error.h"
#include "platform/linux/sd_handles.h"
#include "platform/service_manager_client.h"
#include "platform/system_log.h"

namespace tessary::linux_backend {

class SharedManagerConnection;
class UnitPicture;

struct SystemdServiceManagerOptions {
    // The manager's private socket (a path) or any D-Bus address
    // ("unix:path=..."). No bus daemon is involved.
    std::string busAddress = "/run/systemd/private";
    // Where submitted jobs' unit files go; a runtime directory, so that they
    // vanish at reboot as submitted jobs do.
    std::string unitDirectory = "/run/systemd/system";
    // Put first on the PATH of jobs that do not set their own; empty for none.
    std::string helperBinDirectory;
    // The main loop, which reads and drops what the manager sends to the kept
    // connection between operations; without one, that waits in the socket
    // until the next operation drops it.
    sd_event* event = nullptr;
    // Where the project's generator writes, at boot, the units of the one job
    // `generatedLabel` (the daemon's own) from its definition file. Those are
    // as much this backend's as the units in unitDirectory; any other unit
    // there is another generator's. Empty: no such job.
    std::string generatorDirectory = "/run/systemd/generator";
    std::string generatedLabel = {};
};

// The service-manager role on systemd: a job is a set of unit files written
// into the manager's runtime unit directory and loaded and started over the
// manager's private D-Bus socket.
//
// Only units loaded from files of that directory are the backend's: a unit
// of the same name that the manager has from anywhere else (another unit
// directory, a transient unit, a unit whose file went in a Reload) is never
// reported as the job, stopped, reset or shadowed.
//
// Safe to call from several threads at once. Operations on the thread that
// made the manager (the main loop's) share one kept connection, made anew
// when the manager closes it; a connection costs more than the questions a
// synchronisation asks. The manager sends every signal to every private
// connection, so the main loop reads the kept one and drops what it holds.
// Operations on other threads (the stop of all jobs at once) share one more
// connection while any of them runs: each sends its own calls and waits for
// its own answers and jobs, so they overlap fully and the whole takes as
// long as the slowest stop. A connection for each would have the manager
// write every signal of twenty stops twenty times while the later stops wait
// to be queued. Operations on one label wait for each other.
class SystemdServiceManager final : public ServiceManagerClient {
  public:
    SystemdServiceManager(SystemdServiceManagerOptions options, SystemLog& log);
    ~SystemdServiceManager() override;

    // Writes and loads the job's units and starts what must run at once.
    // Fails, changing nothing, without an authorization, for a job that does
    // not translate, for a job already loaded and for a job whose units the
    // manager has from elsewhere (the error names them). A job whose units load but
    // do not start is reported as an error and stays loaded, as a submitted
    // job whose program cannot run stays known to the manager; removing it
    // clears it.
    Status submitJob(const plist::Value& job, const AuthorizationRef& authorization) override;
    // Stops the job's sockets and timer, then its service, deletes each unit's
    // file once its stop is queued and clears any failed state. A unit whose
    // stop cannot be queued keeps its file, so that the job stays loaded and
    // can be removed again. With `wait`, returns once every stop has finished
    // and the manager no longer has the units loaded.
    Status removeJob(std::string_view label, const AuthorizationRef& authorization,
                     bool wait) override;
    // Yes while the manager has the job's service loaded from a file of the
    // unit directory, or still running from one that is gone; Unknown when
    // the manager cannot be asked. With a main loop, answered on its thread
    // from a picture taken once each turn of the loop (unit_picture.h).
    Answer jobIsEnabled(std::string_view label) override;

  private:
    // Operations on one label run one at a time; different labels never wait
    // for each other.
    class LabelGuard {
      public:
        LabelGuard(SystemdServiceManager& manager, std::string label);
        ~LabelGuard();
        LabelGuard(const LabelGuard&) = delete;
        LabelGuard& operator=(const LabelGuard&) = delete;

      private:
        SystemdServiceManager& manager_;
        std::string label_;
    };

    static Error notAuthorized(std::string_view what);
    Status removeJobUnits(std::string_view label, const AuthorizationRef& authorization, bool wait);
    // The job's own change of its units' origins, or, off the main loop's
    // thread or after a failure, the picture to be taken anew.
    void pictureChanged(const std::vector<std::string>& units, bool own, bool succeeded);
    // The answer of this pass's picture, on the main loop's thread, when it
    // needs no question to the manager.
    std::optional<Answer> answerFromPicture(std::string_view label);
    // The kept connection, on the thread that made the manager; null on any
    // other thread.
    Result<sd_bus*> keptConnection();
    // The connection the other threads share, made when none of them holds
    // one that still works; it closes when the last of them lets it go.
    Result<std::shared_ptr<SharedManagerConnection>> sharedConnection();

    SystemdServiceManagerOptions options_;
    std::string address_;
    SystemLog& log_;
    std::mutex busyMutex_;
    std::condition_variable busyChanged_;
    std::set<std::string, std::less<>> busyLabels_;
    std::thread::id home_ = std::this_thread::get_id();
    SdBusPtr kept_;
    std::unique_ptr<UnitPicture> picture_;
    std::mutex sharedMutex_;
    std::weak_ptr<SharedManagerConnection> shared_;
};

}  // namespace tessary::linux_backend
