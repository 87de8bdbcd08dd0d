#include "unit_states.h"

#include <unistd.h>

#include <chrono>
#include <optional>

#include "platform/linux/sd_handles.h"
#include "platform/paths.h"

namespace tessary::client {

namespace {

struct Unit {
    std::string loadState;
    std::string activeState;
};

constexpr auto kCallTimeout = std::chrono::seconds(5);

// The states of the units systemd has in memory, by name, or none when the
// manager could not be asked. ListUnits answers without loading any unit,
// where ListUnitsByNames loads each unit it is asked about: every unit
// loaded just to answer "not found" is announced to each client that follows
// systemd's signals (the Cockpit page does, and reads the list again then).
std::optional<std::map<std::string, Unit>> listUnits(sd_bus* bus) {
    sd_bus_message* raw = nullptr;
    if (sd_bus_message_new_method_call(bus, &raw, "org.freedesktop.systemd1",
                                       "/org/freedesktop/systemd1",
                                       "org.freedesktop.systemd1.Manager", "ListUnits") < 0) {
        return std::nullopt;
    }
    linux_backend::SdBusMessagePtr call(raw);
    sd_bus_message* rawReply = nullptr;
    linux_backend::SdBusError error;
    if (sd_bus_call(bus, call.get(),
                    std::chrono::duration_cast<std::chrono::microseconds>(kCallTimeout).count(),
                    error.get(), &rawReply) < 0) {
        return std::nullopt;
    }
    linux_backend::SdBusMessagePtr reply(rawReply);
    if (sd_bus_message_enter_container(reply.get(), SD_BUS_TYPE_ARRAY, "(ssssssouso)") <= 0) {
        return std::nullopt;
    }
    std::map<std::string, Unit> units;
    const char* name = nullptr;
    const char* description = nullptr;
    const char* load = nullptr;
    const char* active = nullptr;
    const char* sub = nullptr;
    const char* following = nullptr;
    const char* path = nullptr;
    std::uint32_t jobId = 0;
    const char* jobType = nullptr;
    const char* jobPath = nullptr;
    while (sd_bus_message_read(reply.get(), "(ssssssouso)", &name, &description, &load, &active,
                               &sub, &following, &path, &jobId, &jobType, &jobPath) > 0) {
        units.insert_or_assign(name, Unit{load, active});
    }
    return units;
}

bool isUp(const Unit& u) {
    return u.activeState == "active" || u.activeState == "activating" ||
           u.activeState == "reloading" || u.activeState == "deactivating";
}

}  // namespace

std::map<std::string, std::string> unitStates(const std::vector<std::string>& labels) {
    std::map<std::string, std::string> out;
    if (labels.empty()) {
        return out;
    }
    std::optional<std::map<std::string, Unit>> units;
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
    // A unit systemd does not have in memory is neither up nor failed.
    const auto unitOf = [&units](const std::string& name) {
        auto found = units->find(name);
        return found != units->end() ? found->second : Unit{};
    };
    for (const std::string& label : labels) {
        const Unit service = unitOf(label + ".service");
        const Unit socket = unitOf(label + ".socket");
        const Unit timer = unitOf(label + ".timer");
        const Unit path = unitOf(label + ".path");
        // The instances of the template service of a job that serves each
        // connection: LABEL@....service, next to each other in name order.
        const std::string instance = label + "@";
        bool connection = false;
        for (auto it = units->lower_bound(instance);
             it != units->end() && it->first.starts_with(instance); ++it) {
            connection = connection || (it->first.ends_with(".service") && isUp(it->second));
        }
        std::string state = "stopped";
        if (service.activeState == "failed" || socket.activeState == "failed" ||
            timer.activeState == "failed" || path.activeState == "failed") {
            state = "failed";
        } else if (isUp(service) || connection) {
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
