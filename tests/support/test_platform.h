#pragma once

#include <filesystem>

#include "doubles/fake_authorization_service.h"
#include "doubles/fake_code_signing_service.h"
#include "doubles/fake_desktop.h"
#include "doubles/fake_main_queue.h"
#include "doubles/fake_message_service.h"
#include "doubles/fake_power.h"
#include "doubles/fake_process_control.h"
#include "doubles/fake_service_manager.h"
#include "doubles/fake_watches.h"
#include "doubles/faulty_file_operations.h"
#include "doubles/recording_system_log.h"
#include "platform/platform.h"
#include "plist/codec.h"
#include "support/temp_dir.h"
#include "support/value_printer.h"

namespace tessary::testing {

// Every role as a double, on a temporary root that has the directories a
// real installation has. With `manager` the supervisor uses that service
// manager (a real one) instead of the double.
struct TestPlatform {
    explicit TestPlatform(ServiceManagerClient* manager = nullptr)
        : paths(root.path()), usedServiceManager(manager != nullptr ? *manager : serviceManager) {
        std::filesystem::create_directories(paths.setupDirectory());
        std::filesystem::create_directories(paths.builtInDefinitions());
        std::filesystem::create_directories(
            std::filesystem::path(paths.setupDoneMarker()).parent_path());
    }

    // Writes a service definition into the app's built-in directory.
    void addDefinition(const std::string& fileName, const plist::Value& definition) const {
        auto bytes = plist::encode(definition, plist::Format::Xml).value();
        writeFile(paths.builtInDefinitions() + "/" + fileName,
                  std::string(bytes.begin(), bytes.end()));
    }

    TempDir root;
    Paths paths;
    RecordingSystemLog log;
    FakeMainQueue queue;
    FakeProcessControl process;
    FaultyFileOperations files;
    FakeServiceManager serviceManager;
    FakeAuthorizationService authorization;
    FakeCodeSigningService codeSigning;
    FakeMessageService messages;
    FakePowerAssertions powerAssertions;
    FakeSystemPowerNotifier powerNotifier;
    FakeUserNotices notices;
    FakeBackupExclusion backupExclusion;
    FakeProductInfo productInfo;
    FakeBundleInfo bundleInfo;
    FakeProcessExitWatch exitWatch;
    FakeRunningApplications runningApplications;
    FakeFileEvents fileEvents;
    FakeFileCoordination fileCoordination;
    ServiceManagerClient& usedServiceManager;

    Platform platform{paths,
                      log,
                      queue,
                      process,
                      files,
                      usedServiceManager,
                      authorization,
                      codeSigning,
                      messages,
                      powerAssertions,
                      powerNotifier,
                      notices,
                      backupExclusion,
                      productInfo,
                      bundleInfo,
                      exitWatch,
                      runningApplications,
                      fileEvents,
                      fileCoordination};
};

// A minimal runnable definition.
inline plist::Value definition(const std::string& label, plist::Dictionary extra = {}) {
    extra.insert_or_assign("Label", plist::Value(label));
    if (extra.count("Program") == 0 && extra.count("ProgramArguments") == 0) {
        extra.insert_or_assign(
            "ProgramArguments",
            plist::Value(plist::Array{plist::Value("/bin/sleep"), plist::Value("1000")}));
    }
    return plist::Value(std::move(extra));
}

}  // namespace tessary::testing
