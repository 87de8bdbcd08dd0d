#include "platform/linux/ipc/peer_identity.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <string>

#include "base/unique_fd.h"

namespace tessary::linux_backend {

namespace {

constexpr std::array<std::uint8_t, 4> kFormMagic = {'T', 'Y', 'A', 'F'};
constexpr std::uint32_t kFormVersion = 1;

// /proc files are generated on read; a few KiB covers stat, status and the
// one-number files.
constexpr std::size_t kProcFileLimit = std::size_t{16} * 1024;

Result<std::string> readProcFile(const std::string& path) {
    UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd) {
        return Error::posix(errno, "open " + path);
    }
    std::string text;
    char buf[4096];
    while (text.size() < kProcFileLimit) {
        const ssize_t n = ::read(fd.get(), buf, sizeof buf);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return Error::posix(errno, "read " + path);
        }
        if (n == 0) {
            break;
        }
        text.append(buf, static_cast<std::size_t>(n));
    }
    return text;
}

template <class T>
std::optional<T> parseNumber(std::string_view text) {
    T value{};
    const char* end = text.data() + text.size();
    auto [ptr, ec] = std::from_chars(text.data(), end, value);
    if (ec != std::errc() || ptr != end || text.empty()) {
        return std::nullopt;
    }
    return value;
}

// A file holding one unsigned 32-bit number (loginuid, sessionid).
std::uint32_t readIdFile(const std::string& path) {
    auto text = readProcFile(path);
    if (!text) {
        return kUnsetId;
    }
    std::string_view v = text.value();
    while (!v.empty() && (v.back() == '\n' || v.back() == ' ')) {
        v.remove_suffix(1);
    }
    return parseNumber<std::uint32_t>(v).value_or(kUnsetId);
}

void putLe32(std::uint8_t* out, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) {
        out[i] = static_cast<std::uint8_t>(v >> (8 * i));
    }
}
void putLe64(std::uint8_t* out, std::uint64_t v) {
    for (int i = 0; i < 8; ++i) {
        out[i] = static_cast<std::uint8_t>(v >> (8 * i));
    }
}
std::uint32_t getLe32(const std::uint8_t* in) {
    std::uint32_t v = 0;
    for (int i = 3; i >= 0; --i) {
        v = (v << 8) | in[i];
    }
    return v;
}
std::uint64_t getLe64(const std::uint8_t* in) {
    std::uint64_t v = 0;
    for (int i = 7; i >= 0; --i) {
        v = (v << 8) | in[i];
    }
    return v;
}

}  // namespace

std::optional<std::uint64_t> parseStatStartTime(std::string_view statLine) {
    const std::size_t close = statLine.rfind(')');
    if (close == std::string_view::npos) {
        return std::nullopt;
    }
    // After the name come fields 3 ("state") onwards, one space apart; the
    // start time is field 22, the twentieth of them.
    std::string_view rest = statLine.substr(close + 1);
    constexpr int kFieldsToSkip = 22 - 3;
    for (int field = 0;; ++field) {
        if (rest.empty() || rest.front() != ' ') {
            return std::nullopt;
        }
        rest.remove_prefix(1);
        const std::size_t end = rest.find_first_of(" \n");
        const std::string_view value = rest.substr(0, end);
        if (field == kFieldsToSkip) {
            return parseNumber<std::uint64_t>(value);
        }
        if (value.empty() || end == std::string_view::npos || rest[end] == '\n') {
            return std::nullopt;
        }
        rest.remove_prefix(end);
    }
}

Result<std::uint64_t> processStartTime(std::int32_t pid) {
    const std::string path = "/proc/" + std::to_string(pid) + "/stat";
    auto text = readProcFile(path);
    if (!text) {
        return text.error();
    }
    auto start = parseStatStartTime(text.value());
    if (!start) {
        return Error{"TYProcErrorDomain", 1, "no start time in " + path};
    }
    // A zombie's file stays until it is reaped, but the process has ended.
    const std::string_view line = text.value();
    const std::size_t close = line.rfind(')');
    const char state = close + 2 < line.size() ? line[close + 2] : 'X';
    if (state == 'Z' || state == 'X') {
        return Error{"TYProcErrorDomain", 3, "the process has ended: " + path};
    }
    return *start;
}

std::optional<StatusIds> parseStatusIds(std::string_view status) {
    // "Uid:\treal\teffective\tsaved\tfilesystem"
    auto ids = [&](std::string_view key) -> std::optional<std::pair<std::uint32_t, std::uint32_t>> {
        std::size_t at = 0;
        while (at < status.size()) {
            const std::size_t eol = status.find('\n', at);
            const std::string_view line = status.substr(
                at, eol == std::string_view::npos ? std::string_view::npos : eol - at);
            if (line.substr(0, key.size()) == key) {
                std::string_view rest = line.substr(key.size());
                std::uint32_t values[2] = {};
                for (std::uint32_t& v : values) {
                    const std::size_t begin = rest.find_first_not_of(" \t");
                    if (begin == std::string_view::npos) {
                        return std::nullopt;
                    }
                    rest.remove_prefix(begin);
                    const std::size_t end = rest.find_first_of(" \t");
                    auto parsed = parseNumber<std::uint32_t>(rest.substr(0, end));
                    if (!parsed) {
                        return std::nullopt;
                    }
                    v = *parsed;
                    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end);
                }
                return std::make_pair(values[0], values[1]);
            }
            if (eol == std::string_view::npos) {
                break;
            }
            at = eol + 1;
        }
        return std::nullopt;
    };
    auto uids = ids("Uid:");
    auto gids = ids("Gid:");
    if (!uids || !gids) {
        return std::nullopt;
    }
    return StatusIds{uids->first, uids->second, gids->first, gids->second};
}

