#pragma once

// Whose a unit is, as the manager has it, and the loading and unloading of a
// job's units: what submit and removal ask before they act and wait for
// after.

#include <functional>
#include <string>
#include <vector>

#include "base/error.h"
#include "platform/linux/systemd/manager_bus.h"
#include "platform/linux/systemd/systemd_service_manager.h"

namespace tessary::linux_backend {

// The manager's view of `units` without making it look for files of those
// it does not have (see unitStatesInMemory), except that each unit for which
// `byName` holds and that the manager does not have loaded is asked by name,
// which loads it from its file if there is one.
Result<std::vector<UnitState>> statesLoadingOnly(
    ManagerBus& bus, const std::vector<std::string>& units,
    const std::function<bool(const std::string&)>& byName);

enum class Origin {
    None,     // neither loaded nor running, or from a file of ours that did not load
    Own,      // loaded or running from a file of ours, even one that is gone
    Foreign,  // from anywhere else, or running with no file at all
};

struct UnitOrigin {
    Origin origin = Origin::None;
    std::string fragment;
};

// Whose `unit` is. With `anyFile`, a unit that did not load from a file
// elsewhere (masked, a bad setting) is another's too: a file of ours of that
// name would shadow it or be shadowed. The manager's FragmentPath is asked
// only when there is something to tell.
Result<UnitOrigin> originOf(ManagerBus& bus, const SystemdServiceManagerOptions& options,
                            const std::string& unit, const UnitState& state, bool anyFile);

// How a unit of another's is named in an error.
std::string foreignUnit(const std::string& unit, const UnitOrigin& origin);

// Makes sure the manager no longer has any of `units` (the job's own, their
// stops finished and their files gone) loaded. The manager drops a stopped
// unit without a file by itself; one that something still refers to stays in
// its memory, loaded from its deleted file (NeedDaemonReload), and a unit
// made by the generator stays until the generator runs again: those two, and
// only those, need a Reload. A unit of that name that the manager now has
// from a file elsewhere is not the job's.
Status ensureUnloaded(ManagerBus& bus, const SystemdServiceManagerOptions& options,
                      const std::vector<std::string>& units);

// Loads freshly written units. A new file loads by itself; one that replaces
// a file the manager had read needs a Reload, which the manager asks for
// through NeedDaemonReload. Fails with the manager's reason when a unit does
// not load.
Status loadUnits(ManagerBus& bus, const std::vector<std::string>& units);

}  // namespace tessary::linux_backend
