#pragma once

#include <atomic>
#include <map>
#include <mutex>
#include <set>

#include "platform/authorization_service.h"

namespace tessary::testing {

// Authorizations that hold a set of rights. External forms map to the rights
// a test granted them; an unknown form fails to import.
class FakeAuthorizationService final : public AuthorizationService {
  public:
    struct Grant final : Authorization {
        std::set<std::string> rights;
    };

    Created create(const std::vector<std::string>& rights, std::uint32_t /*flags*/) override {
        std::lock_guard lock(mutex_);
        ++createCalls_;
        if (failCreate_) {
            return {-60008, nullptr};
        }
        auto g = std::make_shared<Grant>();
        g->rights.insert(rights.begin(), rights.end());
        return {0, g};
    }

    Created importExternalForm(const AuthorizationExternalForm& form) override {
        std::lock_guard lock(mutex_);
        auto it = forms_.find(form);
        if (it == forms_.end()) {
            return {-60001, nullptr};
        }
        auto g = std::make_shared<Grant>();
        g->rights = it->second;
        return {0, g};
    }

    int copyRight(const Authorization& authorization, const std::string& right,
                  std::uint32_t /*flags*/) override {
        const auto* g = dynamic_cast<const Grant*>(&authorization);
        return (g != nullptr && g->rights.count(right) != 0) ? 0 : -60005;
    }

    // Test controls.
    void grantForm(const AuthorizationExternalForm& form, std::set<std::string> rights) {
        std::lock_guard lock(mutex_);
        forms_[form] = std::move(rights);
    }
    void setFailCreate(bool fail) {
        std::lock_guard lock(mutex_);
        failCreate_ = fail;
    }
    int createCalls() const {
        std::lock_guard lock(mutex_);
        return createCalls_;
    }

  private:
    mutable std::mutex mutex_;
    std::map<AuthorizationExternalForm, std::set<std::string>> forms_;
    bool failCreate_ = false;
    int createCalls_ = 0;
};

}  // namespace tessary::testing
