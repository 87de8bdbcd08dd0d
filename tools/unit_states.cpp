#include "unit_states.h"

#include <unistd.h>

#include <chrono>
#include <optional>

#include "platform/linux/sd_handles.h"
#include "platform/paths.h"

namespace tessary::client {

namespace {

struct Unit {
    std::string name;
    std::string loadState;
    std::string activeState;
};

constexpr auto kCallTimeout = std::chrono::seconds(5);

// The units a ListUnits method of the manager answers: by name (`patterns`
// false: the load and active states of `names`, in their order) or by shell
// pattern (only the units the manager has that match); none when the manager
// could not be asked.
std::optional<std::vector<Unit>> listUnits(sd_bus* bus, const std::vector<std::string>& names,
                                           bool patterns = false) {
    sd_bus_message* raw = nullptr;
    if (sd_bus_message_new_method_call(bus, &raw, "org.freedesktop.systemd1",
                                       "/org/freedesktop/systemd1",
                                       "org.freedesktop.systemd1.Manager",
                                       patterns ? "ListUnitsByPatterns" : "ListUnitsByNames") < 0) {
        return std::nullopt;
    }
    linux_backend::SdBusMessagePtr call(raw);
    std::vector<const char*> strv;
    strv.reserve(names.size() + 1);
    for (const std::string& n : names) {
        strv.push_back(n.c_str());
    }
    strv.push_back(nullptr);
    const char* anyState[] = {nullptr};
    if ((patterns && sd_bus_message_append_strv(call.get(), const_cast<char**>(anyState)) < 0) ||
        sd_bus_message_append_strv(call.get(), const_cast<char**>(strv.data())) < 0) {
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
        units.push_back({name, load, active});
    }
    if (!patterns && units.size() != names.size()) {
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
    // Each job's service, socket, timer and path unit; and the instances of
    // the template service of a job that serves each connection.
    constexpr std::size_t kUnits = 4;
    std::vector<std::string> names;
    std::vector<std::string> instances;
    for (const std::string& label : labels) {
        for (const char* suffix : {".service", ".socket", ".timer", ".path"}) {
            names.push_back(label + suffix);
        }
        instances.push_back(label + "@*.service");
    }
    std::optional<std::vector<Unit>> units;
    std::optional<std::vector<Unit>> serving;
    auto ask = [&](sd_bus* bus) {
        units = listUnits(bus, names);
        serving = units ? listUnits(bus, instances, true) : std::nullopt;
    };
    sd_bus* raw = nullptr;
    if (sd_bus_open_system(&raw) >= 0) {
        linux_backend::SdBusPtr bus(raw);
        ask(bus.get());
    }
    if (!units && ::geteuid() == 0) {
        linux_backend::SdBusPtr bus;
        const std::string address = "unix:path=" + Paths("/").systemdPrivateSocket();
        if (linux_backend::openBus(address, false, kCallTimeout, bus) >= 0) {
            ask(bus.get());
        }
    }
    if (!units) {
        return out;
    }
    for (std::size_t i = 0; i < labels.size(); ++i) {
        const Unit* unit = &(*units)[kUnits * i];
        const Unit& service = unit[0];
        const Unit& socket = unit[1];
        const Unit& timer = unit[2];
        const Unit& path = unit[3];
        bool connection = false;
        for (const Unit& instance : serving.value_or(std::vector<Unit>{})) {
            connection =
                connection || (instance.name.starts_with(labels[i] + "@") && isUp(instance));
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
        out.emplace(labels[i], std::move(state));
    }
    return out;
}

}  // namespace tessary::client
