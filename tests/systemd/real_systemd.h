#pragma once

#include <gtest/gtest.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <optional>
#include <string>
#include <thread>

#include "platform/linux/sd_handles.h"

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
        if (sd_bus_new(&raw) < 0) {
            return;
        }
        bus_.reset(raw);
        if (sd_bus_set_address(raw, (std::string("unix:path=") + kManagerSocket).c_str()) < 0 ||
            sd_bus_start(raw) < 0) {
            bus_.reset();
        }
    }
    bool connected() const { return bus_ != nullptr; }

    // The unit's object path. The manager drops units that are neither
    // running nor referenced, so this loads the unit from its file again when
    // needed (LoadState "not-found" when there is none).
    std::optional<std::string> unitPath(const std::string& unit) {
        linux_backend::SdBusError error;
        sd_bus_message* raw = nullptr;
        const int r = sd_bus_call_method(
            bus_.get(), "org.freedesktop.systemd1", "/org/freedesktop/systemd1",
            "org.freedesktop.systemd1.Manager", "LoadUnit", error.get(), &raw, "s", unit.c_str());
        linux_backend::SdBusMessagePtr reply(raw);
        const char* path = nullptr;
        if (r < 0 || sd_bus_message_read(raw, "o", &path) < 0) {
            return std::nullopt;
        }
        return std::string(path);
    }

    // A string property of the unit; "" when the manager does not have it.
    std::string property(const std::string& unit, const char* name,
                         const char* interface = "org.freedesktop.systemd1.Unit") {
        auto path = unitPath(unit);
        if (!path) {
            return "";
        }
        linux_backend::SdBusError error;
        char* value = nullptr;
        if (sd_bus_get_property_string(bus_.get(), "org.freedesktop.systemd1", path->c_str(),
                                       interface, name, error.get(), &value) < 0) {
            return "";
        }
        std::string out = value;
        std::free(value);
        return out;
    }

    std::optional<std::uint64_t> u64Property(const std::string& unit, const char* interface,
                                             const char* name) {
        auto path = unitPath(unit);
        std::uint64_t value = 0;
        linux_backend::SdBusError error;
        if (!path ||
            sd_bus_get_property_trivial(bus_.get(), "org.freedesktop.systemd1", path->c_str(),
                                        interface, name, error.get(), 't', &value) < 0) {
            return std::nullopt;
        }
        return value;
    }

    // Queues a start of the unit; true once the manager took the job.
    bool start(const std::string& unit) {
        linux_backend::SdBusError error;
        sd_bus_message* raw = nullptr;
        const int r =
            sd_bus_call_method(bus_.get(), "org.freedesktop.systemd1", "/org/freedesktop/systemd1",
                               "org.freedesktop.systemd1.Manager", "StartUnit", error.get(), &raw,
                               "ss", unit.c_str(), "replace");
        linux_backend::SdBusMessagePtr reply(raw);
        return r >= 0;
    }

    bool loaded(const std::string& unit) { return property(unit, "LoadState") == "loaded"; }
    std::string activeState(const std::string& unit) { return property(unit, "ActiveState"); }

  private:
    linux_backend::SdBusPtr bus_;
};

// Polls `done` until it holds or `timeout` passes.
inline bool eventually(const std::function<bool()>& done,
                       std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
    const auto end = std::chrono::steady_clock::now() + timeout;
    while (!done()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

// Base of every test that needs the real manager: skipped, saying why, when
// not root, when not inside with-systemd.sh (the machine's own manager is
// never touched), or when nothing answers at the manager's socket.
class RealSystemdTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (std::getenv("TESSARY_PRIVATE_SYSTEMD") == nullptr) {
            GTEST_SKIP() << "not inside tests/systemd/with-systemd.sh; the machine's own "
                            "systemd is never used (CTest label \"systemd\" runs it there)";
        }
        if (::geteuid() != 0) {
            GTEST_SKIP() << "needs root and a private systemd: run it through "
                            "tests/systemd/with-systemd.sh (CTest label \"systemd\")";
        }
        if (!manager.connected()) {
            GTEST_SKIP() << "no systemd answers at " << kManagerSocket
                         << ": run it through tests/systemd/with-systemd.sh";
        }
    }

    ManagerView manager;
};

}  // namespace tessary::testing
