#include "platform/linux/systemd/unit_translation.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <map>
#include <optional>
#include <set>

// How a job dictionary maps onto units, and the choices made where the two
// models differ:
//
// - The job is LABEL.service (Type=exec, so that a program that cannot be
//   executed fails the start instead of counting as started). Sockets become
//   socket units and calendar or interval starts one LABEL.timer; both point
//   at the service explicitly.
// - Every word of ExecStart is written in double quotes with backslash escapes
//   for backslash, quote and control characters, "%%" for "%" and "$$" for
//   "$", so the process gets each argument byte for byte and no value can end
//   the line. The executable is written with the "@" prefix so that argv[0]
//   is exactly the job's first argument, which may differ from the program.
//   The executable path is neither variable-expanded by systemd nor allowed to
//   hold control characters, so it only gets the "%" escape. Environment=
//   values are not variable-expanded either, so "$" stays as it is there.
// - Values systemd reads without unquoting (paths, user names) cannot carry
//   control characters or leading/trailing blanks; such a value fails the
//   translation instead of being altered. So does text that is not UTF-8,
//   which would make systemd reject the whole unit.
// - KeepAlive true (or OnDemand false) is Restart=always. Its dictionary form:
//   SuccessfulExit true restarts after a clean exit (on-success), false after
//   an unclean one (on-failure); Crashed true restarts after a crash signal
//   (on-abort), false after anything but a crash (always, with the crash
//   signals excluded). Several conditions restart when any of them holds;
//   where systemd has no exact union the nearest wider setting (always) is
//   used. PathState, OtherJobEnabled, NetworkState and AfterInitialDemand have
//   no counterpart and are reported as ignored; a KeepAlive dictionary made
//   only of those neither restarts nor starts the job.
// - A restarting job waits ThrottleInterval seconds (default 10, the job
//   format's own default) before each restart and is never given up on
//   (StartLimitIntervalSec=0): a job that is kept alive stays alive.
// - When both Day and Weekday are given in one calendar entry, the entry fires
//   when either matches, as cron does; it becomes two OnCalendar= lines.
//   Timers are accurate to one second (AccuracySec=1s) instead of systemd's
//   one minute, since calendar jobs name exact minutes.
// - StartInterval is OnActiveSec= plus OnUnitActiveSec=: the first run one
//   interval after submission, then one interval after each start.
// - Each socket name gets its own socket unit, because FileDescriptorName= is
//   per unit: LABEL.socket when the job has one name, LABEL-NAME.socket (NAME
//   escaped as systemd escapes unit names) when it has several; should such
//   a name be another job's unit, the submit fails as "already loaded". Network
//   sockets take numeric addresses or "localhost" and numeric ports; host and
//   service names would need look-ups at translation time and are refused.
//   Connecting sockets (SockPassive false) have no systemd counterpart and are
//   refused. SockPathOwner, SockPathGroup, SockProtocol, Bonjour,
//   MulticastGroup and SecureSocketWithKey are reported as ignored.
// - ExitTimeOut is TimeoutStopSec= (0 meaning no limit, as the job format
//   reads it); AbandonProcessGroup true is KillMode=process; standard output
//   and error are appended to, as the job format has them.
// - Without StandardOutPath/StandardErrorPath the output goes where systemd
//   sends it (the journal), not to /dev/null: on Linux that is where an
//   administrator looks.
// - A job whose program is "/bin/sh" runs "/bin/bash" instead, with its
//   arguments, argv[0] included, unchanged. Job scripts are written for a
//   /bin/sh that is bash in its POSIX mode: the uninstall clean-up job, for
//   one, begins with "shopt -s nullglob" so that an empty directory runs
//   nothing. Debian's /bin/sh is dash, which has no shopt: it would print an
//   error and run the loop once with the unexpanded pattern. bash started
//   with an argv[0] named "sh" (the usual "/bin/sh") takes the POSIX mode, as
//   the scripts expect, and keeps shopt and nullglob. bash is Essential on
//   Debian, so it is there wherever the daemon runs; the translation does not
//   look for it, which keeps it pure and its result the same on every
//   machine. Only that exact path is mapped: a job naming another shell gets
//   that shell.

