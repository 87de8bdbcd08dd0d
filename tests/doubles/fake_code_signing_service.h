#pragma once

#include <cstring>

#include "platform/code_signing_service.h"
#include "platform/message_service.h"

namespace tessary::testing {

// Resolves the audit attribute the way the request channel hands it over (the
// address of the token) and accepts the always-true requirement "true".
class FakeCodeSigningService final : public CodeSigningService {
  public:
    struct Code final : StaticCode {
        std::int32_t pid = 0;
    };
    struct Requirement final : CodeRequirement {};

    Guest copyGuestWithAuditAttribute(const AuditAttribute& attribute) override {
        if (!resolves) {
            return {-67068, nullptr};
        }
        const AuditToken* token = nullptr;
        std::memcpy(&token, attribute.data(), sizeof token);
        auto code = std::make_unique<Code>();
        std::memcpy(&code->pid, token->data() + 20, sizeof code->pid);
        return {0, std::move(code)};
    }
    Compiled createRequirement(const std::string& text) override {
        if (text != "true") {
            return {-67052, nullptr};
        }
        return {0, std::make_unique<Requirement>()};
    }
    int checkValidity(const StaticCode& /*code*/, const CodeRequirement& /*req*/) override {
        return 0;
    }

    bool resolves = true;
};

}  // namespace tessary::testing
