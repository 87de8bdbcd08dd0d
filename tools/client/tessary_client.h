#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "base/error.h"
#include "base/unique_fd.h"
#include "platform/authorization_service.h"
#include "platform/paths.h"
#include "plist/value.h"

namespace tessary::client {

// Talking to tessaryd over its request socket: one request, one reply, each
// one datagram holding a binary property list.

// The daemon's own socket path (a literal, so its data ends in a NUL).
inline constexpr const char* kDefaultSocket = Paths::kRequestSocket.data();
inline constexpr std::chrono::milliseconds kDefaultTimeout{10000};
// The daemon reads no request longer than this.
inline constexpr std::size_t kMaxRequest = std::size_t{256} * 1024;

// Error codes of the domain kErrorDomain.
inline constexpr const char* kErrorDomain = "TYClientErrorDomain";
enum ErrorCode : long {
    kUnreachable = 1,      // no daemon listens at the socket
    kTimedOut = 2,         // no reply within the time limit
    kConnectionLost = 3,   // the daemon closed the connection before replying
    kBadReply = 4,         // the reply is not one
    kRequestTooLarge = 5,  // the daemon would refuse the request unread
    kInvalidRequest = 6,   // the request cannot be encoded
};

struct Request {
    std::string command;  // "list", "status", …
    std::optional<AuthorizationExternalForm> authorizationForm;
    std::optional<plist::Dictionary> arguments;
};

struct Reply {
    std::int64_t returnCode = 1;  // 0: success, 1: failure
    // The command's result, decoded from "replyData"; none when the daemon
    // sent none (every failure, and results that encode to nothing).
    std::optional<plist::Value> result;
};

// This process's own authorization form: its pid, effective uid and start
// time. The daemon honours a form only from the process it names.
Result<AuthorizationExternalForm> makeAuthorizationForm();

// The request as it goes on the wire.
Result<plist::Bytes> encodeRequest(const Request& request);
// A reply as it came off the wire.
Result<Reply> decodeReply(std::span<const std::uint8_t> datagram);

// One connection to the daemon; requests on it are answered in order.
class Connection {
  public:
    // Connecting waits at most `timeout` for the daemon to accept.
    static Result<Connection> open(const std::string& socketPath,
                                   std::chrono::milliseconds timeout = kDefaultTimeout);

    // Sends `request` and waits at most `timeout` for its reply. A request
    // the daemon finds malformed gets no reply at all: that ends in
    // kTimedOut. After any error the connection is of no further use.
    Result<Reply> send(const Request& request, std::chrono::milliseconds timeout = kDefaultTimeout);

  private:
    explicit Connection(UniqueFd fd) : fd_(std::move(fd)) {}
    UniqueFd fd_;
};

// Opens a connection, sends one request and returns its reply, all within
// `timeout`.
Result<Reply> sendRequest(const std::string& socketPath, const Request& request,
                          std::chrono::milliseconds timeout = kDefaultTimeout);

}  // namespace tessary::client
