// Submitting a job: its units written, loaded and started, or nothing of
// it left behind.

#include <string>
#include <vector>

#include "platform/linux/systemd/manager_bus.h"
#include "platform/linux/systemd/systemd_service_manager.h"
#include "platform/linux/systemd/unit_files.h"
#include "platform/linux/systemd/unit_loading.h"
#include "platform/linux/systemd/unit_translation.h"

namespace tessary::linux_backend {

Status SystemdServiceManager::submitJob(const plist::Value& job,
                                        const AuthorizationRef& authorization) {
    if (!authorization) {
        return notAuthorized("submit");
    }
    auto translated = translateJob(job, {options_.helperBinDirectory});
    if (!translated) {
        return translated.error();
    }
    const UnitTranslation& t = translated.value();
    for (const auto& key : t.ignoredKeys) {
        log_.debug("Job %@: ignoring %@, which has no systemd counterpart", t.label, key);
    }
    LabelGuard guard(*this, t.label);
    auto connected = managerBus(keptConnection(), [this] { return sharedConnection(); });
    if (!connected) {
        return connected.error();
    }
    ManagerBus& bus = connected.value();

    std::vector<std::string> names;
    for (const auto& unit : t.units) {
        auto state = bus.unitState(unit.name);
        if (!state) {
            return state.error();
        }
        auto origin = originOf(bus, options_, unit.name, state.value(), true);
        if (!origin) {
            return origin.error();
        }
        if (origin.value().origin == Origin::Own) {
            return Error{kErrorDomain, EEXIST,
                         "Job " + t.label + " is already loaded (the service manager has " +
                             unit.name + ")"};
        }
        if (origin.value().origin == Origin::Foreign) {
            return Error{kErrorDomain, EEXIST,
                         "Job " + t.label + " would shadow another unit: the service manager has " +
                             foreignUnit(unit.name, origin.value())};
        }
        names.push_back(unit.name);
    }

    std::vector<std::string> written;
    Status status;
    for (const auto& unit : t.units) {
        status = writeUnitFile(options_.unitDirectory, unit);
        if (!status) {
            break;
        }
        written.push_back(unit.name);
    }
    if (status) {
        status = loadUnits(bus, names);
    }
    if (!status) {
        // Nothing of the job may stay behind when it could not be loaded.
        for (const auto& name : written) {
            (void)removeUnitFile(options_.unitDirectory, name);
        }
        (void)ensureUnloaded(bus, options_, written);
        return status;
    }

    const std::vector<std::string> toStart = t.unitsToStart();
    if (toStart.empty()) {
        return {};
    }
    if (Status s = bus.watchJobs(); !s) {
        return s;
    }
    std::vector<std::pair<std::string, std::string>> jobs;  // unit, job path
    std::vector<std::string> jobPaths;
    for (const auto& unit : toStart) {
        auto queued = bus.enqueue("StartUnit", unit);
        if (!queued) {
            status = queued.error();
            break;
        }
        jobs.emplace_back(unit, queued.value());
        jobPaths.push_back(queued.value());
    }
    auto results = bus.waitForJobs(jobPaths);
    if (!results) {
        return results.error();
    }
    if (!status) {
        return status;
    }
    for (const auto& [unit, path] : jobs) {
        const std::string& result = results.value().at(path);
        if (result != "done") {
            auto unitPath = bus.loadUnit(unit);
            return Error{kErrorDomain, EIO,
                         startFailure(bus, unit, unitPath ? unitPath.value() : "", result)};
        }
    }
    return {};
}

}  // namespace tessary::linux_backend
