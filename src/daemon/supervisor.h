#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "model/guarded.h"
#include "model/model_environment.h"
#include "model/shared_authorization.h"
#include "model/supervised_service.h"
#include "platform/platform.h"
#include "prefs/preferences.h"

namespace tessary {

// One request as the message layer handed it over, unpacked.
struct CommandRequest {
    std::string command;
    std::optional<AuthorizationExternalForm> authorizationForm;
    std::optional<plist::Bytes> arguments;
};

// The watchers live apart from the core; start-up makes them through these.
struct WatcherFactories {
    // Makes and starts the power watcher with its two handlers.
    std::function<void(std::function<void()> willSleep, std::function<void()> didWake)>
        startPowerWatcher;
    // Makes the app watcher for the bundle; none when it cannot (the app is
    // not there). `start` sets the three handlers and starts it.
    struct AppWatcher {
        std::function<void(std::function<void()> willChange, std::function<void()> wasReplaced,
                           std::function<void()> wasRemoved)>
            start;
    };
    std::function<std::optional<AppWatcher>(const std::string& bundlePath)> makeAppWatcher;
};

// The hub: owns the services and runs every decision on the main queue.
class TYSupervisor final : public ServiceOwner {
  public:
    using CommandTable = std::map<std::string, std::string, std::less<>>;
    using Arguments = plist::Dictionary;
    using Handler = std::optional<plist::Dictionary> (TYSupervisor::*)(Arguments&);

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
    // A service that leaves the list gives back its sleep assertion, which
    // would otherwise be held until the daemon exits.
    void setServices(const ServiceList& services);
    CommandTable authorizationRightsForCommands() const { return rights_.get(); }
    void setAuthorizationRightsForCommands(CommandTable t) { rights_.set(std::move(t)); }
    CommandTable requirementsForCommands() const { return requirements_.get(); }
    void setRequirementsForCommands(CommandTable t) { requirements_.set(std::move(t)); }

    // Start-up.
    void init();
    void start();
    void setWatcherFactories(WatcherFactories f) { watchers_ = std::move(f); }
    bool bundleVersionsMatch() const;
    std::string currentSetupStatus() const;

    // The request channel.
    void startRequestListener();
    void handleListenerEvent(const ListenerEvent& event);
    void handlePeerEvent(const std::shared_ptr<MessageConnection>& connection,
                         const PeerEvent& event);
    static std::optional<CommandRequest> unpackRequest(const KeyedMessage* message);
    int performRequest(const std::string& command,
                       const std::optional<AuthorizationExternalForm>& form,
                       const AuditToken& auditToken, std::int32_t senderPid,
                       const std::optional<plist::Bytes>& arguments, plist::Bytes& reply);
    static plist::Dictionary makeReply(int returnCode, const plist::Bytes& reply);
    std::optional<std::string> authorizationRightForCommand(std::string_view command) const;
    std::optional<std::string> requirementForCommand(std::string_view command) const;
    // The handler a command name maps to, or null.
    static Handler handlerForCommand(std::string_view command);

    // Commands.
    std::optional<plist::Dictionary> listWithArguments(Arguments& arguments);
    std::optional<plist::Dictionary> statusWithArguments(Arguments& arguments);
    std::optional<plist::Dictionary> enableWithArguments(Arguments& arguments);
    std::optional<plist::Dictionary> disableWithArguments(Arguments& arguments);
    std::optional<plist::Dictionary> resetWithArguments(Arguments& arguments);
    std::optional<plist::Dictionary> programArgumentsWithArguments(Arguments& arguments);
    std::optional<plist::Dictionary> socketsWithArguments(Arguments& arguments);
    std::optional<plist::Dictionary> startCalendarIntervalsWithArguments(Arguments& arguments);
    std::optional<plist::Dictionary> createWithArguments(Arguments& arguments);
    std::optional<plist::Dictionary> destroyWithArguments(Arguments& arguments);
    std::optional<plist::Dictionary> beginPromotionWithArguments(Arguments& arguments);
    std::optional<plist::Dictionary> endPromotionWithArguments(Arguments& arguments);
    std::optional<plist::Dictionary> restoreServicesWithArguments(Arguments& arguments);
    std::optional<plist::Dictionary> demoteWithArguments(Arguments& arguments);

    // Promotion, demotion and self-update.
    void checkForActivePromotion();
    void checkForUpdate();
    void demote();
    void finishDemotion();
    void update();
    void createPowerAssertion();
    void releasePowerAssertion();

    // Notices and clean-up jobs.
    bool avoidShowingAlert() const;
    void showIncompatibleTessaryVersionAlert() const;
    void showAppReplacementAlert() const;
    void showAppRemovalAlert() const;
    void startUninstallExtrasService();
    void startKillallTessaryAppsService();

    // Loading.
    void loadServices();
    ServicePtr serviceWithLabel(std::string_view label) const;
    bool serviceIsEnabled(const TYSupervisedService& service) const;

    // Synchronisation and stopping.
    void syncServices();
    void setServiceEnabled(TYSupervisedService& service, bool enabled);
    void stopAllServices();

  private:
    std::optional<plist::Dictionary> enable(Arguments& arguments, bool enabled);
    // Whether a line about a malformed request from `uid` may be logged now.
    bool mayReportMalformedRequest(std::uint32_t uid);
    int showNotice(const std::string& header, const std::string& message) const;
    void startCleanupJob(const char* label, const char* script);

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

    WatcherFactories watchers_;
    // Exit watches of promoting clients, each kept until its client exits.
    std::set<std::shared_ptr<QueueSourcePtr>> clientWatches_;
    std::unique_ptr<MessageListener> listener_;
    // Client connections, kept from their arrival until they report
    // themselves invalid.
    std::set<std::shared_ptr<MessageConnection>> connections_;
    // Malformed requests of each user held back from the log, and the timer
    // that reports them, while that user's minute runs.
    struct HeldBackRequests {
        std::size_t count = 0;
        QueueSourcePtr report;
    };
    std::map<std::uint32_t, HeldBackRequests> heldBackRequests_;
};

}  // namespace tessary
