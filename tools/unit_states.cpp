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

// The load and active states of `names`, in their order, or none when the
// manager could not be asked.
std::optional<std::vector<Unit>> listUnits(sd_bus* bus, const std::vector<std::string>& names) {
    sd_bus_message* raw = nullptr;
    if (sd_bus_message_new_method_call(
            bus, &raw, "org.freedesktop.systemd1", "/org/freedesktop/systemd1",
            "org.freedesktop.systemd1.Manager", "ListUnitsByNames") < 0) {
        return std::nullopt;
    }
    linux_backend::SdBusMessagePtr call(raw);
    std::vector<const char*> strv;
    strv.reserve(names.size() + 1);
    for (const std::string& n : names) {
        strv.push_back(n.c_str());
    }
    strv.push_back(nullptr);
    if (sd_bus_message_append_strv(call.get(), const_cast<char**>(strv.data())) < 0) {
        return std::nullopt;
    }
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
    std::vector<Unit> units;
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
        units.push_back({load, active});
    }
    if (units.size() != names.size()) {
        return std::nullopt;
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
    std::vector<std::string> names;
    for (const std::string& label : labels) {
        for (const char* suffix : {".service", ".socket", ".timer"}) {
            names.push_back(label + suffix);
        }
    }
    std::optional<std::vector<Unit>> units;
    sd_bus* raw = nullptr;
    if (sd_bus_open_system(&raw) >= 0) {
        linux_backend::SdBusPtr bus(raw);
        units = listUnits(bus.get(), names);
    }
    if (!units && ::geteuid() == 0) {
        linux_backend::SdBusPtr bus;
        const std::string address = "unix:path=" + Paths("/").systemdPrivateSocket();
        if (linux_backend::openBus(address, false, kCallTimeout, bus) >= 0) {
            units = listUnits(bus.get(), names);
        }
    }
    if (!units) {
        return out;
    }
    for (std::size_t i = 0; i < labels.size(); ++i) {
        const Unit& service = (*units)[3 * i];
        const Unit& socket = (*units)[3 * i + 1];
        const Unit& timer = (*units)[3 * i + 2];
        std::string state = "stopped";
        if (service.activeState == "failed" || socket.activeState == "failed" ||
            timer.activeState == "failed") {
            state = "failed";
        } else if (isUp(service)) {
            state = "running";
        } else if (isUp(socket)) {
            state = "waiting for a connection";
        } else if (isUp(timer)) {
            state = "waiting for its timer";
        }
        out.emplace(labels[i], std::move(state));
    }
    return out;
}

}  // namespace tessary::client
