#pragma once

#include "platform/code_signing_service.h"
#include "platform/message_service.h"

namespace tessary::testing {

// Resolves every audit attribute, unless told not to, and accepts the
// always-true requirement "true".
class FakeCodeSigningService final : public CodeSigningService {
  public:
    struct Code final : StaticCode {};
    struct Requirement final : CodeRequirement {};

    Guest copyGuestWithAuditAttribute(const AuditAttribute& /*attribute*/) override {
        if (!resolves) {
            return {-67068, nullptr};
        }
        return {0, std::make_unique<Code>()};
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
