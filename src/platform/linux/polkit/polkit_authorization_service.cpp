#include "platform/linux/polkit/polkit_authorization_service.h"

#include <unistd.h>

#include <cerrno>

namespace tessary::linux_backend {

namespace {

constexpr const char* kDestination = "org.freedesktop.PolicyKit1";
constexpr const char* kPath = "/org/freedesktop/PolicyKit1/Authority";
constexpr const char* kInterface = "org.freedesktop.PolicyKit1.Authority";

Error busError(int r, const std::string& what, const SdBusError& error) {
    if (error.isSet()) {
        return Error{"TYPolkitErrorDomain", -r,
                     what + ": " + error.name() +
                         (error.message() != nullptr ? std::string(": ") + error.message() : "")};
    }
    return Error::posix(-r, what);
}

// Whether the form's process is alive (same start time) and runs as the
// form's uid. Polkit takes the uid of a subject as given, so it is checked
// here before polkit is asked, and before root is trusted without polkit.
bool namesLiveProcess(const FormIdentity& identity) {
    const auto pid = static_cast<std::int32_t>(identity.pid);
    if (pid <= 0) {
        return false;
    }
    auto start = processStartTime(pid);
    auto ids = processStatusIds(pid);
    return start && start.value() == identity.startTime && ids && ids->effectiveUid == identity.uid;
}

}  // namespace

Result<bool> checkPolkitAuthorization(sd_bus* bus, const FormIdentity& subject,
                                      const std::string& actionId, bool interactive,
                                      std::chrono::microseconds timeout, bool& transport) {
    transport = false;
    sd_bus_message* raw = nullptr;
    int r = sd_bus_message_new_method_call(bus, &raw, kDestination, kPath, kInterface,
                                           "CheckAuthorization");
    if (r < 0) {
        return Error::posix(-r, "CheckAuthorization");
    }
    SdBusMessagePtr call(raw);
    // The subject is the process itself (pid and start time, so that a
    // process that took over the pid is not mistaken for it), with its uid.
    r = sd_bus_message_append(call.get(), "(sa{sv})", "unix-process", 3, "pid", "u", subject.pid,
                              "start-time", "t", subject.startTime, "uid", "i",
                              static_cast<std::int32_t>(subject.uid));
    if (r >= 0) {
        // No details, no cancellation id; flag 1 allows user interaction.
        r = sd_bus_message_append(call.get(), "sa{ss}us", actionId.c_str(), 0,
                                  interactive ? 1U : 0U, "");
    }
    if (r < 0) {
        return Error::posix(-r, "CheckAuthorization arguments");
    }

    SdBusError error;
    sd_bus_message* rawReply = nullptr;
    r = sd_bus_call(bus, call.get(), static_cast<std::uint64_t>(timeout.count()), error.get(),
                    &rawReply);
    SdBusMessagePtr reply(rawReply);
    if (r < 0) {
        transport = !error.isSet();
        return busError(r, "CheckAuthorization", error);
    }
    int authorized = 0;
    int challenge = 0;
    r = sd_bus_message_enter_container(reply.get(), SD_BUS_TYPE_STRUCT, "bba{ss}");
    if (r > 0) {
        r = sd_bus_message_read(reply.get(), "bb", &authorized, &challenge);
    }
    if (r <= 0) {
        return Error{"TYPolkitErrorDomain", EBADMSG, "CheckAuthorization: unexpected reply"};
    }
    return authorized != 0;
}

PolkitAuthorizationService::PolkitAuthorizationService(PolkitAuthorizationOptions options)
    : options_(std::move(options)) {}

AuthorizationService::Created PolkitAuthorizationService::create(
    const std::vector<std::string>& /*rights*/, std::uint32_t /*flags*/) {
    if (::geteuid() != 0) {
        return {kUnavailable, nullptr};
    }
    return {0, std::make_shared<OwnAuthorization>()};
}

AuthorizationService::Created PolkitAuthorizationService::importExternalForm(
    const AuthorizationExternalForm& form) {
    auto identity = decodeExternalForm(form);
    if (!identity) {
        return {kInvalidForm, nullptr};
    }
    return {0, std::make_shared<ClientAuthorization>(*identity)};
}

int PolkitAuthorizationService::copyRight(const Authorization& authorization,
                                          const std::string& right, std::uint32_t /*flags*/) {
    if (right != kAdminRight) {
        return kDenied;
    }
    if (dynamic_cast<const OwnAuthorization*>(&authorization) != nullptr) {
        return 0;  // made only for a daemon running as root
    }
    const auto* client = dynamic_cast<const ClientAuthorization*>(&authorization);
    if (client == nullptr) {
        return kInvalidReference;
    }
    const FormIdentity& subject = client->identity();
    if (!namesLiveProcess(subject)) {
        return kDenied;
    }
    auto answer = checkAuthorization(subject);
    if (answer) {
        return answer.value() ? 0 : kDenied;
    }
    // Fail closed: without polkit only root holds the right.
    return subject.uid == 0 ? 0 : kUnavailable;
}

Result<sd_bus*> PolkitAuthorizationService::connection() {
    if (bus_ && sd_bus_is_open(bus_.get()) > 0) {
        return bus_.get();
    }
    bus_.reset();
    SdBusPtr bus;
    if (const int r = openBus(options_.busAddress, true, {}, bus); r < 0) {
        return Error::posix(-r, "connect to the system bus at " + options_.busAddress);
    }
    bus_ = std::move(bus);
    return bus_.get();
}

Result<bool> PolkitAuthorizationService::checkAuthorization(const FormIdentity& subject) {
    std::lock_guard lock(mutex_);
    // A cached connection may have died with the bus; it is opened again
    // once before polkit counts as unreachable.
    for (int attempt = 0;; ++attempt) {
        const bool cached = bus_ != nullptr;
        auto bus = connection();
        if (!bus) {
            return bus.error();
        }
        bool transport = false;
        // Never with user interaction: the daemon has no one to ask.
        auto answer = checkPolkitAuthorization(bus.value(), subject, options_.actionId, false,
                                               options_.callTimeout, transport);
        if (answer) {
            return answer;
        }
        bus_.reset();
        if (!transport || !cached || attempt > 0) {
            return answer.error();
        }
    }
}

}  // namespace tessary::linux_backend
