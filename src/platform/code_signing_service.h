#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>

namespace tessary {

class StaticCode {
  public:
    virtual ~StaticCode() = default;
};
class CodeRequirement {
  public:
    virtual ~CodeRequirement() = default;
};

// The 8-byte audit attribute: the machine word that refers to the received
// 32-byte audit token (its address), not the token's bytes.
using AuditAttribute = std::array<std::uint8_t, 8>;

// Identifies a requesting client's code and checks it against a requirement.
class CodeSigningService {
  public:
    virtual ~CodeSigningService() = default;

    struct Guest {
        int status = 0;
        std::unique_ptr<StaticCode> code;
    };
    struct Compiled {
        int status = 0;
        std::unique_ptr<CodeRequirement> requirement;
    };

    virtual Guest copyGuestWithAuditAttribute(const AuditAttribute& attribute) = 0;
    virtual Compiled createRequirement(const std::string& text) = 0;
    virtual int checkValidity(const StaticCode& code, const CodeRequirement& requirement) = 0;
};

}  // namespace tessary