std::optional<StatusIds> processStatusIds(std::int32_t pid) {
    auto status = readProcFile("/proc/" + std::to_string(pid) + "/status");
    return status ? parseStatusIds(status.value()) : std::nullopt;
}

PeerIdentity describeProcess(std::int32_t pid, std::uint32_t uid, std::uint32_t gid) {
    PeerIdentity peer;
    peer.pid = pid;
    peer.uid = uid;
    peer.gid = gid;
    peer.realUid = uid;
    peer.realGid = gid;
    if (auto ids = processStatusIds(pid)) {
        peer.realUid = ids->realUid;
        peer.realGid = ids->realGid;
    }
    const std::string dir = "/proc/" + std::to_string(pid);
    peer.loginUid = readIdFile(dir + "/loginuid");
    peer.sessionId = readIdFile(dir + "/sessionid");
    if (auto start = processStartTime(pid)) {
        peer.startTime = start.value();
    }
    return peer;
}

Result<PeerIdentity> identifySocketPeer(int fd) {
    ucred cred{};
    socklen_t len = sizeof cred;
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0) {
        return Error::posix(errno, "SO_PEERCRED");
    }
    if (cred.pid <= 0) {
        return Error{"TYProcErrorDomain", 2, "the peer has no process"};
    }
    return describeProcess(cred.pid, cred.uid, cred.gid);
}

AuditToken encodeAuditToken(const AuditTokenWords& w) {
    AuditToken token{};
    const std::uint32_t words[8] = {w.loginUid, w.effectiveUid, w.effectiveGid, w.realUid,
                                    w.realGid,  w.pid,          w.sessionId,    w.startTimeLow};
    for (std::size_t i = 0; i < 8; ++i) {
        putLe32(token.data() + 4 * i, words[i]);
    }
    return token;
}

AuditTokenWords decodeAuditToken(const AuditToken& token) {
    std::uint32_t v[8];
    for (std::size_t i = 0; i < 8; ++i) {
        v[i] = getLe32(token.data() + 4 * i);
    }
    return {v[0], v[1], v[2], v[3], v[4], v[5], v[6], v[7]};
}

AuditTokenWords auditTokenWords(const PeerIdentity& peer) {
    return {peer.loginUid,  peer.uid,
            peer.gid,       peer.realUid,
            peer.realGid,   static_cast<std::uint32_t>(peer.pid),
            peer.sessionId, static_cast<std::uint32_t>(peer.startTime.value_or(0))};
}

AuthorizationExternalForm encodeExternalForm(const FormIdentity& identity) {
    AuthorizationExternalForm form{};
    std::memcpy(form.data(), kFormMagic.data(), kFormMagic.size());
    putLe32(form.data() + 4, kFormVersion);
    putLe32(form.data() + 8, identity.pid);
    putLe32(form.data() + 12, identity.uid);
    putLe64(form.data() + 16, identity.startTime);
    return form;  // bytes 24 to 31 stay zero
}

std::optional<FormIdentity> decodeExternalForm(std::span<const std::uint8_t> bytes) {
    if (bytes.size() != AuthorizationExternalForm{}.size() ||
        std::memcmp(bytes.data(), kFormMagic.data(), kFormMagic.size()) != 0 ||
        getLe32(bytes.data() + 4) != kFormVersion) {
        return std::nullopt;
    }
    for (std::size_t i = 24; i < bytes.size(); ++i) {
        if (bytes[i] != 0) {
            return std::nullopt;
        }
    }
    return FormIdentity{getLe32(bytes.data() + 8), getLe32(bytes.data() + 12),
                        getLe64(bytes.data() + 16)};
}

bool formNamesPeer(std::span<const std::uint8_t> bytes, const PeerIdentity& peer) {
    auto claimed = decodeExternalForm(bytes);
    return claimed && peer.startTime &&
           *claimed ==
               FormIdentity{static_cast<std::uint32_t>(peer.pid), peer.uid, *peer.startTime};
}

Result<FormIdentity> ownFormIdentity() {
    const pid_t pid = ::getpid();
    auto start = processStartTime(pid);
    if (!start) {
        return start.error();
    }
    return FormIdentity{static_cast<std::uint32_t>(pid), ::geteuid(), start.value()};
}

}  // namespace tessary::linux_backend
