// Sockets: one socket unit per socket name.
//
// - Each socket name gets its own socket unit, because FileDescriptorName= is
//   per unit: LABEL.socket when the job has one name, LABEL-NAME.socket (NAME
//   escaped as systemd escapes unit names) when it has several; should such
//   a name be another job's unit, the submit fails as "already loaded".
// - Network sockets take numeric addresses or "localhost", numeric ports or
//   service names from the services database. Host names would need look-ups
//   that can change under a loaded job, and are refused. A socket of both
//   families (no SockFamily, or IPv4v6, without an address) listens on both
//   whatever the machine's default (BindIPv6Only=both); an IPv6 socket only
//   on IPv6 (ipv6-only), as it would on its own. Sequential-packet sockets
//   exist in systemd for Unix paths only.
// - Connecting sockets (SockPassive false) have no systemd counterpart and are
//   refused. SockPathOwner and SockPathGroup are SocketUser=/SocketGroup=.
//   SecureSocketWithKey is a socket at a fixed path under /run, named in the
//   variable the key gives, readable by root only.
// - inetdCompatibility: with Wait false each connection gets a process of its
//   own, with the connection as standard input and output (Accept=yes and a
//   template service, LABEL@.service); with Wait true the one listening
//   socket is the standard input and output of the job's one process. Either
//   way the job has one socket name; a job of the first kind cannot run but
//   for a connection (no RunAtLoad, KeepAlive, timer or watched path).

#include <arpa/inet.h>
#include <netdb.h>

#include "platform/linux/systemd/translator.h"

namespace tessary::linux_backend {

namespace {

bool isVariableName(std::string_view name) {
    bool valid = !name.empty() && !(name[0] >= '0' && name[0] <= '9');
    for (const char c : name) {
        valid = valid && ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                          (c >= '0' && c <= '9') || c == '_');
    }
    return valid;
}

}  // namespace

std::optional<int> servicesDatabasePort(std::string_view name, std::string_view protocol) {
    servent entry{};
    servent* found = nullptr;
    char buffer[4096];
    const std::string n(name);
    const std::string p(protocol);
    if (::getservbyname_r(n.c_str(), p.c_str(), &entry, buffer, sizeof buffer, &found) != 0 ||
        found == nullptr) {
        return std::nullopt;
    }
    return static_cast<int>(ntohs(static_cast<std::uint16_t>(found->s_port)));
}

