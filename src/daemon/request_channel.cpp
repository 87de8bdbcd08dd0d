#include <chrono>

#include "daemon/daemon_info.h"
#include "daemon/supervisor.h"

namespace tessary {

namespace {

constexpr const char* kCommandString = "commandString";
constexpr const char* kAuthorizationForm = "authorizationExternalFormData";
constexpr const char* kArgumentsData = "argumentsData";
constexpr const char* kReturnCode = "returnCodeInteger";
constexpr const char* kReplyData = "replyData";

// Every local user can send requests: a user's malformed ones make one line
// a minute, and one more with how many were held back.
constexpr auto kMalformedReportInterval = std::chrono::minutes(1);
// How much of a malformed request its line shows.
constexpr std::size_t kLoggedRequestPrefix = 512;

const plist::Value* field(const plist::Dictionary& d, const char* key) {
    auto it = d.find(key);
    return it == d.end() ? nullptr : &it->second;
}

// The request as its line shows it: a prefix, cut between two characters,
// and the length of the whole.
std::string loggedRequest(const plist::Dictionary& fields) {
    std::string text = plist::Value(fields).description();
    if (text.size() <= kLoggedRequestPrefix) {
        return text;
    }
    std::size_t cut = kLoggedRequestPrefix;
    while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0U) == 0x80U) {
        --cut;
    }
    return text.substr(0, cut) + "... (" + std::to_string(text.size()) + " bytes)";
}

}  // namespace

void TYSupervisor::startRequestListener() {
    listener_ = platform_.messages.createListener(kDaemonLabel);
    if (!listener_) {
        return;  // the daemon runs on without a request channel
    }
    listener_->setEventHandler([this](const ListenerEvent& event) { handleListenerEvent(event); });
    listener_->activate();
}

void TYSupervisor::handleListenerEvent(const ListenerEvent& event) {
    switch (event.kind) {
        case ListenerEvent::Kind::NewConnection: {
            std::shared_ptr<MessageConnection> connection = event.connection;
            connections_.insert(connection);
            // The handler holds the connection weakly: the set above is what
            // keeps it alive until it reports itself invalid.
            std::weak_ptr<MessageConnection> weak = connection;
            connection->setEventHandler([this, weak](const PeerEvent& e) {
                if (auto c = weak.lock()) {
                    handlePeerEvent(c, e);
                }
            });
            connection->activate();
            return;
        }
        case ListenerEvent::Kind::Error:
            platform_.log.error("unexpected connection error: %s", event.description);
            platform_.process.exit(1);
            return;
        case ListenerEvent::Kind::Other:
            if (event.description.empty()) {
                platform_.log.error("unexpected connection event");
            } else {
                platform_.log.error("unexpected connection event: %s", event.description);
            }
            platform_.process.exit(1);
            return;
    }
}

void TYSupervisor::handlePeerEvent(const std::shared_ptr<MessageConnection>& connection,
                                   const PeerEvent& event) {
    if (event.kind != PeerEvent::Kind::Message || !event.message) {
        if (event.kind == PeerEvent::Kind::ConnectionInvalid) {
            // Dropped after this event: the connection's own handler is
            // still running.
            platform_.queue.post([this, connection] { connections_.erase(connection); });
            return;
        }
        if (mayReportMalformedRequest(connection->peerUid())) {
            if (event.description.empty()) {
                platform_.log.error("unexpected peer event");
            } else {
                platform_.log.error("unexpected peer event: %s", event.description);
            }
        }
        connection->cancel();
        return;
    }

    const KeyedMessage& message = *event.message;
    std::optional<CommandRequest> request = unpackRequest(&message);
    if (!request) {
        if (mayReportMalformedRequest(connection->peerUid())) {
            platform_.log.error("error deserializing request: %s", loggedRequest(message.fields));
        }
        return;
    }
    plist::Bytes reply;
    const int rc = performRequest(request->command, request->authorizationForm, message.auditToken,
                                  connection->peerPid(), request->arguments, reply);
    (void)connection->sendReply(message, makeReply(rc, reply));
}

std::optional<CommandRequest> TYSupervisor::unpackRequest(const KeyedMessage* message) {
    if (message == nullptr) {
        return std::nullopt;
    }
    const plist::Dictionary& fields = message->fields;
    CommandRequest request;

    const plist::Value* command = field(fields, kCommandString);
    if (command == nullptr || command->string() == nullptr || command->string()->empty()) {
        return std::nullopt;
    }
    request.command = *command->string();

    if (const plist::Value* form = field(fields, kAuthorizationForm)) {
        const plist::Bytes* bytes = form->data();
        if (bytes == nullptr || bytes->size() != AuthorizationExternalForm{}.size()) {
            return std::nullopt;
        }
        AuthorizationExternalForm copy{};
        std::copy(bytes->begin(), bytes->end(), copy.begin());
        request.authorizationForm = copy;
    }

    if (const plist::Value* arguments = field(fields, kArgumentsData)) {
        const plist::Bytes* bytes = arguments->data();
        if (bytes == nullptr) {
            return std::nullopt;
        }
        if (!bytes->empty()) {
            request.arguments = *bytes;
        }
    }
    return request;
}

bool TYSupervisor::mayReportMalformedRequest(std::uint32_t uid) {
    auto [held, first] = heldBackRequests_.try_emplace(uid);
    if (!first) {
        ++held->second.count;
        return false;
    }
    // The timer ends the user's minute: its entry, the timer included, goes.
    held->second.report = platform_.queue.after(kMalformedReportInterval, [this, uid] {
        auto entry = heldBackRequests_.extract(uid);
        if (!entry.empty() && entry.mapped().count > 0) {
            platform_.log.warning("WARNING: %d more malformed requests from uid %d were not logged",
                                  entry.mapped().count, uid);
        }
    });
    if (!held->second.report) {
        heldBackRequests_.erase(held);  // without a timer nothing is held back
    }
    return true;
}

plist::Dictionary TYSupervisor::makeReply(int returnCode, const plist::Bytes& reply) {
    plist::Dictionary out{{kReturnCode, plist::Value::integer(returnCode)}};
    if (!reply.empty()) {
        out.insert_or_assign(kReplyData, plist::Value::data(reply));
    }
    return out;
}

}  // namespace tessary
