#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "plist/value.h"

namespace tessary {

// Eight 32-bit words identifying the sender of a message, as the message
// layer saw it (not as the client claims).
using AuditToken = std::array<std::uint8_t, 32>;

// One keyed message as it arrived: its typed fields and its sender's token.
struct KeyedMessage {
    plist::Dictionary fields;
    AuditToken auditToken{};
};

class MessageConnection;

struct PeerEvent {
    enum class Kind : std::uint8_t {
        Message,            // `message` holds it
        ConnectionInvalid,  // the peer went away; the last event of the connection
        Error,              // any other error; `description` says which
    };
    Kind kind = Kind::Message;
    std::optional<KeyedMessage> message;
    std::string description;
};

// One client connection. Its events arrive on the main queue.
class MessageConnection {
  public:
    virtual ~MessageConnection() = default;
    virtual void setEventHandler(std::function<void(const PeerEvent&)> handler) = 0;
    virtual void activate() = 0;
    // Sends the reply to `request`: one keyed message that reaches its sender.
    virtual bool sendReply(const KeyedMessage& request, const plist::Dictionary& reply) = 0;
    // Closes the connection; a ConnectionInvalid event follows.
    virtual void cancel() = 0;
    virtual std::int32_t peerPid() const = 0;
    // The user the peer ran as when it connected, as the kernel reports it.
    virtual std::uint32_t peerUid() const = 0;
};

struct ListenerEvent {
    enum class Kind : std::uint8_t { NewConnection, Error, Other };
    Kind kind = Kind::NewConnection;
    std::shared_ptr<MessageConnection> connection;
    std::string description;  // for Error and Other; may be empty
};

class MessageListener {
  public:
    virtual ~MessageListener() = default;
    virtual void setEventHandler(std::function<void(const ListenerEvent&)> handler) = 0;
    virtual void activate() = 0;
};

// Named message endpoints. On Linux the name maps to a SOCK_SEQPACKET socket.
class MessageService {
  public:
    virtual ~MessageService() = default;
    // Null when the endpoint cannot be made.
    virtual std::unique_ptr<MessageListener> createListener(std::string_view name) = 0;
};

}  // namespace tessary
