#pragma once

#include <cstddef>
#include <string>

#include "platform/main_queue.h"
#include "platform/message_service.h"
#include "platform/system_log.h"

namespace tessary::linux_backend {

// The request channel on a Unix socket of type SOCK_SEQPACKET.
//
// One datagram carries one keyed message: a binary property list ("bplist00")
// whose top level is a dictionary. A datagram that is not one is an Error
// event on its connection. A datagram longer than kMaxDatagram is never read
// whole; it arrives as a message without fields, which the daemon refuses as
// malformed.
//
// The sender of each message is the process the kernel names for the
// connection (SO_PEERCRED), completed from /proc when the connection is
// accepted; every message carries that process's audit token. A 32-byte
// authorization form that is not the one this process would make for itself
// (another pid, uid or start time) is replaced by 32 zero bytes before the
// message is delivered, so that no process can present another's form and
// the request is refused as one whose form cannot be imported.
//
// The socket is open to every local user, so what a connection may cost
// before its sender is known is bounded: a user holds at most
// kMaxConnectionsPerUser connections, and all users together at most
// kMaxConnections (less, when the descriptor limit is lower); a connection
// over either cap is closed as soon as it is accepted. A connection is read
// one datagram per turn of the main queue, so every busy connection gets its
// turn, and not at all while a reply to it waits for the client to read.
//
// Listener and connections deliver their events on the main queue.
class UnixMessageService final : public MessageService {
  public:
    static constexpr std::size_t kMaxDatagram = std::size_t{256} * 1024;
    static constexpr const char* kFormKey = "authorizationExternalFormData";
    static constexpr std::size_t kMaxConnectionsPerUser = 128;
    static constexpr std::size_t kMaxConnections = 1024;

    UnixMessageService(MainQueue& queue, SystemLog& log, std::string socketPath);

    // The endpoint's name is the daemon's label; on Linux its place is the
    // socket path this service was made with. A socket file left at the
    // path (by an earlier run) is replaced; anything else there makes the
    // creation fail. The socket is open to every local user (mode 0666):
    // each command checks its sender's rights itself.
    std::unique_ptr<MessageListener> createListener(std::string_view name) override;

  private:
    MainQueue& queue_;
    SystemLog& log_;
    std::string path_;
};

}  // namespace tessary::linux_backend
