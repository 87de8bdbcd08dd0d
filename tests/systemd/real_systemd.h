#pragma once

#include <gtest/gtest.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>

#include "platform/linux/sd_handles.h"
#include "support/process.h"

namespace tessary::testing {

// The manager a test runs beside, at the system manager's fixed addresses.
// tests/systemd/with-systemd.sh puts a real systemd there inside a private
// namespace; CTest runs every test labelled "systemd" through it.
inline constexpr const char* kManagerSocket = "/run/systemd/private";
inline constexpr const char* kManagerUnitDirectory = "/run/systemd/system";

// The test's own look at the manager over a connection of its own, so that
// what the code under test did is checked by other means than its own.
class ManagerView {
  public:
    ManagerView() {
        sd_bus* raw = nullptr;
        if (sd_bus_new(&raw) >= 0) {
            bus_.reset(raw);
        }
        if (!bus_ ||
            sd_bus_set_address(raw, (std::string("unix:path=") + kManagerSocket).c_str()) < 0 ||
            sd_bus_start(raw) < 0) {
            bus_.reset();
        }
    }
    bool connected() const { return bus_ != nullptr; }

    // The unit's object path. A read through it makes the manager load the
    // unit from its file again if it had dropped it (LoadState "not-found"
    // when there is none).
    static std::string unitPath(const std::string& unit) {
        char* path = nullptr;
        (void)sd_bus_path_encode("/org/freedesktop/systemd1/unit", unit.c_str(), &path);
        std::string out = path != nullptr ? path : "";
        std::free(path);
        return out;
    }

    // A string property of the unit; "(no answer)" when the manager gives none.
    std::string property(const std::string& unit, const char* name) {
        linux_backend::SdBusError error;
        char* value = nullptr;
        const int r =
            sd_bus_get_property_string(bus_.get(), kService, unitPath(unit).c_str(),
                                       "org.freedesktop.systemd1.Unit", name, error.get(), &value);
        std::string out = r < 0 ? "(no answer)" : value;
        std::free(value);
        return out;
    }
    // A property of a fixed-size type ('t' for std::uint64_t, 'u' for
    // std::uint32_t); 0 when the manager gives none.
    template <typename T>
    T trivialProperty(const std::string& unit, const char* interface, const char* name, char type) {
        linux_backend::SdBusError error;
        T value = 0;
        (void)sd_bus_get_property_trivial(bus_.get(), kService, unitPath(unit).c_str(), interface,
                                          name, error.get(), type, &value);
        return value;
    }

    bool loaded(const std::string& unit) { return property(unit, "LoadState") == "loaded"; }
    std::string activeState(const std::string& unit) { return property(unit, "ActiveState"); }

  private:
    static constexpr const char* kService = "org.freedesktop.systemd1";
    linux_backend::SdBusPtr bus_;
};

// Base of every test that needs the real manager: skipped when not root, not
// inside with-systemd.sh (the machine's own manager is never touched) or when
// nothing answers at the manager's socket.
class RealSystemdTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (std::getenv("TESSARY_PRIVATE_SYSTEMD") == nullptr || ::geteuid() != 0 ||
            !manager.connected()) {
            GTEST_SKIP() << "needs root and a private systemd at " << kManagerSocket
                         << ": run it through tests/systemd/with-systemd.sh (CTest label "
                            "\"systemd\")";
        }
    }

    ManagerView manager;
};

}  // namespace tessary::testing
