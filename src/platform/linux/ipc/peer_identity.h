#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "base/error.h"
#include "platform/authorization_service.h"
#include "platform/message_service.h"

namespace tessary::linux_backend {

// How a client names itself and how the request channel names a client:
// the 32-byte authorization form, the 32-byte audit token, and the /proc
// facts both are made from. Client and daemon share this code so that the
// two ends agree on every byte.

// A /proc value that the kernel has not set (login uid, audit session).
inline constexpr std::uint32_t kUnsetId = 0xFFFFFFFF;

// Field 22 of a /proc/PID/stat line: the process start time in clock ticks
// since boot. The command name (field 2) may hold spaces and parentheses, so
// the fields are counted from the last ')'. None when the line is not one.
std::optional<std::uint64_t> parseStatStartTime(std::string_view statLine);

// The start time of a live process, from /proc/PID/stat; a zombie has none.
Result<std::uint64_t> processStartTime(std::int32_t pid);

// The real and effective ids of the "Uid:" and "Gid:" lines of /proc/PID/status.
struct StatusIds {
    std::uint32_t realUid = 0;
    std::uint32_t effectiveUid = 0;
    std::uint32_t realGid = 0;
    std::uint32_t effectiveGid = 0;
};
std::optional<StatusIds> parseStatusIds(std::string_view status);
// The ids of a live process, from /proc/PID/status.
std::optional<StatusIds> processStatusIds(std::int32_t pid);

// Who holds the other end of a connected Unix socket: what the kernel vouches
// for (SO_PEERCRED, recorded when the peer connected) and what /proc said
// about that process when the connection was accepted.
struct PeerIdentity {
    std::int32_t pid = 0;
    std::uint32_t uid = 0;  // effective, as SO_PEERCRED reports it
    std::uint32_t gid = 0;  // effective
    std::uint32_t realUid = 0;
    std::uint32_t realGid = 0;
    std::uint32_t loginUid = kUnsetId;
    std::uint32_t sessionId = kUnsetId;
    // None when /proc no longer describes the process: no form can then name
    // it, and every form it sends is refused.
    std::optional<std::uint64_t> startTime;
};

// SO_PEERCRED of `fd`, completed from /proc. Fails only when the kernel has
// no credentials for the socket.
Result<PeerIdentity> identifySocketPeer(int fd);
// The /proc facts of `pid`; the ids that /proc cannot give keep the values
// passed in.
PeerIdentity describeProcess(std::int32_t pid, std::uint32_t uid, std::uint32_t gid);

// The audit token's eight little-endian 32-bit words, in this order.
struct AuditTokenWords {
    std::uint32_t loginUid = kUnsetId;
    std::uint32_t effectiveUid = 0;
    std::uint32_t effectiveGid = 0;
    std::uint32_t realUid = 0;
    std::uint32_t realGid = 0;
    std::uint32_t pid = 0;
    std::uint32_t sessionId = kUnsetId;
    std::uint32_t startTimeLow = 0;  // the low 32 bits of the start time
    friend bool operator==(const AuditTokenWords&, const AuditTokenWords&) = default;
};
AuditToken encodeAuditToken(const AuditTokenWords& words);
AuditTokenWords decodeAuditToken(const AuditToken& token);
AuditTokenWords auditTokenWords(const PeerIdentity& peer);

// What an authorization form says about the process that made it.
struct FormIdentity {
    std::uint32_t pid = 0;
    std::uint32_t uid = 0;  // effective
    std::uint64_t startTime = 0;
    friend bool operator==(const FormIdentity&, const FormIdentity&) = default;
};

// The form: "TYAF", version 1 (u32), pid (u32), uid (u32), start time (u64),
// eight zero bytes; integers little-endian.
AuthorizationExternalForm encodeExternalForm(const FormIdentity& identity);
// None unless `bytes` is exactly such a form.
std::optional<FormIdentity> decodeExternalForm(std::span<const std::uint8_t> bytes);
// Whether `bytes` is the form that `peer` would make for itself.
bool formNamesPeer(std::span<const std::uint8_t> bytes, const PeerIdentity& peer);

// The calling process's own identity, as its forms carry it.
Result<FormIdentity> ownFormIdentity();

}  // namespace tessary::linux_backend
