#include "platform/linux/systemd/unit_loading.h"

#include "platform/linux/systemd/unit_files.h"

namespace tessary::linux_backend {

Result<std::vector<UnitState>> statesLoadingOnly(
    ManagerBus& bus, const std::vector<std::string>& units,
    const std::function<bool(const std::string&)>& byName) {
    auto states = bus.unitStatesInMemory(units);
    if (!states) {
        return states;
    }
    for (std::size_t i = 0; i < units.size(); ++i) {
        if (states.value()[i].loadState != "loaded" && byName(units[i])) {
            auto state = bus.unitState(units[i]);
            if (!state) {
                return state.error();
            }
            states.value()[i] = std::move(state.value());
        }
    }
    return states;
}

Result<UnitOrigin> originOf(ManagerBus& bus, const SystemdServiceManagerOptions& options,
                            const std::string& unit, const UnitState& state, bool anyFile) {
    const bool present = state.present();
    if (!present && (!anyFile || state.loadState == "not-found")) {
        return UnitOrigin{};
    }
    auto fragment = bus.stringProperty(state.path, kUnitInterface, "FragmentPath");
    if (!fragment) {
        return fragment.error();
    }
    if (ownFragment(options, unit, fragment.value())) {
        return UnitOrigin{present ? Origin::Own : Origin::None, fragment.value()};
    }
    return UnitOrigin{Origin::Foreign, fragment.value()};
}

std::string foreignUnit(const std::string& unit, const UnitOrigin& origin) {
    return origin.fragment.empty() ? unit + ", which runs without a unit file"
                                   : unit + " from '" + origin.fragment + "'";
}

Status ensureUnloaded(ManagerBus& bus, const SystemdServiceManagerOptions& options,
                      const std::vector<std::string>& units) {
    for (int attempt = 0; attempt < 2; ++attempt) {
        bool reload = false;
        // A unit the manager does not have is not loaded; only the
        // generator's file, which stays, could bring one back.
        auto states = units.empty() ? Result<std::vector<UnitState>>(std::vector<UnitState>{})
                                    : statesLoadingOnly(bus, units, [&](const std::string& unit) {
                                          return generatedUnit(options, unit);
                                      });
        if (!states) {
            return states.error();
        }
        for (std::size_t i = 0; i < units.size(); ++i) {
            const std::string& unit = units[i];
            const UnitState& state = states.value()[i];
            if (state.loadState != "loaded") {
                continue;
            }
            auto fragment = bus.stringProperty(state.path, kUnitInterface, "FragmentPath");
            if (fragment.ok() && !ownFragment(options, unit, fragment.value())) {
                continue;
            }
            auto stale =
                bus.trivialProperty<int>(state.path, kUnitInterface, "NeedDaemonReload", 'b');
            const bool generated =
                fragment.ok() && inGeneratorDirectory(options, unit, fragment.value());
            if (((stale.ok() && stale.value() != 0) || generated) && attempt == 0) {
                reload = true;
                continue;
            }
            return Error{kErrorDomain, EBUSY,
                         "The service manager still has " + unit + " loaded after removal" +
                             (fragment.ok() ? " (from '" + fragment.value() + "')" : "")};
        }
        if (!reload) {
            return {};
        }
        if (Status s = bus.managerCall("Reload"); !s) {
            return s;
        }
    }
    return {};
}

Status loadUnits(ManagerBus& bus, const std::vector<std::string>& units) {
    for (int attempt = 0; attempt < 2; ++attempt) {
        bool reload = false;
        for (const auto& unit : units) {
            auto path = bus.loadUnit(unit);
            if (!path) {
                return path.error();
            }
            auto stale =
                bus.trivialProperty<int>(path.value(), kUnitInterface, "NeedDaemonReload", 'b');
            if (!stale) {
                return stale.error();
            }
            if (stale.value() != 0 && attempt == 0) {
                reload = true;
                continue;
            }
            auto load = bus.stringProperty(path.value(), kUnitInterface, "LoadState");
            if (!load) {
                return load.error();
            }
            if (load.value() != "loaded") {
                return Error{kErrorDomain, EINVAL,
                             "The service manager did not load " + unit + " (" + load.value() +
                                 "): " + bus.loadError(path.value())};
            }
        }
        if (!reload) {
            return {};
        }
        if (Status s = bus.managerCall("Reload"); !s) {
            return s;
        }
    }
    return {};
}

}  // namespace tessary::linux_backend
