#include "job_check.h"

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <string>

#include "json_text.h"
#include "platform/linux/sd_handles.h"
#include "platform/paths.h"

namespace tessary::client {

namespace {

using linux_backend::JobCheck;
using linux_backend::ResourceLimit;

constexpr auto kCallTimeout = std::chrono::seconds(5);

// The system manager: on the system bus, or on its private socket for root
// when the bus has none.
linux_backend::SdBusPtr systemManager() {
    sd_bus* raw = nullptr;
    if (sd_bus_open_system(&raw) >= 0) {
        linux_backend::SdBusPtr bus(raw);
        linux_backend::SdBusError error;
        if (sd_bus_call_method(bus.get(), "org.freedesktop.systemd1", "/org/freedesktop/systemd1",
                               "org.freedesktop.DBus.Peer", "Ping", error.get(), nullptr,
                               nullptr) >= 0) {
            return bus;
        }
    }
    linux_backend::SdBusPtr bus;
    if (::geteuid() == 0) {
        const std::string address = "unix:path=" + Paths("/").systemdPrivateSocket();
        (void)linux_backend::openBus(address, false, kCallTimeout, bus);
    }
    return bus;
}

std::optional<ResourceLimit> defaultLimit(sd_bus* bus, std::string_view directive) {
    ResourceLimit limit;
    const std::string hard = "Default" + std::string(directive);
    for (auto [name, value] : {std::pair{hard, &limit.hard}, {hard + "Soft", &limit.soft}}) {
        linux_backend::SdBusError error;
        if (bus == nullptr ||
            sd_bus_get_property_trivial(
                bus, "org.freedesktop.systemd1", "/org/freedesktop/systemd1",
                "org.freedesktop.systemd1.Manager", name.c_str(), error.get(), 't', value) < 0) {
            return std::nullopt;
        }
    }
    return limit;
}

// The job as the daemon submits it: its own keys taken out, the install
// prefix in its environment.
plist::Value asSubmitted(const plist::Value& definition) {
    plist::Dictionary job = plist::dictionaryOf(&definition);
    for (const char* key : {"Disabled", "Transient", "PreventsSleep", "UnloadOnSleep"}) {
        job.erase(key);
    }
    plist::Dictionary env = plist::dictionaryOf(definition.find("EnvironmentVariables"));
    env.insert_or_assign("TESSARY_INSTALL_PATH_PREFIX", plist::Value(Paths::kInstallPathPrefix));
    job.insert_or_assign("EnvironmentVariables", plist::Value(std::move(env)));
    return plist::Value(std::move(job));
}

}  // namespace

linux_backend::TranslationOptions hostTranslationOptions() {
    auto bus = std::make_shared<linux_backend::SdBusPtr>();
    auto asked = std::make_shared<bool>(false);
    return {std::string(Paths::kHelperBinDirectory),
            [bus, asked](std::string_view directive) {
                if (!*asked) {
                    *bus = systemManager();
                    *asked = true;
                }
                return defaultLimit(bus->get(), directive);
            },
            linux_backend::servicesDatabasePort};
}

int printJobCheck(const plist::Value& definition, bool json) {
    const JobCheck check =
        linux_backend::checkJob(asSubmitted(definition), hostTranslationOptions());
    if (json) {
        std::string out = "{\"label\":";
        const std::string* label = definition.stringAt("Label");
        appendJsonString(out, label != nullptr ? *label : "");
        out += check.translation ? ",\"runs\":true,\"units\":[" : ",\"runs\":false,\"units\":[";
        if (check.translation) {
            bool first = true;
            for (const auto& unit : check.translation->units) {
                out += first ? "{\"name\":" : ",{\"name\":";
                first = false;
                appendJsonString(out, unit.name);
                out += ",\"text\":";
                appendJsonString(out, unit.text);
                out += "}";
            }
        }
        out += "],\"findings\":[";
        for (std::size_t i = 0; i < check.findings.size(); ++i) {
            const auto& f = check.findings[i];
            out += i == 0 ? "{\"key\":" : ",{\"key\":";
            appendJsonString(out, f.key);
            out += ",\"kind\":";
            appendJsonString(out, linux_backend::findingKindName(f.kind));
            out += ",\"reason\":";
            appendJsonString(out, f.reason);
            out += "}";
        }
        out += "]}";
        (void)std::printf("%s\n", out.c_str());
    } else {
        if (check.translation) {
            for (const auto& unit : check.translation->units) {
                (void)std::printf("# %s/%s\n%s\n",
                                  std::string(Paths::kSystemdUnitDirectory).c_str(),
                                  unit.name.c_str(), unit.text.c_str());
            }
        }
        for (const auto& f : check.findings) {
            (void)std::printf("%s: %s%s%s\n", linux_backend::findingKindName(f.kind), f.key.c_str(),
                              f.key.empty() ? "" : ": ", f.reason.c_str());
        }
    }
    if (std::fflush(stdout) != 0) {
        return 1;
    }
    return check.translation ? 0 : 1;
}

std::optional<std::string> jobRefusal(const plist::Value& definition) {
    auto translation =
        linux_backend::translateJob(asSubmitted(definition), hostTranslationOptions());
    if (translation) {
        return std::nullopt;
    }
    return translation.error().description;
}

}  // namespace tessary::client
