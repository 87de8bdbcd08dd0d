#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace tessary {

// An authorization reference: what the service manager calls are made under,
// or what a client's external form was imported into. Opaque to the daemon.
class Authorization {
  public:
    virtual ~Authorization() = default;
};
using AuthorizationRef = std::shared_ptr<const Authorization>;

using AuthorizationExternalForm = std::array<std::uint8_t, 32>;

enum AuthorizationFlags : std::uint32_t {
    kAuthorizationFlagDefaults = 0,
    kAuthorizationFlagInteractionAllowed = 1U << 0,
    kAuthorizationFlagExtendRights = 1U << 1,
};

// Decides rights. Statuses are 0 for success and a non-zero code otherwise,
// as the request channel logs them.
class AuthorizationService {
  public:
    virtual ~AuthorizationService() = default;

    struct Created {
        int status = 0;
        AuthorizationRef authorization;  // may be null even with status 0
    };

    // Makes an authorization for `rights` (names, no values, no flags).
    virtual Created create(const std::vector<std::string>& rights, std::uint32_t flags) = 0;
    // Imports a client's 32-byte external form.
    virtual Created importExternalForm(const AuthorizationExternalForm& form) = 0;
    // Whether `authorization` holds `right`, without asking the user.
    virtual int copyRight(const Authorization& authorization, const std::string& right,
                          std::uint32_t flags) = 0;
};

}  // namespace tessary