namespace tessary::linux_backend {

namespace {

constexpr std::size_t kUnitNameMax = 255;
// Where systemd looks for programs of system services; kept after the helper
// directory when that is put first.
constexpr std::string_view kDefaultSearchPath =
    "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";
constexpr int kDefaultThrottleSeconds = 10;
// What runs a job whose program is kPosixShell; see the comment at the top.
constexpr std::string_view kPosixShell = "/bin/sh";
constexpr std::string_view kShellWithShopt = "/bin/bash";

Error invalid(std::string text) {
    return Error{"SystemdUnitTranslation", EINVAL, std::move(text)};
}

bool isValidUtf8(std::string_view s) {
    std::size_t i = 0;
    while (i < s.size()) {
        const auto c = static_cast<unsigned char>(s[i]);
        std::size_t extra = 0;
        std::uint32_t cp = 0;
        if (c < 0x80) {
            ++i;
            continue;
        }
        if ((c & 0xE0) == 0xC0) {
            extra = 1;
            cp = c & 0x1F;
        } else if ((c & 0xF0) == 0xE0) {
            extra = 2;
            cp = c & 0x0F;
        } else if ((c & 0xF8) == 0xF0) {
            extra = 3;
            cp = c & 0x07;
        } else {
            return false;
        }
        if (i + extra >= s.size()) {
            return false;
        }
        for (std::size_t k = 1; k <= extra; ++k) {
            const auto cc = static_cast<unsigned char>(s[i + k]);
            if ((cc & 0xC0) != 0x80) {
                return false;
            }
            cp = (cp << 6) | (cc & 0x3F);
        }
        // Overlong forms, surrogates and values beyond Unicode.
        static constexpr std::uint32_t kMin[] = {0, 0x80, 0x800, 0x10000};
        if (cp < kMin[extra] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
            return false;
        }
        i += extra + 1;
    }
    return true;
}

bool hasControlCharacter(std::string_view s) {
    for (const char ch : s) {
        const auto c = static_cast<unsigned char>(ch);
        if (c < 0x20 || c == 0x7F) {
            return true;
        }
    }
    return false;
}

bool isBlank(char c) {
    return c == ' ' || c == '\t';
}

std::string escapeSpecifiers(std::string_view s) {
    std::string out;
    out.reserve(s.size());
    for (const char c : s) {
        out += c;
        if (c == '%') {
            out += '%';
        }
    }
    return out;
}

// One word as systemd's unquoting reads it back exactly: double quotes,
// backslash escapes for the characters that would end or change the word,
// "%%" against specifier expansion and, where systemd expands variables,
// "$$" against that.
std::string quotedWord(std::string_view s, bool expandsVariables) {
    std::string out = "\"";
    for (const char ch : s) {
        const auto c = static_cast<unsigned char>(ch);
        switch (ch) {
            case '\\':
                out += "\\\\";
                break;
            case '"':
                out += "\\\"";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\t':
                out += "\\t";
                break;
            case '%':
                out += "%%";
                break;
            case '$':
                out += expandsVariables ? "$$" : "$";
                break;
            default:
                if (c < 0x20 || c == 0x7F) {
                    char buf[8];
                    (void)std::snprintf(buf, sizeof buf, "\\x%02x", c);
                    out += buf;
                } else {
                    out += ch;
                }
        }
    }
    out += '"';
    return out;
}

std::string describeValue(std::string_view s) {
    std::string out = "\"";
    for (const char ch : s) {
        const auto c = static_cast<unsigned char>(ch);
        if (c < 0x20 || c == 0x7F) {
            char buf[8];
            (void)std::snprintf(buf, sizeof buf, "\\x%02x", c);
            out += buf;
        } else {
            out += ch;
        }
    }
    return out + "\"";
}

std::optional<std::int64_t> integerOf(const plist::Value& v) {
    if (const auto i = v.asInteger()) {
        if (i->isUnsigned) {
            return std::nullopt;
        }
        return i->asSigned();
    }
    if (const auto r = v.asReal()) {
        if (std::isfinite(*r) && std::floor(*r) == *r && std::fabs(*r) < 1e15) {
            return static_cast<std::int64_t>(*r);
        }
    }
    return std::nullopt;
}

// systemd's escaping of a string into a unit name component: characters
// outside [A-Za-z0-9:_.] (and a leading '.') become \xNN.
std::string escapeUnitNameComponent(std::string_view s) {
    std::string out;
    for (std::size_t i = 0; i < s.size(); ++i) {
        const auto c = static_cast<unsigned char>(s[i]);
        const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                           (c >= '0' && c <= '9') || c == ':' || c == '_' || (c == '.' && i > 0);
        if (plain) {
            out += static_cast<char>(c);
        } else {
            char buf[8];
            (void)std::snprintf(buf, sizeof buf, "\\x%02x", c);
            out += buf;
        }
    }
    return out;
}

struct Section {
    std::vector<std::string> lines;
    void add(std::string_view key, std::string_view value) {
        lines.push_back(std::string(key) + "=" + std::string(value));
    }
};

std::string unitText(std::string_view label,
                     const std::vector<std::pair<std::string, Section>>& sections) {
    std::string text = "# Written by tessaryd for the job ";
    text += label;
    text += "; removed with it.\n";
    for (const auto& [name, section] : sections) {
        text += "\n[" + name + "]\n";
        for (const auto& line : section.lines) {
            text += line;
            text += '\n';
        }
    }
    return text;
}

class Translator {
  public:
    Translator(const plist::Value& job, const TranslationOptions& options)
        : job_(job), options_(options) {}

