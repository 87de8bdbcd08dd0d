#pragma once

#include <string>

#include "platform/code_signing_service.h"

namespace tessary::linux_backend {

// Code identity on Linux, from /proc. There is no code signature to check:
// a client's code is the process its audit token names, found alive (same pid,
// same start time, not a zombie) in its world-readable /proc/PID/stat. Its
// executable (/proc/PID/exe) is not read: for another user's process that
// takes the right to trace it, which the daemon does not hold. The one
// requirement this system knows is "true", met by every process that is found.
class ProcCodeSigningService final : public CodeSigningService {
  public:
    static constexpr int kNoSuchCode = -67068;
    static constexpr int kInvalidRequirement = -67052;
    static constexpr int kRequirementNotMet = -67050;

    class ProcessCode final : public StaticCode {
      public:
        explicit ProcessCode(std::int32_t pid) : pid_(pid) {}
        std::int32_t pid() const { return pid_; }

      private:
        std::int32_t pid_;
    };
    class TrueRequirement final : public CodeRequirement {};

    // `attribute` holds the address of a 32-byte audit token that stays valid
    // for the call (the received message's own), as the request channel
    // hands it over.
    Guest copyGuestWithAuditAttribute(const AuditAttribute& attribute) override;
    Compiled createRequirement(const std::string& text) override;
    int checkValidity(const StaticCode& code, const CodeRequirement& requirement) override;
};

}  // namespace tessary::linux_backend
