#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

namespace tessary::linux_backend {

// Owning handles for libsystemd objects.
struct SdEventUnref {
    void operator()(sd_event* e) const { sd_event_unref(e); }
};
struct SdEventSourceUnref {
    // Disabling first guarantees the callback can never run again, even if
    // libsystemd keeps the object alive a little longer.
    void operator()(sd_event_source* s) const { sd_event_source_disable_unref(s); }
};
struct SdBusUnref {
    void operator()(sd_bus* b) const { sd_bus_flush_close_unref(b); }
};
struct SdBusMessageUnref {
    void operator()(sd_bus_message* m) const { sd_bus_message_unref(m); }
};
struct SdBusSlotUnref {
    void operator()(sd_bus_slot* s) const { sd_bus_slot_unref(s); }
};

using SdEventPtr = std::unique_ptr<sd_event, SdEventUnref>;
using SdEventSourcePtr = std::unique_ptr<sd_event_source, SdEventSourceUnref>;
using SdBusPtr = std::unique_ptr<sd_bus, SdBusUnref>;
using SdBusMessagePtr = std::unique_ptr<sd_bus_message, SdBusMessageUnref>;
using SdBusSlotPtr = std::unique_ptr<sd_bus_slot, SdBusSlotUnref>;

// sd_bus_error is a value with owned strings inside.
class SdBusError {
  public:
    SdBusError() = default;
    SdBusError(const SdBusError&) = delete;
    SdBusError& operator=(const SdBusError&) = delete;
    ~SdBusError() { sd_bus_error_free(&error_); }
    sd_bus_error* get() { return &error_; }
    const char* name() const { return error_.name; }
    const char* message() const { return error_.message; }
    bool isSet() const { return sd_bus_error_is_set(&error_) != 0; }

  private:
    // What SD_BUS_ERROR_NULL spells as a C compound literal.
    sd_bus_error error_{nullptr, nullptr, 0};
};

// A D-Bus address for `address`: a socket path (beginning with "/") becomes
// "unix:path=" with every byte outside the few that may stand as they are
// %-escaped; anything else is taken to be an address already.
inline std::string busAddressFor(const std::string& address) {
    if (address.empty() || address.front() != '/') {
        return address;
    }
    std::string out = "unix:path=";
    for (const char ch : address) {
        const auto c = static_cast<unsigned char>(ch);
        if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
            std::strchr("-_/.\\*", c) != nullptr) {
            out += ch;
        } else {
            char buf[4];
            (void)std::snprintf(buf, sizeof buf, "%%%02x", c);
            out += buf;
        }
    }
    return out;
}

// Opens a connection to the bus at `address`: with `busClient` to a bus
// daemon (the system bus, a session bus), without it straight to a peer such
// as the service manager's private socket. A zero `callTimeout` keeps
// sd-bus's own. 0, or the negative errno of the step that failed.
inline int openBus(const std::string& address, bool busClient,
                   std::chrono::microseconds callTimeout, SdBusPtr& out) {
    sd_bus* raw = nullptr;
    int r = sd_bus_new(&raw);
    if (r < 0) {
        return r;
    }
    SdBusPtr bus(raw);
    if ((r = sd_bus_set_address(raw, address.c_str())) < 0 ||
        (busClient && (r = sd_bus_set_bus_client(raw, 1)) < 0) ||
        (callTimeout.count() > 0 &&
         (r = sd_bus_set_method_call_timeout(
              raw, static_cast<std::uint64_t>(callTimeout.count()))) < 0) ||
        (r = sd_bus_start(raw)) < 0) {
        return r;
    }
    out = std::move(bus);
    return 0;
}

}  // namespace tessary::linux_backend
