#include "client/tessary_client.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>

#include "platform/linux/ipc/peer_identity.h"
#include "plist/codec.h"

namespace tessary::client {

namespace {

using Clock = std::chrono::steady_clock;

Error clientError(ErrorCode code, std::string description) {
    return Error{kErrorDomain, code, std::move(description)};
}

std::chrono::milliseconds remaining(Clock::time_point deadline) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    return left.count() > 0 ? left : std::chrono::milliseconds(0);
}

timeval toTimeval(std::chrono::milliseconds d) {
    // A zero timeout would mean "no limit" to the kernel.
    const auto ms = d.count() > 0 ? d.count() : 1;
    return timeval{static_cast<time_t>(ms / 1000), static_cast<suseconds_t>((ms % 1000) * 1000)};
}

}  // namespace

Result<AuthorizationExternalForm> makeAuthorizationForm() {
    auto identity = linux_backend::ownFormIdentity();
    if (!identity) {
        return identity.error();
    }
    return linux_backend::encodeExternalForm(identity.value());
}

Result<plist::Bytes> encodeRequest(const Request& request) {
    plist::Dictionary fields{{"commandString", plist::Value(request.command)}};
    if (request.authorizationForm) {
        fields.insert_or_assign("authorizationExternalFormData",
                                plist::Value::data(plist::Bytes(request.authorizationForm->begin(),
                                                                request.authorizationForm->end())));
    }
    if (request.arguments) {
        auto arguments = plist::encode(plist::Value(*request.arguments), plist::Format::Binary);
        if (!arguments) {
            return clientError(kInvalidRequest, "arguments: " + arguments.error().description);
        }
        fields.insert_or_assign("argumentsData", plist::Value::data(std::move(arguments).value()));
    }
    auto bytes = plist::encode(plist::Value(std::move(fields)), plist::Format::Binary);
    if (!bytes) {
        return clientError(kInvalidRequest, bytes.error().description);
    }
    if (bytes.value().size() > kMaxRequest) {
        return clientError(kRequestTooLarge,
                           "the request takes " + std::to_string(bytes.value().size()) +
                               " bytes; the daemon reads at most " + std::to_string(kMaxRequest));
    }
    return bytes;
}

Result<Reply> decodeReply(std::span<const std::uint8_t> datagram) {
    auto value = plist::decode(datagram);
    if (!value || !value.value().isDictionary()) {
        return clientError(kBadReply, "the reply is not a property-list dictionary");
    }
    const plist::Value* code = value.value().find("returnCodeInteger");
    if (code == nullptr || !code->asInteger()) {
        return clientError(kBadReply, "the reply has no return code");
    }
    Reply reply;
    reply.returnCode = code->asInteger()->asSigned();
    if (const plist::Value* data = value.value().find("replyData")) {
        if (data->data() == nullptr) {
            return clientError(kBadReply, "the reply's data is not data");
        }
        auto result = plist::decode(std::span<const std::uint8_t>(*data->data()));
        if (!result) {
            return clientError(kBadReply, "the reply's data: " + result.error().description);
        }
        reply.result = std::move(result).value();
    }
    return reply;
}

Result<Connection> Connection::open(const std::string& socketPath,
                                    std::chrono::milliseconds timeout) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (socketPath.empty() || socketPath.size() >= sizeof address.sun_path) {
        return clientError(kUnreachable, "invalid socket path " + socketPath);
    }
    std::memcpy(address.sun_path, socketPath.c_str(), socketPath.size() + 1);
    UniqueFd fd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    if (!fd) {
        return clientError(kUnreachable, Error::posix(errno, "socket").description);
    }
    // Both bound the blocking calls below: the connect waiting on a full
    // backlog and the send of a request.
    const timeval limit = toTimeval(timeout);
    (void)::setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    // Room for the largest request the daemon reads in one datagram.
    const int sendBuffer = static_cast<int>(kMaxRequest) + 64 * 1024;
    (void)::setsockopt(fd.get(), SOL_SOCKET, SO_SNDBUF, &sendBuffer, sizeof sendBuffer);

    int r = 0;
    do {
        r = ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    } while (r != 0 && errno == EINTR);
    if (r != 0) {
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            return clientError(
                kTimedOut, "the daemon at " + socketPath + " did not take the connection in time");
        }
        return clientError(kUnreachable,
                           Error::posix(errno, "connect to " + socketPath).description);
    }
    return Connection(std::move(fd));
}

Result<Reply> Connection::send(const Request& request, std::chrono::milliseconds timeout) {
    const Clock::time_point deadline = Clock::now() + timeout;
    auto bytes = encodeRequest(request);
    if (!bytes) {
        return bytes.error();
    }
    const timeval limit = toTimeval(timeout);
    (void)::setsockopt(fd_.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    ssize_t sent = -1;
    do {
        sent = ::send(fd_.get(), bytes.value().data(), bytes.value().size(), MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    if (sent < 0) {
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            return clientError(kTimedOut, "the daemon did not take the request in time");
        }
        return clientError(kConnectionLost, Error::posix(errno, "send").description);
    }

    for (;;) {
        pollfd p{fd_.get(), POLLIN, 0};
        const int ready = ::poll(&p, 1, static_cast<int>(remaining(deadline).count()));
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready < 0) {
            return clientError(kConnectionLost, Error::posix(errno, "poll").description);
        }
        if (ready == 0) {
            return clientError(kTimedOut, "no reply from the daemon in time");
        }
        // The reply's length first, so that a reply of any size is read whole.
        const ssize_t length = ::recv(fd_.get(), nullptr, 0, MSG_PEEK | MSG_TRUNC | MSG_DONTWAIT);
        if (length < 0) {
            if (errno == EAGAIN || errno == EINTR) {
                continue;
            }
            return clientError(kConnectionLost, Error::posix(errno, "receive").description);
        }
        if (length == 0 && (p.revents & POLLHUP) != 0) {
            return clientError(kConnectionLost, "the daemon closed the connection");
        }
        plist::Bytes datagram(static_cast<std::size_t>(length));
        const ssize_t got = ::recv(fd_.get(), datagram.data(), datagram.size(), MSG_DONTWAIT);
        if (got != length) {
            return clientError(kConnectionLost, "the reply was cut short");
        }
        return decodeReply(datagram);
    }
}

Result<Reply> sendRequest(const std::string& socketPath, const Request& request,
                          std::chrono::milliseconds timeout) {
    const Clock::time_point deadline = Clock::now() + timeout;
    auto connection = Connection::open(socketPath, timeout);
    if (!connection) {
        return connection.error();
    }
    return connection.value().send(request, remaining(deadline));
}

}  // namespace tessary::client
