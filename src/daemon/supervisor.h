#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "model/guarded.h"
#include "model/model_environment.h"
#include "model/shared_authorization.h"
#include "model/supervised_service.h"
#include "platform/platform.h"
#include "prefs/preferences.h"

namespace tessary {

// The hub: owns the services and runs every decision on the main queue.
class TYSupervisor final : public ServiceOwner {
  public:
    using CommandTable = std::map<std::string, std::string, std::less<>>;

    explicit TYSupervisor(Platform& platform);
    TYSupervisor(const TYSupervisor&) = delete;
    TYSupervisor& operator=(const TYSupervisor&) = delete;

    Platform& platform() const { return platform_; }
    TYSupervisorPreferences& preferences() const { return preferences_; }
    ModelEnvironment& environment() const override { return environment_; }

    // Fields, read and written whole.
    bool drowsy() const override { return drowsy_; }
    void setDrowsy(bool drowsy) { drowsy_ = drowsy; }
    bool isIncompatibleVersion() const { return isIncompatibleVersion_; }
    void setIsIncompatibleVersion(bool v) { isIncompatibleVersion_ = v; }
    std::uint32_t powerAssertion() const { return powerAssertion_; }
    void setPowerAssertion(std::uint32_t id) { powerAssertion_ = id; }
    MainQueue& queue() const { return platform_.queue; }
    ServiceList services() const override { return services_.get(); }
    void setServices(ServiceList services) { services_.set(std::move(services)); }
    CommandTable authorizationRightsForCommands() const { return rights_.get(); }
    void setAuthorizationRightsForCommands(CommandTable t) { rights_.set(std::move(t)); }
    CommandTable requirementsForCommands() const { return requirements_.get(); }
    void setRequirementsForCommands(CommandTable t) { requirements_.set(std::move(t)); }

    // Loading.
    void loadServices();
    ServicePtr serviceWithLabel(std::string_view label) const;
    bool serviceIsEnabled(const TYSupervisedService& service) const;

    // Synchronisation and stopping.
    void syncServices();
    void setServiceEnabled(TYSupervisedService& service, bool enabled);
    void stopAllServices();

  private:
    Platform& platform_;
    mutable TYSupervisorPreferences preferences_;
    SharedAuthorization sharedAuthorization_;
    mutable ModelEnvironment environment_;

    std::atomic<bool> drowsy_{false};
    std::atomic<bool> isIncompatibleVersion_{false};
    std::atomic<std::uint32_t> powerAssertion_{0};
    Guarded<ServiceList> services_;
    Guarded<CommandTable> rights_;
    Guarded<CommandTable> requirements_;
};

}  // namespace tessary
