#include "platform/linux/ipc/proc_code_signing_service.h"

#include <cstring>

#include "platform/linux/ipc/peer_identity.h"
#include "platform/message_service.h"

namespace tessary::linux_backend {

CodeSigningService::Guest ProcCodeSigningService::copyGuestWithAuditAttribute(
    const AuditAttribute& attribute) {
    // The attribute holds the pointer itself, so the pointer's size is meant.
    const AuditToken* token = nullptr;
    static_assert(sizeof token <= sizeof(AuditAttribute));  // NOLINT(bugprone-sizeof-expression)
    std::memcpy(&token, attribute.data(), sizeof token);    // NOLINT(bugprone-sizeof-expression)
    if (token == nullptr) {
        return {kNoSuchCode, nullptr};
    }
    const AuditTokenWords words = decodeAuditToken(*token);
    const auto pid = static_cast<std::int32_t>(words.pid);
    if (pid <= 0) {
        return {kNoSuchCode, nullptr};
    }
    // The token keeps only the low half of the start time; a process that
    // took over the pid since differs there too, short of a 2^32-tick wrap.
    // A process that has ended (a zombie) has no start time.
    auto start = processStartTime(pid);
    if (!start || static_cast<std::uint32_t>(start.value()) != words.startTimeLow) {
        return {kNoSuchCode, nullptr};
    }
    return {0, std::make_unique<ProcessCode>(pid)};
}

CodeSigningService::Compiled ProcCodeSigningService::createRequirement(const std::string& text) {
    if (text != "true") {
        return {kInvalidRequirement, nullptr};
    }
    return {0, std::make_unique<TrueRequirement>()};
}

int ProcCodeSigningService::checkValidity(const StaticCode& code,
                                          const CodeRequirement& requirement) {
    const bool found = dynamic_cast<const ProcessCode*>(&code) != nullptr;
    const bool isTrue = dynamic_cast<const TrueRequirement*>(&requirement) != nullptr;
    return found && isTrue ? 0 : kRequirementNotMet;
}

}  // namespace tessary::linux_backend
