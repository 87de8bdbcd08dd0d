#pragma once

#include <memory>
#include <vector>

#include "model/shared_authorization.h"
#include "platform/power_assertion_service.h"
#include "platform/service_manager_client.h"
#include "platform/system_log.h"
#include "prefs/preferences.h"

namespace tessary {

class TYSupervisedService;
using ServicePtr = std::shared_ptr<TYSupervisedService>;
// The supervisor's service list; null until services are first loaded.
using ServiceList = std::shared_ptr<const std::vector<ServicePtr>>;

// What jobs and services use of the world.
struct ModelEnvironment {
    TYSupervisorPreferences& preferences;
    ServiceManagerClient& serviceManager;
    SystemLog& log;
    SharedAuthorization& authorization;
    PowerAssertionService& powerAssertions;
};

// What a service asks of the supervisor that owns it.
class ServiceOwner {
  public:
    virtual ~ServiceOwner() = default;
    virtual ServiceList services() const = 0;
    virtual bool drowsy() const = 0;
    virtual ModelEnvironment& environment() const = 0;
};

}  // namespace tessary
