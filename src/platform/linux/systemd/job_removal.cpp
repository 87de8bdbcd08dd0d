// Removing a job: its units stopped, their files deleted and, when asked
// to wait, the manager seen to let them go.

#include <algorithm>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "platform/linux/systemd/manager_bus.h"
#include "platform/linux/systemd/systemd_service_manager.h"
#include "platform/linux/systemd/unit_files.h"
#include "platform/linux/systemd/unit_loading.h"
#include "platform/linux/systemd/unit_translation.h"

namespace tessary::linux_backend {

namespace {

// Whether this process runs inside `unit`: its cgroup path (in any
// hierarchy) ends in the unit's name.
bool callerRunsIn(const std::string& unit) {
    std::ifstream cgroups("/proc/self/cgroup");
    std::string line;
    while (std::getline(cgroups, line)) {
        const auto slash = line.rfind('/');
        if (slash != std::string::npos && line.compare(slash + 1, std::string::npos, unit) == 0) {
            return true;
        }
    }
    return false;
}

}  // namespace

Status SystemdServiceManager::removeJob(std::string_view label,
                                        const AuthorizationRef& authorization, bool wait) {
    Status status = removeJobUnits(label, authorization, wait);
    // Only a removal waited for is known to have let every unit go.
    const std::string name(label);
    pictureChanged({name + ".service", name + ".socket", name + ".timer", name + ".path"}, false,
                   status.ok() && wait);
    return status;
}

Status SystemdServiceManager::removeJobUnits(std::string_view label,
                                             const AuthorizationRef& authorization, bool wait) {
    if (!authorization) {
        return notAuthorized("remove");
    }
    if (Status s = checkJobLabel(label); !s) {
        return s;
    }
    LabelGuard guard(*this, std::string(label));
    auto connected = managerBus(keptConnection(), [this] { return sharedConnection(); });
    if (!connected) {
        return connected.error();
    }
    ManagerBus& bus = connected.value();
    const std::string service = serviceUnitName(label);

    // The job's units: its service and whatever triggers it (its sockets,
    // timer and path unit), plus the names those usually have, should the
    // service be gone.
    // A trigger the manager does not have is neither running nor loaded, and
    // its file, if any, goes below all the same; the service (and a unit of
    // the generator's) is looked for by name, as the question whether the
    // job is loaded does.
    const std::string socket = std::string(label) + ".socket";
    const std::string timer = std::string(label) + ".timer";
    const std::string path = std::string(label) + ".path";
    auto usual = statesLoadingOnly(
        bus, {service, socket, timer, path},
        [&](const std::string& unit) { return unit == service || generatedUnit(options_, unit); });
    if (!usual) {
        return usual.error();
    }
    const UnitState serviceState = usual.value()[0];
    auto serviceOrigin = originOf(bus, options_, service, serviceState, false);
    if (!serviceOrigin) {
        return serviceOrigin.error();
    }
    const bool serviceOwn = serviceOrigin.value().origin == Origin::Own;
    std::map<std::string, UnitState> known{
        {socket, usual.value()[1]}, {timer, usual.value()[2]}, {path, usual.value()[3]}};
    std::vector<std::string> triggers;
    if (serviceOwn && serviceState.loadState == "loaded") {
        auto by = bus.stringsProperty(serviceState.path, kUnitInterface, "TriggeredBy");
        if (!by) {
            return by.error();
        }
        triggers = by.value();
    }
    for (const std::string& name : {socket, timer, path}) {
        if (std::find(triggers.begin(), triggers.end(), name) == triggers.end()) {
            triggers.push_back(name);
        }
    }

    // Only the job's own units are stopped and reset; a file of the unit
    // directory is the job's to delete whoever's unit the manager has.
    std::vector<std::string> ownTriggers;
    std::vector<std::string> files;
    std::string foreign;
    auto sort = [&](const std::string& unit, const UnitOrigin& origin) {
        if (origin.origin == Origin::Foreign && foreign.empty()) {
            foreign = foreignUnit(unit, origin);
        }
        if (origin.origin == Origin::Own || unitFileExists(options_.unitDirectory, unit)) {
            files.push_back(unit);
        }
    };
    for (const auto& unit : triggers) {
        auto it = known.find(unit);
        auto state = it != known.end() ? Result<UnitState>(it->second) : bus.unitState(unit);
        if (!state) {
            return state.error();
        }
        auto origin = originOf(bus, options_, unit, state.value(), false);
        if (!origin) {
            return origin.error();
        }
        if (origin.value().origin == Origin::Own) {
            ownTriggers.push_back(unit);
        }
        sort(unit, origin.value());
    }
    sort(service, serviceOrigin.value());
    // A job that serves each connection has a template service, of which the
    // manager has only the instances serving connections.
    const std::string templateService = std::string(label) + "@.service";
    std::vector<std::string> ownInstances;
    auto instances = bus.unitsMatching({std::string(label) + "@*.service"});
    if (!instances) {
        return instances.error();
    }
    for (const auto& [unit, state] : instances.value()) {
        auto origin = originOf(bus, options_, unit, state, false);
        if (!origin) {
            return origin.error();
        }
        if (origin.value().origin == Origin::Own) {
            ownInstances.push_back(unit);
        }
    }
    if (unitFileExists(options_.unitDirectory, templateService)) {
        files.push_back(templateService);
    }
    if (!serviceOwn && ownTriggers.empty() && files.empty()) {
        return Error{kErrorDomain, ESRCH,
                     "Job " + std::string(label) + " is not loaded" +
                         (foreign.empty() ? "" : " (the service manager has " + foreign + ")")};
    }

    // A job that removes itself (the daemon's own job when it uninstalls
    // itself, a clean-up job at its end) is killed by its own stop, so its
    // files go first and nothing waits for the stop: once stopped, a unit
    // without a file is unloaded by the manager.
    if (serviceOwn && callerRunsIn(service)) {
        Status status;
        for (const auto& unit : files) {
            if (Status s = removeUnitFile(options_.unitDirectory, unit); !s && status) {
                status = s;
            }
        }
        (void)bus.managerCall("Reload");
        ownTriggers.push_back(service);
        for (const auto& unit : ownTriggers) {
            if (auto queued = bus.enqueue("StopUnit", unit); !queued && status) {
                status = queued.error();
            }
        }
        return status;
    }

    // Sockets, timers and path units first: stopped after the service, they
    // could start it again. A unit's file goes once its stop is queued, not after the
    // stop: the manager then drops the stopped unit by itself, where a file
    // deleted after the stop would leave it loaded until a Reload. A unit
    // whose stop could not be queued keeps its file, and with it the job
    // stays loaded, to be removed again.
    Status status;
    if (wait) {
        if (Status s = bus.watchJobs(); !s) {
            return s;
        }
    }
    std::vector<std::string> stopped;
    if (serviceOwn) {
        ownInstances.push_back(service);
    }
    for (const auto& round : {ownTriggers, ownInstances}) {
        std::vector<std::string> jobs;
        for (const auto& unit : round) {
            auto queued = bus.enqueue("StopUnit", unit);
            if (!queued) {
                if (status) {
                    status = queued.error();
                }
                files.erase(std::remove(files.begin(), files.end(), unit), files.end());
                continue;
            }
            jobs.push_back(queued.value());
            stopped.push_back(unit);
            if (Status s = removeUnitFile(options_.unitDirectory, unit); !s && status) {
                status = s;
            }
        }
        if (wait) {
            auto results = bus.waitForJobs(jobs);
            if (!results) {
                return results.error();
            }
        }
    }

    for (const auto& unit : files) {
        if (std::find(stopped.begin(), stopped.end(), unit) != stopped.end()) {
            (void)bus.managerCall("ResetFailedUnit", unit);  // fails when not failed
        } else if (Status s = removeUnitFile(options_.unitDirectory, unit); !s && status) {
            status = s;
        }
    }
    if (!status || !wait) {
        return status;
    }
    return ensureUnloaded(bus, options_, stopped);
}

}  // namespace tessary::linux_backend
