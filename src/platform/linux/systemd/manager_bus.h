#pragma once

// The connections to systemd's manager as one operation uses them, and the
// questions asked on them: loading units, their states and properties,
// queuing start and stop jobs and waiting for their ends.

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/error.h"
#include "platform/linux/sd_handles.h"
#include "platform/linux/systemd/unit_translation.h"

namespace tessary::linux_backend {

class SharedManagerConnection;

inline constexpr const char* kDestination = "org.freedesktop.systemd1";
inline constexpr const char* kManagerPath = "/org/freedesktop/systemd1";
inline constexpr const char* kManagerInterface = "org.freedesktop.systemd1.Manager";
inline constexpr const char* kUnitInterface = "org.freedesktop.systemd1.Unit";
inline constexpr const char* kServiceInterface = "org.freedesktop.systemd1.Service";
inline constexpr const char* kErrorDomain = "SystemdServiceManager";

// The manager's own sentence when it sent one, else the errno text; the
// domain is the D-Bus error name, so that a caller can tell them apart.
Error busFailure(const std::string& what, int r, const SdBusError& error);

// Whether a call failed because the connection went, not because of what it
// asked.
bool connectionLost(const Error& error);

int openManagerBus(const std::string& address, SdBusPtr& out);

Error unreachable(const std::string& address, int r);

struct UnitState {
    std::string path;
    std::string loadState;
    std::string activeState;
    // Loaded, or still running from a file that is gone. A unit that failed
    // and has no file left is only a record of that failure.
    bool present() const {
        return loadState == "loaded" || (activeState != "inactive" && activeState != "failed");
    }
};

// Results of finished jobs ("done", "failed", ...) by job path.
using JobResults = std::map<std::string, std::string>;

// Records a JobRemoved signal into the JobResults at `userdata`.
int recordJobRemoved(sd_bus_message* m, void* userdata, sd_bus_error* /*error*/);

// Builds a method call's arguments; reads its answer.
using CallBuild = std::function<int(sd_bus_message*)>;
using CallParse = std::function<void(sd_bus_message*)>;

// A connection to the manager as one operation on one thread uses it: the
// manager's kept one, borrowed, or the one the other threads share.
class ManagerBus {
  public:
    static ManagerBus borrow(sd_bus* kept) { return ManagerBus(kept, nullptr); }
    static ManagerBus share(std::shared_ptr<SharedManagerConnection> shared) {
        return ManagerBus(nullptr, std::move(shared));
    }

    // The unit's object, loading it from its file if the manager does not
    // have it yet.
    Result<std::string> loadUnit(const std::string& unit);

    // The manager's view of each of `units`, which it loads from their files
    // first if it does not have them: one call for all of them, where LoadUnit
    // and two properties take three for each.
    Result<std::vector<UnitState>> unitStates(const std::vector<std::string>& units);

    // The manager's view of each of `units` as it has them in memory, loading
    // none: one it does not have comes back as neither loaded nor running,
    // with no object path. Asked by name, a unit the manager does not have
    // makes it look for the unit's file in every unit directory, and, once
    // one of them has changed since it last looked (as every removal changes
    // ours), read them all again first; a stop of many jobs at once would
    // keep the manager busy with that while the stops wait to be queued.
    Result<std::vector<UnitState>> unitStatesInMemory(const std::vector<std::string>& units);

    Result<UnitState> unitState(const std::string& unit);

    // The units the manager has in memory whose names match one of
    // `patterns` (shell patterns), with their states.
    Result<std::vector<std::pair<std::string, UnitState>>> unitsMatching(
        const std::vector<std::string>& patterns);

    Result<std::string> stringProperty(const std::string& path, const char* interface,
                                       const char* name);

    Result<std::vector<std::string>> stringsProperty(const std::string& path, const char* interface,
                                                     const char* name);

    template <class T>
    Result<T> trivialProperty(const std::string& path, const char* interface, const char* name,
                              char type) {
        SdBusError error;
        T value{};
        int q = 0;
        const char contents[2] = {type, '\0'};
        const int r = getProperty(path, interface, name, contents, error, [&](sd_bus_message* m) {
            q = sd_bus_message_read_basic(m, type, &value);
        });
        if (r < 0) {
            return busFailure(std::string("Unable to read ") + name + " of " + path, r, error);
        }
        if (q <= 0) {
            return Error::posix(q < 0 ? -q : EBADMSG,
                                std::string("Unexpected value of ") + name + " of " + path);
        }
        return value;
    }

    // The limit the manager gives a service whose unit sets none, by
    // directive ("LimitNOFILE").
    Result<ResourceLimit> defaultLimit(std::string_view directive);

    // The manager's reason for a unit that did not load, as "(ss)".
    std::string loadError(const std::string& path);

    // Queues a start or stop job and returns its object path.
    Result<std::string> enqueue(const char* method, const std::string& unit);

    Status managerCall(const char* method, const std::string& unit = {});

    // From here on every finished job is recorded. Installed before the call
    // that makes a job, so that its end cannot slip by; the manager sends
    // JobRemoved to its private connections without a Subscribe. The shared
    // connection records them from its start.
    Status watchJobs();

    // Waits until every job in `jobs` has ended; their results ("done",
    // "failed", ...) by job path.
    Result<std::map<std::string, std::string>> waitForJobs(const std::vector<std::string>& jobs);

  private:
    ManagerBus(sd_bus* bus, std::shared_ptr<SharedManagerConnection> shared)
        : bus_(bus), shared_(std::move(shared)), finished_(new JobResults) {}

    static std::string describe(const std::vector<std::string>& units);

    // One method call of the manager's, as sd_bus_call reports it: `build`
    // adds the arguments, `parse` reads the answer (only when there is one).
    int call(const char* path, const char* interface, const char* member, SdBusError& error,
             const CallBuild& build, const CallParse& parse);

    // Properties.Get of one property, whose value `read` reads once it is
    // entered as a variant holding `contents`.
    int getProperty(const std::string& path, const char* interface, const char* name,
                    const char* contents, SdBusError& error,
                    const std::function<void(sd_bus_message*)>& read);

    // Reads one string of type `type` ("s", "o") into `out`.
    static int readString(sd_bus_message* m, const char* type, std::string& out);

    // The units a ListUnits method answers for `names`, each with its name,
    // in the order of the answer. `statesFirst`: the method takes a list of
    // active states (left empty: any) before the names.
    Result<std::vector<std::pair<std::string, UnitState>>> listUnits(
        const char* method, const std::vector<std::string>& names, bool statesFirst = false);

    sd_bus* bus_;                                      // the kept connection, when borrowed
    std::shared_ptr<SharedManagerConnection> shared_;  // else the shared one
    std::unique_ptr<JobResults> finished_;             // stays put when the connection is moved
    SdBusSlotPtr match_;                               // declared last: released first
};

// The kept connection on the thread that made the manager, else the one
// the other threads share.
Result<ManagerBus> managerBus(
    const Result<sd_bus*>& kept,
    const std::function<Result<std::shared_ptr<SharedManagerConnection>>()>& shared);

// Why a start job did not end in "done", with what the manager knows of the
// unit's end.
std::string startFailure(ManagerBus& bus, const std::string& unit, const std::string& path,
                         const std::string& jobResult);

}  // namespace tessary::linux_backend
