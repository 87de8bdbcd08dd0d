#pragma once

#include <chrono>
#include <mutex>
#include <string>

#include "platform/authorization_service.h"
#include "platform/linux/ipc/peer_identity.h"
#include "platform/linux/sd_handles.h"

namespace tessary::linux_backend {

struct PolkitAuthorizationOptions {
    std::string busAddress = "unix:path=/run/dbus/system_bus_socket";
    // The action of data/polkit/com.orvane.tessaryd.policy: administrators
    // of an active session, after authenticating.
    std::string actionId = "com.orvane.tessaryd.admin";
    // How long one question to polkit may hold the main queue.
    std::chrono::microseconds callTimeout = std::chrono::seconds(5);
};

// One CheckAuthorization of the process `subject` for `actionId`: polkit's
// answer, or an Error when it could not be asked (`transport` then says
// whether the connection failed, as opposed to polkit answering an error).
// With `interactive`, polkit may first ask the user through an agent that is
// registered for the subject, and the call lasts as long as the user takes,
// up to `timeout`.
Result<bool> checkPolkitAuthorization(sd_bus* bus, const FormIdentity& subject,
                                      const std::string& actionId, bool interactive,
                                      std::chrono::microseconds timeout, bool& transport);

// Rights on polkit.
//
// A client's authorization is the process its external form names (the
// request channel has already checked that the form came from that very
// process). It holds "system.privilege.admin" only while /proc shows that
// process (pid and start time) running with the form's effective uid, and
// then when polkit, asked without user interaction, authorizes it for the
// shipped action. When polkit cannot be asked (no bus, no polkitd, an error
// reply, the action not installed) only a process of uid 0 holds the right.
// No other right exists.
//
// The daemon's own authorization, for its service-manager calls, is its root
// identity: it exists only when the daemon runs as root.
//
// Safe to call from several threads; questions to polkit go one at a time
// over one cached bus connection.
class PolkitAuthorizationService final : public AuthorizationService {
  public:
    static constexpr const char* kAdminRight = "system.privilege.admin";
    // Statuses.
    static constexpr int kInvalidForm = -60001;
    static constexpr int kInvalidReference = -60002;
    static constexpr int kDenied = -60005;
    static constexpr int kUnavailable = -60008;  // polkit could not be asked

    // What an imported form refers to.
    class ClientAuthorization final : public Authorization {
      public:
        explicit ClientAuthorization(FormIdentity identity) : identity_(identity) {}
        const FormIdentity& identity() const { return identity_; }

      private:
        FormIdentity identity_;
    };
    class OwnAuthorization final : public Authorization {};

    explicit PolkitAuthorizationService(PolkitAuthorizationOptions options = {});

    Created create(const std::vector<std::string>& rights, std::uint32_t flags) override;
    Created importExternalForm(const AuthorizationExternalForm& form) override;
    // Never asks the user, whatever `flags` say: the daemon has no one to ask.
    int copyRight(const Authorization& authorization, const std::string& right,
                  std::uint32_t flags) override;

  private:
    // Polkit's answer, or an Error when it could not be asked.
    Result<bool> checkAuthorization(const FormIdentity& subject);
    Result<sd_bus*> connection();

    PolkitAuthorizationOptions options_;
    std::mutex mutex_;
    SdBusPtr bus_;
};

}  // namespace tessary::linux_backend
