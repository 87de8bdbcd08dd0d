#pragma once

#include "platform/authorization_service.h"
#include "platform/backup_exclusion_service.h"
#include "platform/bundle_info.h"
#include "platform/code_signing_service.h"
#include "platform/file_events.h"
#include "platform/file_operations.h"
#include "platform/main_queue.h"
#include "platform/message_service.h"
#include "platform/paths.h"
#include "platform/power_assertion_service.h"
#include "platform/process_control.h"
#include "platform/process_exit_watch.h"
#include "platform/product_info.h"
#include "platform/running_applications.h"
#include "platform/service_manager_client.h"
#include "platform/system_log.h"
#include "platform/system_power_notifier.h"
#include "platform/user_notice_service.h"

namespace tessary {

// Every platform role the supervisor and its objects use, handed to the
// supervisor at construction. The daemon's entry point fills it with the
// Linux backends; tests with the doubles.
struct Platform {
    const Paths& paths;
    SystemLog& log;
    MainQueue& queue;
    ProcessControl& process;
    FileOperations& files;
    ServiceManagerClient& serviceManager;
    AuthorizationService& authorization;
    CodeSigningService& codeSigning;
    MessageService& messages;
    PowerAssertionService& powerAssertions;
    SystemPowerNotifier& powerNotifier;
    UserNoticeService& notices;
    BackupExclusionService& backupExclusion;
    ProductInfo& productInfo;
    BundleInfo& bundleInfo;
    ProcessExitWatch& exitWatch;
    RunningApplications& runningApplications;
    FileEvents& fileEvents;
    FileCoordination& fileCoordination;
};

}  // namespace tessary
