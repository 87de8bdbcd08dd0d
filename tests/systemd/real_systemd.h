#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "doubles/recording_system_log.h"
#include "platform/linux/systemd/systemd_service_manager.h"
#include "support/process.h"
#include "support/test_platform.h"

namespace tessary::testing {

// The manager the tests run beside, at the system manager's fixed addresses.
// CTest runs the tier "systemd" through tests/systemd/with-systemd.sh, which
// puts a real systemd there inside a private namespace, and
// with-private-library.sh, which adds a private /Library and a /dev/log whose
// lines go to the file TESSARY_TEST_SYSLOG names.
inline constexpr const char* kManagerSocket = "/run/systemd/private";
inline constexpr const char* kManagerUnitDirectory = "/run/systemd/system";

// A property of a unit, as systemctl reads it from the manager. The read
// makes the manager load the unit from its file again if it had dropped it
// (LoadState "not-found" when there is none).
inline std::string unitProperty(const std::string& unit, const std::string& name) {
    return commandOutput("systemctl --user show --value -p " + name + " " + unit);
}

inline bool unitFileExists(const std::string& unit) {
    std::error_code ec;  // a name too long for a path is no file either
    return std::filesystem::exists(std::string(kManagerUnitDirectory) + "/" + unit, ec);
}

// The backend on the real manager, with the project's jobtool and syslog
// first on every job's PATH, and a supervisor's platform around it. Each
// test's labels are its own, so that what a failed test leaves behind (the
// manager goes when the binary ends) is in no other test's way.
class RealSystemdTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (std::getenv("TESSARY_TEST_SYSLOG") == nullptr || ::geteuid() != 0) {
            GTEST_SKIP() << "needs root, a private systemd and a private /Library: run it "
                            "through tests/systemd/with-systemd.sh and "
                            "with-private-library.sh (CTest label \"systemd\")";
        }
        std::filesystem::create_directories(helpers);
        std::filesystem::create_symlink(JOBTOOL, helpers + "/jobtool");
        std::filesystem::create_symlink(SYSLOG_COMMAND, helpers + "/syslog");
    }

    static std::string label(const std::string& suffix = "job") {
        return std::string("com.tessary.test.") +
               ::testing::UnitTest::GetInstance()->current_test_info()->name() + "." + suffix;
    }
    static std::string state(const std::string& unit) { return unitProperty(unit, "ActiveState"); }
    static std::string loadState(const std::string& unit) {
        return unitProperty(unit, "LoadState");
    }

    TempDir dir;
    std::string helpers = dir / "bin";
    RecordingSystemLog log;
    linux_backend::SystemdServiceManager backend{{kManagerSocket, kManagerUnitDirectory, helpers},
                                                 log};
    TestPlatform doubles{&backend};
    AuthorizationRef auth = doubles.authorization.create({}, 0).authorization;
};

}  // namespace tessary::testing