Status Translator::socketEntry(const std::string& where, const plist::Value& entry,
                               SocketUnit& unit) {
    const plist::Dictionary* dict = entry.dictionary();
    if (dict == nullptr) {
        return refuse(where, "must hold socket dictionaries");
    }
    static constexpr std::string_view kKnown[] = {
        "SockType",      "SockPassive",   "SockPathName",       "SockPathMode",
        "SockPathOwner", "SockPathGroup", "SockNodeName",       "SockServiceName",
        "SockFamily",    "SockProtocol",  "SecureSocketWithKey"};
    for (const auto& [key, value] : *dict) {
        if (key == "Bonjour") {
            ignore(where + ".Bonjour", "systemd does not announce sockets over DNS-SD");
        } else if (key == "MulticastGroup") {
            ignore(where + ".MulticastGroup", "a socket unit cannot join a multicast group");
        } else if (std::find(std::begin(kKnown), std::end(kKnown), key) == std::end(kKnown)) {
            ignore(where + "." + key, "not a key of a socket");
        }
    }
    // A present value of the wrong type reads as "" and is refused below.
    auto text = [&](const char* key, const char* absent) {
        const plist::Value* v = entry.find(key);
        return v == nullptr ? std::string(absent) : v->string() != nullptr ? *v->string() : "";
    };
    const std::string type = text("SockType", "stream");
    const char* directive = type == "stream"      ? "ListenStream"
                            : type == "dgram"     ? "ListenDatagram"
                            : type == "seqpacket" ? "ListenSequentialPacket"
                                                  : nullptr;
    if (directive == nullptr) {
        return refuse(where + ".SockType",
                      describeValue(type) + " is not stream, dgram or seqpacket");
    }
    if (const plist::Value* passive = entry.find("SockPassive");
        passive != nullptr && !passive->boolValue()) {
        return refuse(where + ".SockPassive",
                      "connecting sockets (SockPassive false) are not supported");
    }
    const std::string family = text("SockFamily", "any");
    if (family != "any" && family != "IPv4" && family != "IPv6" && family != "IPv4v6" &&
        family != "Unix") {
        return refuse(where + ".SockFamily", describeValue(family) + " is not IPv4, IPv6 or Unix");
    }
    if (const plist::Value* protocol = entry.find("SockProtocol")) {
        const std::string p = text("SockProtocol", "");
        if (!(p == "TCP" && type != "dgram") && !(p == "UDP" && type == "dgram")) {
            return refuse(where + ".SockProtocol", protocol->description() +
                                                       " is not the protocol of a " + type +
                                                       " socket (TCP for stream, UDP for dgram)");
        }
    }
    for (auto [key, field] :
         {std::pair{"SockPathOwner", &unit.owner}, {"SockPathGroup", &unit.group}}) {
        if (const plist::Value* v = entry.find(key)) {
            auto id = integerAt(where + "." + key, *v, 0, UINT32_MAX - 1);
            if (!id) {
                return id.error();
            }
            if (*field && **field != id.value()) {
                return refuse(where + "." + key, "sockets of one name need one owner and group");
            }
            *field = id.value();
        }
    }
    auto setMode = [&](const plist::Value& m) -> Status {
        auto bits = integerAt(where + ".SockPathMode", m, 0, 07777);
        if (!bits) {
            return bits.error();
        }
        if (unit.mode && *unit.mode != bits.value()) {
            return refuse(where + ".SockPathMode", "sockets of one name need one SockPathMode");
        }
        unit.mode = bits.value();
        return {};
    };

    const plist::Value* path = entry.find("SockPathName");
    if (const plist::Value* key = entry.find("SecureSocketWithKey")) {
        const std::string variable = text("SecureSocketWithKey", "");
        if (!isVariableName(variable)) {
            return refuse(where + ".SecureSocketWithKey",
                          key->description() + " is not a valid variable name");
        }
        if (path != nullptr) {
            return refuse(where + ".SecureSocketWithKey", "a secure socket has no SockPathName");
        }
        const std::string name = where.substr(std::string_view("Sockets.").size());
        const std::string file = "/run/" + out_.label + "-sockets/" + escapeUnitNameComponent(name);
        unit.listen.add(directive, escapeSpecifiers(file));
        unit.secureKeys.push_back(variable + "=" + file);
        approximate(where + ".SecureSocketWithKey",
                    "the socket is " + file + ", not a new random path at each load");
        if (const plist::Value* m = entry.find("SockPathMode")) {
            return setMode(*m);
        }
        return setMode(plist::Value::integer(0600));
    }
    if (path != nullptr) {
        auto p = pathValue(where + ".SockPathName", path);
        if (!p) {
            return p.error();
        }
        if (family != "any" && family != "Unix") {
            return refuse(where + ".SockPathName", "a socket path needs the Unix family");
        }
        unit.listen.add(directive, p.value());
        if (const plist::Value* m = entry.find("SockPathMode")) {
            return setMode(*m);
        }
        return {};
    }
    if (family == "Unix") {
        return refuse(where + ".SockFamily", "a Unix socket needs SockPathName");
    }
    if (type == "seqpacket") {
        return refuse(where + ".SockType",
                      "systemd listens on sequential-packet sockets at Unix paths only");
    }

    std::optional<std::int64_t> port;
    if (const plist::Value* service = entry.find("SockServiceName")) {
        port = integerOf(*service);
        if (const std::string* s = service->string(); s != nullptr && !s->empty()) {
            if (s->size() <= 5 && s->find_first_not_of("0123456789") == s->npos) {
                port = std::stoll(*s);
            } else if (options_.servicePort) {
                const auto named = options_.servicePort(*s, type == "dgram" ? "udp" : "tcp");
                if (!named) {
                    return refuse(where + ".SockServiceName",
                                  describeValue(*s) +
                                      " is not a service the services database "
                                      "knows for " +
                                      (type == "dgram" ? "udp" : "tcp"));
                }
                port = *named;
            }
        }
    }
    if (!port || *port < 1 || *port > 65535) {
        return refuse(where + ".SockServiceName",
                      "must be a port number from 1 to 65535 or a service name");
    }
    const std::string portText = std::to_string(*port);
    const bool v4 = family != "IPv6";
    const bool v6 = family != "IPv4";
    const plist::Value* node = entry.find("SockNodeName");
    if (node == nullptr) {
        // Without an address: every address of the families asked for.
        if (v4 && v6) {
            unit.listen.add(directive, portText);
            unit.dualStack = true;
        } else if (v4) {
            unit.listen.add(directive, "0.0.0.0:" + portText);
        } else {
            unit.listen.add(directive, "[::]:" + portText);
            unit.ipv6Only = true;
        }
        return {};
    }
    const std::string* host = node->string();
    unsigned char buf[16];
    if (host != nullptr && *host == "localhost") {
        if (v4) {
            unit.listen.add(directive, "127.0.0.1:" + portText);
        }
        if (v6) {
            unit.listen.add(directive, "[::1]:" + portText);
        }
    } else if (host != nullptr && v4 && ::inet_pton(AF_INET, host->c_str(), buf) == 1) {
        unit.listen.add(directive, *host + ":" + portText);
    } else if (host != nullptr && v6 && ::inet_pton(AF_INET6, host->c_str(), buf) == 1) {
        unit.listen.add(directive, "[" + *host + "]:" + portText);
        unit.ipv6Only = true;
    } else {
        return refuse(
            where + ".SockNodeName",
            node->description() + " is not a numeric address of the socket's family or localhost");
    }
    return {};
}

