#pragma once

#include <memory>
#include <string_view>

#include "base/error.h"
#include "platform/authorization_service.h"
#include "plist/value.h"

namespace tessary {

// An answer that may not have come: Unknown when the service manager could
// not be asked or did not answer, which says nothing either way.
enum class Answer { Yes, No, Unknown };

// The operating system's service manager, always in its system domain: the
// daemon's jobs are system jobs. On Linux this is systemd.
class ServiceManagerClient {
  public:
    virtual ~ServiceManagerClient() = default;

    // Hands a whole job dictionary to the service manager.
    virtual Status submitJob(const plist::Value& job, const AuthorizationRef& authorization) = 0;
    // Removes the job named `label`; with `wait`, returns once it is gone.
    virtual Status removeJob(std::string_view label, const AuthorizationRef& authorization,
                             bool wait) = 0;
    // Whether the service manager holds the job `label` as this client put
    // it there. A job of that name that the manager has from anywhere else
    // is not this client's: No.
    virtual Answer jobIsEnabled(std::string_view label) = 0;
};

}  // namespace tessary
