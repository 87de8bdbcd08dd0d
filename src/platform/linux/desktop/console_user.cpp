#include "platform/linux/desktop/console_user.h"

#include <cstdlib>
#include <memory>

#include "base/malloc_ptr.h"

namespace tessary::linux_backend {

namespace {

constexpr const char* kLogind = "org.freedesktop.login1";
constexpr const char* kManagerPath = "/org/freedesktop/login1";
constexpr const char* kManagerInterface = "org.freedesktop.login1.Manager";
constexpr const char* kSeatInterface = "org.freedesktop.login1.Seat";
constexpr const char* kSessionInterface = "org.freedesktop.login1.Session";
constexpr const char* kUserInterface = "org.freedesktop.login1.User";

std::optional<std::string> stringProperty(sd_bus* bus, const char* path, const char* interface,
                                          const char* name) {
    char* raw = nullptr;
    if (sd_bus_get_property_string(bus, kLogind, path, interface, name, nullptr, &raw) < 0) {
        return std::nullopt;
    }
    MallocPtr<char> value(raw);
    return std::string(value.get());
}

// The reply to a Get of a property of type `type`, entered into its variant;
// null when logind does not answer it.
SdBusMessagePtr property(sd_bus* bus, const char* path, const char* interface, const char* name,
                         const char* type) {
    sd_bus_message* raw = nullptr;
    if (sd_bus_get_property(bus, kLogind, path, interface, name, nullptr, &raw, type) < 0) {
        return nullptr;
    }
    return SdBusMessagePtr(raw);
}

}  // namespace

int connectToBus(const std::string& address, std::chrono::milliseconds limit, SdBusPtr& out) {
    return openBus(address, true, std::chrono::duration_cast<std::chrono::microseconds>(limit),
                   out);
}

std::optional<ConsoleUser> findConsoleUser(const std::string& systemBusAddress,
                                           std::chrono::milliseconds limit) {
    SdBusPtr bus;
    if (connectToBus(systemBusAddress, limit, bus) < 0) {
        return std::nullopt;
    }
    sd_bus_message* raw = nullptr;
    if (sd_bus_call_method(bus.get(), kLogind, kManagerPath, kManagerInterface, "GetSeat", nullptr,
                           &raw, "s", "seat0") < 0) {
        return std::nullopt;
    }
    SdBusMessagePtr seatReply(raw);
    const char* seat = nullptr;
    if (sd_bus_message_read(raw, "o", &seat) < 0) {
        return std::nullopt;
    }

    // No active session is ("", "/").
    const SdBusMessagePtr active =
        property(bus.get(), seat, kSeatInterface, "ActiveSession", "(so)");
    const char* sessionId = nullptr;
    const char* sessionPath = nullptr;
    if (!active || sd_bus_message_read(active.get(), "(so)", &sessionId, &sessionPath) < 0 ||
        *sessionId == '\0') {
        return std::nullopt;
    }
    if (stringProperty(bus.get(), sessionPath, kSessionInterface, "Class") != "user") {
        return std::nullopt;
    }
    ConsoleUser user;
    const SdBusMessagePtr owner =
        property(bus.get(), sessionPath, kSessionInterface, "User", "(uo)");
    const char* userPath = nullptr;
    if (!owner || sd_bus_message_read(owner.get(), "(uo)", &user.uid, &userPath) < 0) {
        return std::nullopt;
    }
    if (sd_bus_get_property_trivial(bus.get(), kLogind, userPath, kUserInterface, "GID", nullptr,
                                    'u', &user.gid) < 0) {
        return std::nullopt;
    }
    auto runtimePath = stringProperty(bus.get(), userPath, kUserInterface, "RuntimePath");
    if (!runtimePath || runtimePath->empty()) {
        return std::nullopt;
    }
    user.runtimePath = std::move(*runtimePath);
    return user;
}

}  // namespace tessary::linux_backend
