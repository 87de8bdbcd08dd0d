// Submitting a job: its units written, loaded and started, or nothing of
// it left behind.

#include <optional>
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
    // The manager is asked for its default limits only by a job that sets
    // one limit of a pair; the connection is then kept for the rest.
    std::optional<ManagerBus> bus;
    auto connect = [&]() -> Status {
        if (!bus) {
            auto connected = managerBus(keptConnection(), [this] { return sharedConnection(); });
            if (!connected) {
                return connected.error();
            }
            bus.emplace(std::move(connected.value()));
        }
        return {};
    };
    TranslationOptions translation{options_.helperBinDirectory,
                                   [&](std::string_view directive) -> std::optional<ResourceLimit> {
                                       if (!connect()) {
                                           return std::nullopt;
                                       }
                                       auto limit = bus->defaultLimit(directive);
                                       return limit ? std::optional(limit.value()) : std::nullopt;
                                   },
                                   servicesDatabasePort};
    auto translated = translateJob(job, translation);
    if (!translated) {
        return translated.error();
    }
    const UnitTranslation& t = translated.value();
    for (const Finding& finding : t.findings) {
        // The daemon's own job names its request endpoint, which the daemon
        // opens itself as its socket: nothing is missing there.
        if (t.label == options_.generatedLabel && finding.key == "MachServices") {
            continue;
        }
        if (finding.kind == FindingKind::Ignored) {
            log_.warning("WARNING: Job %@: %@ is ignored: %@", t.label, finding.key,
                         finding.reason);
        } else {
            log_.debug("Job %@: %@ is approximated: %@", t.label, finding.key, finding.reason);
        }
    }
    LabelGuard guard(*this, t.label);
    if (Status s = connect(); !s) {
        return s;
    }

    // A template cannot be asked about, an instance of it can: it loads from
    // the template's file.
    std::vector<std::string> names = t.loadableUnits();
    if (t.accepts) {
        names.push_back(templateProbe(t.serviceUnit));
    }
    for (const auto& name : names) {
        auto state = bus->unitState(name);
        if (!state) {
            return state.error();
        }
        auto origin = originOf(*bus, options_, name, state.value(), true);
        if (!origin) {
            return origin.error();
        }
        if (origin.value().origin == Origin::Own) {
            return Error{
                kErrorDomain, EEXIST,
                "Job " + t.label + " is already loaded (the service manager has " + name + ")"};
        }
        if (origin.value().origin == Origin::Foreign) {
            return Error{kErrorDomain, EEXIST,
                         "Job " + t.label + " would shadow another unit: the service manager has " +
                             foreignUnit(name, origin.value())};
        }
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
        status = loadUnits(*bus, names);
    }
    if (!status) {
        // Nothing of the job may stay behind when it could not be loaded.
        for (const auto& name : written) {
            (void)removeUnitFile(options_.unitDirectory, name);
        }
        (void)ensureUnloaded(*bus, options_, names);
        pictureChanged(names, false, false);
        return status;
    }
    // Loaded: the units are the job's, whether or not they start.
    pictureChanged(names, true, true);

    const std::vector<std::string> toStart = t.unitsToStart();
    if (toStart.empty()) {
        return {};
    }
    if (Status s = bus->watchJobs(); !s) {
        return s;
    }
    std::vector<std::pair<std::string, std::string>> jobs;  // unit, job path
    std::vector<std::string> jobPaths;
    for (const auto& unit : toStart) {
        auto queued = bus->enqueue("StartUnit", unit);
        if (!queued) {
            status = queued.error();
            break;
        }
        jobs.emplace_back(unit, queued.value());
        jobPaths.push_back(queued.value());
    }
    auto results = bus->waitForJobs(jobPaths);
    if (!results) {
        return results.error();
    }
    if (!status) {
        return status;
    }
    for (const auto& [unit, path] : jobs) {
        const std::string& result = results.value().at(path);
        if (result != "done") {
            auto unitPath = bus->loadUnit(unit);
            return Error{kErrorDomain, EIO,
                         startFailure(*bus, unit, unitPath ? unitPath.value() : "", result)};
        }
    }
    return {};
}

}  // namespace tessary::linux_backend