Status Translator::inetd(const plist::Dictionary& sockets) {
    const plist::Value* compat = job_.find("inetdCompatibility");
    const plist::Value* wait = compat->find("Wait");
    if (compat->dictionary() == nullptr || wait == nullptr) {
        return refuse("inetdCompatibility", "must be a dictionary holding Wait");
    }
    if (sockets.size() != 1) {
        return refuse("inetdCompatibility",
                      "needs exactly one socket name: its socket or connection becomes the "
                      "standard input");
    }
    if (job_.find("StandardInPath") != nullptr) {
        return refuse("StandardInPath", "with inetdCompatibility, standard input is the socket");
    }
    const plist::Array entries = sockets.begin()->second.array() != nullptr
                                     ? *sockets.begin()->second.array()
                                     : plist::Array{sockets.begin()->second};
    if (wait->boolValue()) {
        if (entries.size() != 1) {
            return refuse("inetdCompatibility.Wait",
                          "the one listening socket is handed over as standard input, and the "
                          "socket name holds several");
        }
    } else {
        for (const auto& entry : entries) {
            if (const std::string* type = entry.stringAt("SockType");
                type != nullptr && *type == "dgram") {
                return refuse("inetdCompatibility.Wait",
                              "datagram sockets have no connections to hand over one by one");
            }
        }
        if (out_.label.find('@') != std::string::npos) {
            return refuse("inetdCompatibility.Wait",
                          "a label holding '@' cannot name the template of the connections' "
                          "services");
        }
        out_.accepts = true;
        out_.serviceUnit = out_.label + "@.service";
    }
    // Standard output and error follow the socket unless a file is named.
    service_.add("StandardInput", "socket");
    return {};
}

Status Translator::sockets() {
    const plist::Value* sockets = job_.find("Sockets");
    if (sockets == nullptr) {
        if (job_.find("inetdCompatibility") != nullptr) {
            return refuse("inetdCompatibility", "the job has no Sockets to hand over");
        }
        return {};
    }
    const plist::Dictionary* byName = sockets->dictionary();
    if (byName == nullptr) {
        return refuse("Sockets", "must be a dictionary of socket names");
    }
    if (job_.find("inetdCompatibility") != nullptr) {
        if (Status s = inetd(*byName); !s) {
            return s;
        }
    }
    for (const auto& [name, value] : *byName) {
        const std::string where = "Sockets." + name;
        // A descriptor name is printable ASCII without ':'.
        bool validName = !name.empty() && name.size() <= 255 && name.front() != ' ' &&
                         name.back() != ' ' && name.back() != '\\';
        for (const char c : name) {
            validName = validName && c >= ' ' && c <= '~' && c != ':';
        }
        if (!validName) {
            return refuse("Sockets", "the socket name " + describeValue(name) +
                                         " cannot name a file descriptor (printable ASCII "
                                         "without ':', no blank or backslash at an end)");
        }
        const plist::Array entries =
            value.array() != nullptr ? *value.array() : plist::Array{value};
        if (entries.empty()) {
            return refuse(where, "holds no socket");
        }
        SocketUnit unit;
        for (const auto& entry : entries) {
            if (Status s = socketEntry(where, entry, unit); !s) {
                return s;
            }
        }
        if (unit.ipv6Only && unit.dualStack) {
            return refuse(where, "IPv6-only and dual-stack sockets cannot share one name");
        }
        const std::string unitName =
            byName->size() == 1 ? out_.label + ".socket"
                                : out_.label + "-" + escapeUnitNameComponent(name) + ".socket";
        if (unitName.size() > kUnitNameMax) {
            return refuse(where, "the socket unit name is longer than " +
                                     std::to_string(kUnitNameMax) + " characters");
        }
        Section& socket = unit.listen;
        socket.add("FileDescriptorName", escapeSpecifiers(name));
        if (out_.accepts) {
            socket.add("Accept", "yes");
        } else {
            socket.add("Service", out_.serviceUnit);
        }
        // The socket file goes with the job instead of lingering after it.
        socket.add("RemoveOnStop", "yes");
        if (unit.mode) {
            char buf[8];
            (void)std::snprintf(buf, sizeof buf, "%04o", static_cast<unsigned>(*unit.mode));
            socket.add("SocketMode", buf);
        }
        if (unit.owner) {
            socket.add("SocketUser", std::to_string(*unit.owner));
        }
        if (unit.group) {
            socket.add("SocketGroup", std::to_string(*unit.group));
        }
        if (unit.ipv6Only) {
            socket.add("BindIPv6Only", "ipv6-only");
        } else if (unit.dualStack) {
            socket.add("BindIPv6Only", "both");
        }
        for (const auto& variable : unit.secureKeys) {
            service_.add("Environment", quotedWord(variable, false));
        }
        Section description;
        description.add("Description", "Sockets " + escapeSpecifiers(name) + " of " + out_.label);
        companions_.push_back({unitName, {{"Unit", description}, {"Socket", socket}}});
        out_.socketUnits.push_back(unitName);
    }
    if (!out_.socketUnits.empty() && !out_.accepts) {
        std::string list;
        for (const auto& u : out_.socketUnits) {
            list += (list.empty() ? "" : " ") + u;
        }
        service_.add("Sockets", list);
    }
    return {};
}

}  // namespace tessary::linux_backend
