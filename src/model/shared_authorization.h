#pragma once

#include <mutex>

#include "platform/authorization_service.h"

namespace tessary {

// The one authorization every job submission and removal is made under. It
// is created on first use, at most once at a time from any thread; a failed
// creation is retried on the next use. Once made it lives until the process
// ends.
class SharedAuthorization {
  public:
    static constexpr const char* kRight = "com.orvane.ServiceManagement.daemons.modify";

    explicit SharedAuthorization(AuthorizationService& service) : service_(service) {}

    AuthorizationRef get() {
        std::lock_guard lock(mutex_);
        if (!authorization_) {
            // The result code is not examined: an empty reference is passed
            // on, and the service manager reports its own error.
            authorization_ =
                service_.create({kRight}, kAuthorizationFlagExtendRights).authorization;
        }
        return authorization_;
    }

  private:
    AuthorizationService& service_;
    std::mutex mutex_;
    AuthorizationRef authorization_;
};

}  // namespace tessary
