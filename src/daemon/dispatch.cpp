#include <cstring>

#include "base/utf8.h"
#include "daemon/platform_exception.h"
#include "daemon/supervisor.h"
#include "plist/codec.h"

namespace tessary {

namespace {

const std::map<std::string, TYSupervisor::Handler, std::less<>>& handlers() {
    static const std::map<std::string, TYSupervisor::Handler, std::less<>> table = {
        {"list", &TYSupervisor::listWithArguments},
        {"status", &TYSupervisor::statusWithArguments},
        {"enable", &TYSupervisor::enableWithArguments},
        {"disable", &TYSupervisor::disableWithArguments},
        {"reset", &TYSupervisor::resetWithArguments},
        {"programArguments", &TYSupervisor::programArgumentsWithArguments},
        {"sockets", &TYSupervisor::socketsWithArguments},
        {"startCalendarIntervals", &TYSupervisor::startCalendarIntervalsWithArguments},
        {"create", &TYSupervisor::createWithArguments},
        {"destroy", &TYSupervisor::destroyWithArguments},
        {"demote", &TYSupervisor::demoteWithArguments},
        {"restoreServices", &TYSupervisor::restoreServicesWithArguments},
        {"beginPromotion", &TYSupervisor::beginPromotionWithArguments},
        {"endPromotion", &TYSupervisor::endPromotionWithArguments},
    };
    return table;
}

}  // namespace

TYSupervisor::Handler TYSupervisor::handlerForCommand(std::string_view command) {
    const auto& table = handlers();
    auto it = table.find(command);
    return it == table.end() ? nullptr : it->second;
}

std::optional<std::string> TYSupervisor::authorizationRightForCommand(
    std::string_view command) const {
    const CommandTable table = authorizationRightsForCommands();
    auto it = table.find(command);
    return it == table.end() ? std::nullopt : std::optional<std::string>(it->second);
}

std::optional<std::string> TYSupervisor::requirementForCommand(std::string_view command) const {
    const CommandTable table = requirementsForCommands();
    auto it = table.find(command);
    return it == table.end() ? std::nullopt : std::optional<std::string>(it->second);
}

int TYSupervisor::performRequest(const std::string& command,
                                 const std::optional<AuthorizationExternalForm>& form,
                                 const AuditToken& auditToken, std::int32_t senderPid,
                                 const std::optional<plist::Bytes>& arguments,
                                 plist::Bytes& reply) {
    constexpr int kFailure = 1;
    SystemLog& log = platform_.log;

    // Bytes that are not UTF-8 make no command name: both lookups miss.
    const bool named = isValidUtf8(command);
    const auto right = named ? authorizationRightForCommand(command) : std::nullopt;
    const auto requirement = named ? requirementForCommand(command) : std::nullopt;
    if (!right && !requirement) {
        return kFailure;
    }

    if (right) {
        if (!form) {
            log.error("no auth_external_form");
            return kFailure;
        }
        AuthorizationService& authorization = platform_.authorization;
        const auto imported = authorization.importExternalForm(*form);
        if (imported.status != 0 || !imported.authorization) {
            log.error("Relkamport() failed: %d", imported.status);
            return kFailure;
        }
        const int status =
            authorization.copyRight(*imported.authorization, *right, kAuthorizationFlagDefaults);
        if (status != 0) {
            log.error("Vestigrant() failed: %d", status);
            return kFailure;
        }
    }

    const plist::Value senderPID = plist::Value::integer(senderPid);

    if (requirement) {
        // The code-signing layer is handed the address of the token, not its
        // bytes: the attribute is one machine word.
        AuditAttribute attribute{};
        const AuditToken* tokenAddress = &auditToken;
        // NOLINTBEGIN(bugprone-sizeof-expression): the pointer's own size is meant
        static_assert(sizeof tokenAddress == sizeof attribute);
        std::memcpy(attribute.data(), &tokenAddress, sizeof tokenAddress);
        // NOLINTEND(bugprone-sizeof-expression)
        CodeSigningService& codeSigning = platform_.codeSigning;
        auto guest = codeSigning.copyGuestWithAuditAttribute(attribute);
        if (guest.status != 0 || !guest.code) {
            return kFailure;
        }
        auto compiled = codeSigning.createRequirement(*requirement);
        if (compiled.status != 0 || !compiled.requirement) {
            return kFailure;
        }
        if (codeSigning.checkValidity(*guest.code, *compiled.requirement) != 0) {
            return kFailure;
        }
    }

    Arguments args;
    if (arguments && !arguments->empty()) {
        auto decoded =
            plist::decode(std::span<const std::uint8_t>(*arguments), plist::kRequestBudget);
        // Arguments are a dictionary or nothing a handler can use: any other
        // top level is refused like bytes that do not decode.
        if (!decoded || !decoded.value().isDictionary()) {
            log.error("couldn't deserialize arguments dictionary");
            return kFailure;
        }
        args = *decoded.value().dictionary();
    }
    args.insert_or_assign("senderPID", senderPID);

    const Handler handler = handlerForCommand(command);
    if (handler == nullptr) {
        return kFailure;
    }

    std::optional<plist::Dictionary> result;
    try {
        result = (this->*handler)(args);
    } catch (const PlatformException& e) {
        log.error("exception raised while running %@: %@", command, e.description());
        return kFailure;
    }
    if (!result) {
        return kFailure;
    }

    auto encoded = plist::encode(plist::Value(std::move(*result)), plist::Format::Binary);
    if (!encoded) {
        return kFailure;
    }
    reply = std::move(encoded).value();
    return 0;
}

}  // namespace tessary
