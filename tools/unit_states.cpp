#include "unit_states.h"

#include <unistd.h>

#include <chrono>
#include <optional>
#include <set>
#include <string_view>
#include <unordered_map>

#include "platform/linux/sd_handles.h"
#include "platform/linux/systemd/unit_translation.h"
#include "platform/paths.h"

namespace tessary::client {

namespace {

// Unit name to its active state.
using ActiveStates = std::unordered_map<std::string, std::string>;

constexpr auto kCallTimeout = std::chrono::seconds(5);

// Every unit the manager holds, by ListUnits: one call however many services
// there are, and one that no name can make fail, as a question by names does
// when a single one is not a unit name. A unit the manager does not hold is
// inactive. Nothing when the manager could not be asked.
std::optional<ActiveStates> listUnits(sd_bus* bus) {
    sd_bus_message* rawReply = nullptr;
    linux_backend::SdBusError error;
    sd_bus_message* raw = nullptr;
    if (sd_bus_message_new_method_call(bus, &raw, "org.freedesktop.systemd1",
                                       "/org/freedesktop/systemd1",
                                       "org.freedesktop.systemd1.Manager", "ListUnits") < 0) {
        return std::nullopt;
    }
    linux_backend::SdBusMessagePtr call(raw);
    if (sd_bus_call(bus, call.get(),
                    std::chrono::duration_cast<std::chrono::microseconds>(kCallTimeout).count(),
                    error.get(), &rawReply) < 0) {
        return std::nullopt;
    }
    linux_backend::SdBusMessagePtr reply(rawReply);
    if (sd_bus_message_enter_container(reply.get(), SD_BUS_TYPE_ARRAY, "(ssssssouso)") <= 0) {
        return std::nullopt;
    }
    // Field by field: a list of many services reads every unit the manager
    // holds, and a read by signature would parse the signature for each.
    ActiveStates units;
    for (;;) {
        int r = sd_bus_message_enter_container(reply.get(), SD_BUS_TYPE_STRUCT, "ssssssouso");
        if (r <= 0) {
            break;
        }
        constexpr std::string_view kTypes = "ssssssouso";
        const char* fields[kTypes.size()] = {};
        std::uint32_t jobId = 0;
        for (std::size_t i = 0; r >= 0 && i < kTypes.size(); ++i) {
            r = sd_bus_message_read_basic(
                reply.get(), kTypes[i],
                kTypes[i] == 'u' ? static_cast<void*>(&jobId) : static_cast<void*>(&fields[i]));
        }
        if (r < 0 || sd_bus_message_exit_container(reply.get()) < 0) {
            break;
        }
        units.emplace(fields[0], fields[3]);
    }
    return units;
}

bool isUp(const std::string& activeState) {
    return activeState == "active" || activeState == "activating" || activeState == "reloading" ||
           activeState == "deactivating";
}

}  // namespace

std::map<std::string, std::string> unitStates(const std::vector<std::string>& labels) {
    std::map<std::string, std::string> out;
    std::set<std::string> valid;
    for (const std::string& label : labels) {
        if (linux_backend::checkJobLabel(label)) {
            valid.insert(label);
        } else {
            // No unit can carry it: the daemon never submits its job.
            out.emplace(label, "invalid");
        }
    }
    if (valid.empty()) {
        return out;
    }
    std::optional<ActiveStates> units;
    sd_bus* raw = nullptr;
    if (sd_bus_open_system(&raw) >= 0) {
        linux_backend::SdBusPtr bus(raw);
        units = listUnits(bus.get());
    }
    if (!units && ::geteuid() == 0) {
        linux_backend::SdBusPtr bus;
        const std::string address = "unix:path=" + Paths("/").systemdPrivateSocket();
        if (linux_backend::openBus(address, false, kCallTimeout, bus) >= 0) {
            units = listUnits(bus.get());
        }
    }
    if (!units) {
        return out;
    }
    // The jobs that serve each connection with an instance of their template
    // service (LABEL@INSTANCE.service) and have one up. A label may hold '@'
    // itself, so every '@' of the name is tried as the label's end.
    std::set<std::string> serving;
    for (const auto& [name, active] : *units) {
        if (!name.ends_with(".service") || !isUp(active)) {
            continue;
        }
        for (std::size_t at = name.find('@'); at != std::string::npos;
             at = name.find('@', at + 1)) {
            if (valid.contains(name.substr(0, at))) {
                serving.insert(name.substr(0, at));
            }
        }
    }
    // One name at a time in one buffer: a list of many services looks up
    // four units for each.
    std::string unit;
    const std::string inactive = "inactive";
    const auto stateOf = [&](const std::string& label,
                             std::string_view suffix) -> const std::string& {
        unit.assign(label).append(suffix);
        auto it = units->find(unit);
        return it != units->end() ? it->second : inactive;
    };
    for (const std::string& label : valid) {
        const std::string& service = stateOf(label, ".service");
        const std::string& socket = stateOf(label, ".socket");
        const std::string& timer = stateOf(label, ".timer");
        const std::string& path = stateOf(label, ".path");
        std::string state = "stopped";
        if (service == "failed" || socket == "failed" || timer == "failed" || path == "failed") {
            state = "failed";
        } else if (isUp(service) || serving.contains(label)) {
            state = "running";
        } else if (isUp(socket)) {
            state = "waiting for a connection";
        } else if (isUp(timer)) {
            state = "waiting for its timer";
        } else if (isUp(path)) {
            state = "waiting for a path";
        }
        out.emplace(label, std::move(state));
    }
    return out;
}

}  // namespace tessary::client