    Result<UnitTranslation> run();

  private:
    // Each step returns an error or fills the sections below.
    Status program();
    Status environment();
    Status keepAlive();
    Status processSettings();
    Status sockets();
    Status timer();

    // What the socket dictionaries of one name add up to.
    struct SocketUnit {
        Section listen;
        std::optional<std::int64_t> mode;
        bool ipv6Only = false;
        bool dualStack = false;
    };
    Status socketEntry(const std::string& where, const plist::Value& entry, SocketUnit& unit);

    // A value systemd takes as written (no unquoting): plain text, no
    // control characters, no blanks at either end; optionally an absolute
    // path.
    Result<std::string> plainValue(std::string_view key, const plist::Value* value,
                                   bool absolutePath);
    Result<std::int64_t> integerAt(std::string_view key, const plist::Value& value,
                                   std::int64_t min, std::int64_t max);
    void ignore(std::string key) { out_.ignoredKeys.push_back(std::move(key)); }

    const plist::Value& job_;
    const TranslationOptions& options_;
    UnitTranslation out_;
    Section unit_;
    Section service_;
    std::vector<UnitFile> companionUnits_;  // sockets, then the timer
    std::vector<std::string> calendar_;
    std::vector<std::string> timerExtra_;
    int restartSeconds_ = kDefaultThrottleSeconds;
};

// Keys read by the translation; every other top-level key is ignored.
bool isHandledKey(std::string_view key) {
    // clang-format off
    static constexpr std::string_view kKeys[] = {
        "Label", "Program", "ProgramArguments", "EnvironmentVariables", "RunAtLoad", "KeepAlive",
        "OnDemand", "StartCalendarInterval", "StartInterval", "Sockets", "WorkingDirectory",
        "UserName", "GroupName", "RootDirectory", "Umask", "Nice", "StandardInPath",
        "StandardOutPath", "StandardErrorPath", "ExitTimeOut", "ThrottleInterval",
        "AbandonProcessGroup"};
    // clang-format on
    return std::find(std::begin(kKeys), std::end(kKeys), key) != std::end(kKeys);
}

Result<std::string> Translator::plainValue(std::string_view key, const plist::Value* value,
                                           bool absolutePath) {
    const std::string* s = value != nullptr ? value->string() : nullptr;
    if (s == nullptr) {
        return invalid(std::string(key) + " must be a string");
    }
    if (s->empty() || !isValidUtf8(*s) || hasControlCharacter(*s) || isBlank(s->front()) ||
        isBlank(s->back())) {
        return invalid(std::string(key) + " " + describeValue(*s) +
                       " cannot be expressed in a unit file (empty, not UTF-8, control "
                       "characters, or blanks at either end)");
    }
    if (absolutePath && s->front() != '/') {
        return invalid(std::string(key) + " " + describeValue(*s) + " is not an absolute path");
    }
    return escapeSpecifiers(*s);
}

Result<std::int64_t> Translator::integerAt(std::string_view key, const plist::Value& value,
                                           std::int64_t min, std::int64_t max) {
    const auto i = integerOf(value);
    if (!i || *i < min || *i > max) {
        return invalid(std::string(key) + " must be an integer from " + std::to_string(min) +
                       " to " + std::to_string(max) + ", not " + value.description());
    }
    return *i;
}

Status Translator::program() {
    std::vector<std::string> argv;
    if (const plist::Value* args = job_.find("ProgramArguments")) {
        const plist::Array* array = args->array();
        if (array == nullptr) {
            return invalid("ProgramArguments must be an array of strings");
        }
        for (const auto& a : *array) {
            if (a.string() == nullptr) {
                return invalid("ProgramArguments must be an array of strings, not hold " +
                               a.description());
            }
            argv.push_back(*a.string());
        }
    }
    std::string path;
    if (const plist::Value* p = job_.find("Program")) {
        if (p->string() == nullptr) {
            return invalid("Program must be a string");
        }
        path = *p->string();
        if (argv.empty()) {
            argv.push_back(path);
        }
    } else if (!argv.empty()) {
        path = argv.front();
    } else {
        return invalid("the job has neither Program nor ProgramArguments");
    }
    if (path.empty() || hasControlCharacter(path) || !isValidUtf8(path)) {
        return invalid("the program path " + describeValue(path) +
                       " is empty, holds control characters or is not UTF-8");
    }
    if (path == kPosixShell) {
        path = kShellWithShopt;  // argv, argv[0] included, stays as the job gives it
    }
    std::string line = "@" + quotedWord(path, false);
    for (const auto& a : argv) {
        if (!isValidUtf8(a)) {
            return invalid("the program argument " + describeValue(a) + " is not UTF-8");
        }
        line += ' ';
        line += quotedWord(a, true);
    }
    service_.add("ExecStart", line);
    return {};
}

Status Translator::environment() {
    bool setsPath = false;
    if (const plist::Value* env = job_.find("EnvironmentVariables")) {
        const plist::Dictionary* dict = env->dictionary();
        if (dict == nullptr) {
            return invalid("EnvironmentVariables must be a dictionary of strings");
        }
        for (const auto& [name, value] : *dict) {
            bool validName = !name.empty() && !(name[0] >= '0' && name[0] <= '9');
            for (const char c : name) {
                validName = validName && ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                                          (c >= '0' && c <= '9') || c == '_');
            }
            if (!validName) {
                return invalid("EnvironmentVariables: " + describeValue(name) +
                               " is not a valid variable name");
            }
            const std::string* s = value.string();
            if (s == nullptr) {
                return invalid("EnvironmentVariables: the value of " + name + " must be a string");
            }
            if (!isValidUtf8(*s)) {
                return invalid("EnvironmentVariables: the value of " + name + " is not UTF-8");
            }
            service_.add("Environment", quotedWord(name + "=" + *s, false));
            setsPath = setsPath || name == "PATH";
        }
    }
    const std::string& helper = options_.helperBinDirectory;
    if (!helper.empty() && !setsPath) {
        if (helper.front() != '/' || hasControlCharacter(helper) || !isValidUtf8(helper) ||
            helper.find_first_of(": ") != std::string::npos) {
            return invalid("the helper directory " + describeValue(helper) +
                           " cannot be put on a search path");
        }
        // Both the search path for a program named without a directory and,
        // since the job does not set one, its PATH.
        service_.add("ExecSearchPath",
                     escapeSpecifiers(helper) + ":" + std::string(kDefaultSearchPath));
    }
    return {};
}

Status Translator::keepAlive() {
    enum : unsigned { kClean = 1, kUnclean = 2, kCrash = 4, kAll = 7 };
    unsigned when = 0;
    if (const plist::Value* keep = job_.find("KeepAlive")) {
        if (const plist::Dictionary* dict = keep->dictionary()) {
            for (const auto& [key, value] : *dict) {
                if (key == "SuccessfulExit") {
                    when |= value.boolValue() ? kClean : (kUnclean | kCrash);
                } else if (key == "Crashed") {
                    when |= value.boolValue() ? kCrash : (kClean | kUnclean);
                } else {
                    ignore("KeepAlive." + key);
                }
            }
        } else if (keep->boolValue()) {
            when = kAll;
        }
        if (job_.find("OnDemand") != nullptr) {
            ignore("OnDemand");  // the older spelling; KeepAlive decides
        }
    } else if (const plist::Value* onDemand = job_.find("OnDemand")) {
        when = onDemand->boolValue() ? 0U : unsigned{kAll};
    }
    if (when == 0) {
        return {};
    }
    if (const plist::Value* t = job_.find("ThrottleInterval")) {
        auto seconds = integerAt("ThrottleInterval", *t, 0, INT32_MAX);
        if (!seconds) {
            return seconds.error();
        }
        restartSeconds_ = static_cast<int>(seconds.value());
    }
    switch (when) {
        case kClean:
            service_.add("Restart", "on-success");
            break;
        case kUnclean | kCrash:
            service_.add("Restart", "on-failure");
            break;
        case kCrash:
            service_.add("Restart", "on-abort");
            break;
        case kClean | kUnclean:
            service_.add("Restart", "always");
            service_.add("RestartPreventExitStatus",
                         "SIGILL SIGTRAP SIGABRT SIGBUS SIGFPE SIGSEGV SIGSYS");
            break;
        default:
            service_.add("Restart", "always");
    }
    service_.add("RestartSec", std::to_string(restartSeconds_));
    out_.startService = true;
    return {};
}

Status Translator::processSettings() {
    struct PathKey {
        const char* key;
        const char* directive;
        const char* prefix;
    };
    static constexpr PathKey kPaths[] = {
        {"WorkingDirectory", "WorkingDirectory", ""},
        {"RootDirectory", "RootDirectory", ""},
        {"StandardInPath", "StandardInput", "file:"},
        {"StandardOutPath", "StandardOutput", "append:"},
        {"StandardErrorPath", "StandardError", "append:"},
    };
    for (const auto& p : kPaths) {
        if (const plist::Value* v = job_.find(p.key)) {
            auto value = plainValue(p.key, v, true);
            if (!value) {
                return value.error();
            }
            service_.add(p.directive, p.prefix + value.value());
        }
    }
    for (const auto& [key, directive] : {std::pair{"UserName", "User"}, {"GroupName", "Group"}}) {
        if (const plist::Value* v = job_.find(key)) {
            auto value = plainValue(key, v, false);
            if (!value) {
                return value.error();
            }
            if (value.value().find_first_of(" \t") != std::string::npos) {
                return invalid(std::string(key) + " must not hold blanks");
            }
            service_.add(directive, value.value());
        }
    }
    if (const plist::Value* v = job_.find("Umask")) {
        std::optional<std::int64_t> mask = integerOf(*v);
        // The string form holds octal digits.
        if (const std::string* s = v->string(); s != nullptr && !s->empty() && s->size() <= 4 &&
                                                s->find_first_not_of("01234567") == s->npos) {
            mask = std::stoll(*s, nullptr, 8);
        }
        if (!mask || *mask < 0 || *mask > 0777) {
            return invalid("Umask must be a mode from 0 to 0777, not " + v->description());
        }
        char buf[8];
        (void)std::snprintf(buf, sizeof buf, "%04o", static_cast<unsigned>(*mask));
        service_.add("UMask", buf);
    }
    if (const plist::Value* v = job_.find("Nice")) {
        auto nice = integerAt("Nice", *v, -20, 19);
        if (!nice) {
            return nice.error();
        }
        service_.add("Nice", std::to_string(nice.value()));
    }
    if (const plist::Value* v = job_.find("ExitTimeOut")) {
        auto seconds = integerAt("ExitTimeOut", *v, 0, INT32_MAX);
        if (!seconds) {
            return seconds.error();
        }
        service_.add("TimeoutStopSec",
                     seconds.value() == 0 ? "infinity" : std::to_string(seconds.value()));
    }
    if (const plist::Value* v = job_.find("AbandonProcessGroup"); v != nullptr && v->boolValue()) {
        service_.add("KillMode", "process");
    }
    return {};
}

// One socket dictionary: its Listen...= lines, added to the unit of its name.
Status Translator::socketEntry(const std::string& where, const plist::Value& entry,
                               SocketUnit& unit) {
    const plist::Dictionary* dict = entry.dictionary();
    if (dict == nullptr) {
        return invalid(where + " must hold socket dictionaries");
    }
    static const std::set<std::string, std::less<>> kKnown = {
        "SockType",     "SockPassive",     "SockPathName", "SockPathMode",
        "SockNodeName", "SockServiceName", "SockFamily"};
    for (const auto& [key, value] : *dict) {
        if (kKnown.count(key) == 0) {
            ignore(where + "." + key);
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
        return invalid(where + ".SockType " + describeValue(type) +
                       " is not stream, dgram or seqpacket");
    }
    if (const plist::Value* passive = entry.find("SockPassive");
        passive != nullptr && !passive->boolValue()) {
        return invalid(where + ": connecting sockets (SockPassive false) are not supported");
    }
    const std::string family = text("SockFamily", "any");
    if (family != "any" && family != "IPv4" && family != "IPv6" && family != "IPv4v6" &&
        family != "Unix") {
        return invalid(where + ".SockFamily " + describeValue(family) +
                       " is not IPv4, IPv6 or Unix");
    }

    if (const plist::Value* path = entry.find("SockPathName")) {
        auto p = plainValue(where + ".SockPathName", path, true);
        if (!p) {
            return p.error();
        }
        if (family != "any" && family != "Unix") {
            return invalid(where + ": a socket path needs the Unix family");
        }
        unit.listen.add(directive, p.value());
        if (const plist::Value* m = entry.find("SockPathMode")) {
            auto bits = integerAt(where + ".SockPathMode", *m, 0, 07777);
            if (!bits) {
                return bits.error();
            }
            if (unit.mode && *unit.mode != bits.value()) {
                return invalid(where + ": sockets of one name need one SockPathMode");
            }
            unit.mode = bits.value();
        }
        return {};
    }
    if (family == "Unix") {
        return invalid(where + ": a Unix socket needs SockPathName");
    }

    std::optional<std::int64_t> port;
    if (const plist::Value* service = entry.find("SockServiceName")) {
        port = integerOf(*service);
        if (const std::string* s = service->string();
            s != nullptr && !s->empty() && s->size() <= 5 &&
            s->find_first_not_of("0123456789") == s->npos) {
            port = std::stoll(*s);
        }
    }
    if (!port || *port < 1 || *port > 65535) {
        return invalid(where + ": SockServiceName must be a port number from 1 to 65535");
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
    } else {
        return invalid(where + ".SockNodeName " + node->description() +
                       " is not a numeric address of the socket's family or localhost");
    }
    return {};
}

Status Translator::sockets() {
    const plist::Value* sockets = job_.find("Sockets");
    if (sockets == nullptr) {
        return {};
    }
    const plist::Dictionary* byName = sockets->dictionary();
    if (byName == nullptr) {
        return invalid("Sockets must be a dictionary of socket names");
    }
    for (const auto& [name, value] : *byName) {
        const std::string where = "Sockets." + name;
        // A descriptor name is printable ASCII without ':'.
        bool validName =
            !name.empty() && name.size() <= 255 && !isBlank(name.front()) && !isBlank(name.back());
        for (const char c : name) {
            validName = validName && c >= ' ' && c <= '~' && c != ':';
        }
        if (!validName) {
            return invalid("the socket name " + describeValue(name) +
                           " cannot name a file descriptor (printable ASCII without ':')");
        }
        const plist::Array entries =
            value.array() != nullptr ? *value.array() : plist::Array{value};
        if (entries.empty()) {
            return invalid(where + " holds no socket");
        }
        SocketUnit unit;
        for (const auto& entry : entries) {
            if (Status s = socketEntry(where, entry, unit); !s) {
                return s;
            }
        }
        if (unit.ipv6Only && unit.dualStack) {
            return invalid(where + ": IPv6-only and dual-stack sockets cannot share one name");
        }
        const std::string unitName =
            byName->size() == 1 ? out_.label + ".socket"
                                : out_.label + "-" + escapeUnitNameComponent(name) + ".socket";
        if (unitName.size() > kUnitNameMax) {
            return invalid("the socket unit name for " + where + " is longer than " +
                           std::to_string(kUnitNameMax) + " characters");
        }
        Section& socket = unit.listen;
        socket.add("FileDescriptorName", escapeSpecifiers(name));
        socket.add("Service", out_.serviceUnit);
        // The socket file goes with the job instead of lingering after it.
        socket.add("RemoveOnStop", "yes");
        if (unit.mode) {
            char buf[8];
            (void)std::snprintf(buf, sizeof buf, "%04o", static_cast<unsigned>(*unit.mode));
            socket.add("SocketMode", buf);
        }
        if (unit.ipv6Only) {
            socket.add("BindIPv6Only", "ipv6-only");
        }
        Section description;
        description.add("Description", "Sockets " + escapeSpecifiers(name) + " of " + out_.label);
        companionUnits_.push_back(
            {unitName, unitText(out_.label, {{"Unit", description}, {"Socket", socket}})});
        out_.socketUnits.push_back(unitName);
    }
    if (!out_.socketUnits.empty()) {
        std::string list;
        for (const auto& u : out_.socketUnits) {
            list += (list.empty() ? "" : " ") + u;
        }
        service_.add("Sockets", list);
    }
    return {};
}

Status Translator::timer() {
    if (const plist::Value* cal = job_.find("StartCalendarInterval")) {
        plist::Array entries;
        if (cal->array() != nullptr) {
            entries = *cal->array();
        } else {
            entries.push_back(*cal);
        }
        for (const auto& entry : entries) {
            const plist::Dictionary* dict = entry.dictionary();
            if (dict == nullptr) {
                return invalid("StartCalendarInterval must hold calendar dictionaries");
            }
            struct Field {
                const char* key;
                std::int64_t min;
                std::int64_t max;
                std::optional<std::int64_t> value;
            };
            Field fields[] = {{"Minute", 0, 59, {}},
                              {"Hour", 0, 23, {}},
                              {"Day", 1, 31, {}},
                              {"Weekday", 0, 7, {}},
                              {"Month", 1, 12, {}}};
            for (const auto& [key, value] : *dict) {
                Field* field = nullptr;
                for (auto& f : fields) {
                    field = key == f.key ? &f : field;
                }
                if (field == nullptr) {
                    ignore("StartCalendarInterval." + key);
                    continue;
                }
                auto v = integerAt("StartCalendarInterval." + key, value, field->min, field->max);
                if (!v) {
                    return v.error();
                }
                field->value = v.value();
            }
            auto part = [](const std::optional<std::int64_t>& v, bool twoDigits) {
                if (!v) {
                    return std::string("*");
                }
                char buf[8];
                (void)std::snprintf(buf, sizeof buf, twoDigits ? "%02lld" : "%lld",
                                    static_cast<long long>(*v));
                return std::string(buf);
            };
            const auto& [minute, hour, day, weekday, month] = fields;
            const std::string time =
                part(hour.value, true) + ":" + part(minute.value, true) + ":00";
            static constexpr const char* kDays[] = {"Sun", "Mon", "Tue", "Wed",
                                                    "Thu", "Fri", "Sat", "Sun"};
            const std::string monthPart = part(month.value, true);
            if (day.value && weekday.value) {
                // cron's rule: either the day of the month or the weekday.
                calendar_.push_back("*-" + monthPart + "-" + part(day.value, true) + " " + time);
                calendar_.push_back(std::string(kDays[*weekday.value]) + " *-" + monthPart + "-* " +
                                    time);
            } else {
                const std::string dow =
                    weekday.value ? std::string(kDays[*weekday.value]) + " " : std::string();
                calendar_.push_back(dow + "*-" + monthPart + "-" + part(day.value, true) + " " +
                                    time);
            }
        }
    }
    if (const plist::Value* interval = job_.find("StartInterval")) {
        auto seconds = integerAt("StartInterval", *interval, 1, INT32_MAX);
        if (!seconds) {
            return seconds.error();
        }
        timerExtra_.push_back("OnActiveSec=" + std::to_string(seconds.value()));
        timerExtra_.push_back("OnUnitActiveSec=" + std::to_string(seconds.value()));
    }
    if (calendar_.empty() && timerExtra_.empty()) {
        return {};
    }
    out_.timerUnit = out_.label + ".timer";
    Section unit;
    unit.add("Description", "Start times of " + out_.label);
    Section timer;
    timer.add("Unit", out_.serviceUnit);
    timer.add("AccuracySec", "1s");
    for (const auto& c : calendar_) {
        timer.add("OnCalendar", c);
    }
    timer.lines.insert(timer.lines.end(), timerExtra_.begin(), timerExtra_.end());
    companionUnits_.push_back(
        {out_.timerUnit, unitText(out_.label, {{"Unit", unit}, {"Timer", timer}})});
    return {};
}

Result<UnitTranslation> Translator::run() {
    if (job_.dictionary() == nullptr) {
        return invalid("the job is not a dictionary");
    }
    const std::string* label = job_.stringAt("Label");
    if (label == nullptr) {
        return invalid("the job has no Label string");
    }
    if (Status s = checkJobLabel(*label); !s) {
        return s.error();
    }
    out_.label = *label;
    out_.serviceUnit = serviceUnitName(*label);

    for (const auto& [key, value] : *job_.dictionary()) {
        if (!isHandledKey(key)) {
            ignore(key);
        }
    }
    for (auto step : {&Translator::program, &Translator::environment, &Translator::keepAlive,
                      &Translator::processSettings, &Translator::sockets, &Translator::timer}) {
        if (Status s = (this->*step)(); !s) {
            return Error{s.error().domain, s.error().code,
                         "Job " + out_.label + ": " + s.error().description};
        }
    }
    if (const plist::Value* run = job_.find("RunAtLoad"); run != nullptr && run->boolValue()) {
        out_.startService = true;
    }

    unit_.add("Description", out_.label);
    // Starts are never refused for coming too often; a restarting job has
    // its own pause (RestartSec).
    unit_.add("StartLimitIntervalSec", "0");
    Section service;
    service.add("Type", "exec");
    service.lines.insert(service.lines.end(), service_.lines.begin(), service_.lines.end());
    out_.units.push_back(
        {out_.serviceUnit, unitText(out_.label, {{"Unit", unit_}, {"Service", service}})});
    for (auto& u : companionUnits_) {
        out_.units.push_back(std::move(u));
    }
    return std::move(out_);
}

}  // namespace

std::vector<std::string> UnitTranslation::unitsToStart() const {
    std::vector<std::string> names = socketUnits;
    if (!timerUnit.empty()) {
        names.push_back(timerUnit);
    }
    if (startService) {
        names.push_back(serviceUnit);
    }
    return names;
}

std::string serviceUnitName(std::string_view label) {
    return std::string(label) + ".service";
}

Status checkJobLabel(std::string_view label) {
    auto refuse = [&](const std::string& why) {
        return invalid(describeValue(label) + " is not a valid systemd unit name: " + why);
    };
    if (label.empty()) {
        return refuse("it is empty");
    }
    if (serviceUnitName(label).size() > kUnitNameMax) {
        return refuse("with its suffix it is longer than " + std::to_string(kUnitNameMax) +
                      " characters");
    }
    for (const char c : label) {
        const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                        (c >= '0' && c <= '9') || c == ':' || c == '_' || c == '.' || c == '-' ||
                        c == '@';
        if (!ok) {
            return refuse("only letters, digits and \":_.-@\" are allowed");
        }
    }
    if (label.front() == '.') {
        return refuse("a name beginning with '.' is a hidden file the manager skips");
    }
    if (serviceUnitName(label).find("..") != std::string::npos) {
        return refuse("it must not hold \"..\"");
    }
    if (label.front() == '@') {
        return refuse("it must not begin with '@'");
    }
    if (label.back() == '@') {
        return refuse("a name ending in '@' is a template, which cannot run");
    }
    return {};
}

Result<UnitTranslation> translateJob(const plist::Value& job, const TranslationOptions& options) {
    return Translator(job, options).run();
}

}  // namespace tessary::linux_backend
