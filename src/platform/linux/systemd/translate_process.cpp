// The program, its environment and the process it runs in.
//
// - Every word of ExecStart is written in double quotes with backslash escapes
//   for backslash, quote and control characters, "%%" for "%" and "$$" for
//   "$", so the process gets each argument byte for byte and no value can end
//   the line. The executable is written with the "@" prefix so that argv[0]
//   is exactly the job's first argument, which may differ from the program.
//   systemd reads "@-:+!" at the start of the program as prefixes even inside
//   the quotes ("+" would run it with every privilege whatever User= says):
//   such a program is refused. So is a relative path with a directory, which
//   systemd does not run, and a path that is not normalized.
// - A program named without a directory is looked up in the job's PATH, as
//   the job format does: ExecSearchPath= is that PATH, whose entries must be
//   absolute and normalized for systemd to keep them. A job without a PATH
//   gets the project's helper directory first, then systemd's own path.
// - Environment= values are not variable-expanded, so "$" stays as it is
//   there.
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
// - Without StandardOutPath/StandardErrorPath the output goes where systemd
//   sends it (the journal), not to /dev/null: on Linux that is where an
//   administrator looks. A job that names only an output file keeps its
//   errors there too (the journal), not in that file.
// - ExitTimeOut is TimeoutStopSec= (0 meaning no limit, as the job format
//   reads it), 20 seconds when absent as in the job format, where systemd
//   would wait 90. AbandonProcessGroup true is KillMode=process.
// - Resource limits: systemd sets a soft and a hard limit together, so a job
//   that gives one keeps the other as the manager would have given it
//   (TranslationOptions::inheritedLimit). Where Linux's rlimit does nothing
//   (RLIMIT_RSS) or counts something else (RLIMIT_NPROC counts every process
//   of the user, and not at all for root), the job's unit is limited instead:
//   MemoryMax=/MemoryHigh= and TasksMax=.

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <map>

#include "base/utf8.h"
#include "platform/linux/systemd/translator.h"

namespace tessary::linux_backend {

namespace {

// Where systemd looks for programs of system services; kept after the helper
// directory when that is put first.
constexpr std::string_view kDefaultSearchPath =
    "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";
// What runs a job whose program is kPosixShell; see the comment at the top.
constexpr std::string_view kPosixShell = "/bin/sh";
constexpr std::string_view kShellWithShopt = "/bin/bash";
constexpr std::string_view kExecPrefixes = "@-:+!";
constexpr int kDefaultExitTimeOut = 20;

bool isNameCharacter(char c, bool first) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' ||
           (!first && ((c >= '0' && c <= '9') || c == '.' || c == '-'));
}

// A user or group name systemd takes as that name: the portable form (and a
// trailing "$", as machine accounts have).
bool isPortableName(std::string_view name) {
    if (name.empty() || name.size() > 256) {
        return false;
    }
    for (std::size_t i = 0; i < name.size(); ++i) {
        if (!isNameCharacter(name[i], i == 0) && !(name[i] == '$' && i + 1 == name.size())) {
            return false;
        }
    }
    return true;
}

std::string limitText(std::uint64_t value) {
    return value == UINT64_MAX ? "infinity" : std::to_string(value);
}

}  // namespace

Status Translator::program() {
    std::vector<std::string> argv;
    if (const plist::Value* args = job_.find("ProgramArguments")) {
        const plist::Array* array = args->array();
        if (array == nullptr) {
            return refuse("ProgramArguments", "must be an array of strings");
        }
        for (const auto& a : *array) {
            if (a.string() == nullptr) {
                return refuse("ProgramArguments",
                              "must be an array of strings, not hold " + a.description());
            }
            argv.push_back(*a.string());
        }
    }
    const char* pathKey = "Program";
    if (const plist::Value* p = job_.find("Program")) {
        if (p->string() == nullptr) {
            return refuse("Program", "must be a string");
        }
        programPath_ = *p->string();
        if (argv.empty()) {
            argv.push_back(programPath_);
        }
    } else if (!argv.empty()) {
        programPath_ = argv.front();
        pathKey = "ProgramArguments";
    } else {
        return refuse("Program", "the job has neither Program nor ProgramArguments");
    }
    const std::string& path = programPath_;
    if (path.empty() || hasControlCharacter(path) || !isValidUtf8(path)) {
        return refuse(pathKey, "the program path " + describeValue(path) +
                                   " is empty, holds control characters or is not UTF-8");
    }
    if (kExecPrefixes.find(path.front()) != std::string_view::npos) {
        return refuse(pathKey, "the program path " + describeValue(path) + " begins with '" +
                                   path.front() +
                                   "', which systemd reads as a prefix of the command");
    }
    if (path.find('/') != std::string::npos) {
        if (const std::string why = unnormalizedReason(path); !why.empty()) {
            return refuse(pathKey,
                          "the program path " + describeValue(path) + " is refused: " + why);
        }
    }
    if (const plist::Value* glob = job_.find("EnableGlobbing");
        glob != nullptr && glob->boolValue()) {
        for (const auto& a : argv) {
            if (a.find_first_of("*?[{~") != std::string::npos) {
                return refuse("EnableGlobbing",
                              "systemd does not expand patterns in arguments, and " +
                                  describeValue(a) + " holds one");
            }
        }
    }
    std::string line = "@" + quotedWord(path == kPosixShell ? kShellWithShopt : path, false);
    for (const auto& a : argv) {
        if (!isValidUtf8(a)) {
            return refuse(pathKey, "the program argument " + describeValue(a) + " is not UTF-8");
        }
        line += ' ';
        line += quotedWord(a, true);
    }
    service_.add("ExecStart", line);
    return {};
}

Status Translator::environment() {
    const std::string* jobPath = nullptr;
    if (const plist::Value* env = job_.find("EnvironmentVariables")) {
        const plist::Dictionary* dict = env->dictionary();
        if (dict == nullptr) {
            return refuse("EnvironmentVariables", "must be a dictionary of strings");
        }
        for (const auto& [name, value] : *dict) {
            bool validName = !name.empty() && !(name[0] >= '0' && name[0] <= '9');
            for (const char c : name) {
                validName = validName && ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                                          (c >= '0' && c <= '9') || c == '_');
            }
            const std::string key = "EnvironmentVariables." + name;
            if (!validName) {
                return refuse("EnvironmentVariables",
                              describeValue(name) + " is not a valid variable name");
            }
            const std::string* s = value.string();
            if (s == nullptr) {
                return refuse(key, "must be a string");
            }
            if (!isValidUtf8(*s)) {
                return refuse(key, "is not UTF-8");
            }
            service_.add("Environment", quotedWord(name + "=" + *s, false));
            if (name == "PATH") {
                jobPath = s;
            }
        }
    }
    std::string search;
    if (jobPath != nullptr) {
        if (programPath_.find('/') != std::string::npos) {
            return {};  // nothing to look up; the PATH reaches the job as set
        }
        search = *jobPath;
    } else if (!options_.helperBinDirectory.empty()) {
        // Both the search path for a program named without a directory and,
        // since the job does not set one, its PATH.
        search = options_.helperBinDirectory + ":" + std::string(kDefaultSearchPath);
    } else {
        return {};
    }
    std::size_t start = 0;
    while (start <= search.size()) {
        const std::size_t end = std::min(search.find(':', start), search.size());
        const std::string entry = search.substr(start, end - start);
        std::string why = entry.empty() ? "an empty entry means the working directory, which "
                                          "systemd does not search"
                                        : unwritableReason(entry);
        if (why.empty()) {
            why = unnormalizedReason(entry);
        }
        if (!why.empty()) {
            return refuse(jobPath != nullptr ? "EnvironmentVariables.PATH" : "helper directory",
                          "the entry " + describeValue(entry) + " cannot be searched for " +
                              describeValue(programPath_) + ": " + why);
        }
        start = end + 1;
    }
    service_.add("ExecSearchPath", escapeSpecifiers(search));
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
            auto value = pathValue(p.key, v);
            if (!value) {
                return value.error();
            }
            service_.add(p.directive, p.prefix + value.value());
        }
    }
    if (job_.find("StandardOutPath") != nullptr && job_.find("StandardErrorPath") == nullptr) {
        service_.add("StandardError", "journal");
    }
    for (const auto& [key, directive] : {std::pair{"UserName", "User"}, {"GroupName", "Group"}}) {
        if (const plist::Value* v = job_.find(key)) {
            auto value = plainValue(key, v);
            if (!value) {
                return value.error();
            }
            if (!isPortableName(*v->string())) {
                return refuse(key, describeValue(*v->string()) +
                                       " is not a name systemd takes as written (letters, "
                                       "digits, '_', '.' and '-', not first a digit, '.' or "
                                       "'-')");
            }
            service_.add(directive, value.value());
        }
    }
    if (const plist::Value* v = job_.find("InitGroups");
        v != nullptr && !v->boolValue() && job_.find("UserName") != nullptr) {
        return refuse("InitGroups",
                      "systemd always gives the user's supplementary groups, which the job "
                      "asks not to have");
    }
    if (const plist::Value* v = job_.find("Umask")) {
        std::optional<std::int64_t> mask = integerOf(*v);
        // The string form is read as strtoul reads it with base 0: "022"
        // octal, "18" decimal, "0x12" hexadecimal.
        if (const std::string* s = v->string(); s != nullptr && !s->empty()) {
            char* end = nullptr;
            errno = 0;
            const unsigned long bits = std::strtoul(s->c_str(), &end, 0);
            mask = errno == 0 && end != nullptr && *end == '\0' && bits <= 0777
                       ? std::optional<std::int64_t>(static_cast<std::int64_t>(bits))
                       : std::nullopt;
        }
        if (!mask || *mask < 0 || *mask > 0777) {
            return refuse("Umask", "must be a mode from 0 to 0777, not " + v->description());
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
    std::int64_t exitTimeOut = kDefaultExitTimeOut;
    if (const plist::Value* v = job_.find("ExitTimeOut")) {
        auto seconds = integerAt("ExitTimeOut", *v, 0, INT32_MAX);
        if (!seconds) {
            return seconds.error();
        }
        exitTimeOut = seconds.value();
    }
    service_.add("TimeoutStopSec", exitTimeOut == 0 ? "infinity" : std::to_string(exitTimeOut));
    if (const plist::Value* v = job_.find("AbandonProcessGroup"); v != nullptr && v->boolValue()) {
        service_.add("KillMode", "process");
    }

    // Scheduling: the job format's process types as CPU and I/O weights and
    // classes. Background work yields the CPU (batch scheduling, a fifth of
    // the usual weight) and the disk (the idle I/O class).
    bool idleIo = false;
    if (const plist::Value* v = job_.find("ProcessType")) {
        const std::string* type = v->string();
        const std::string t = type != nullptr ? *type : "";
        if (t == "Background") {
            service_.add("CPUSchedulingPolicy", "batch");
            service_.add("CPUWeight", "20");
            service_.add("IOWeight", "20");
            idleIo = true;
        } else if (t == "Interactive") {
            service_.add("CPUWeight", "200");
            service_.add("IOWeight", "200");
        } else if (t == "Adaptive") {
            approximate("ProcessType",
                        "systemd has no class that follows the job's activity: "
                        "it runs as Standard");
        } else if (t != "Standard") {
            return refuse("ProcessType", describeValue(t) +
                                             " is not Background, Standard, Adaptive or "
                                             "Interactive");
        }
    }
    if (const plist::Value* v = job_.find("LowPriorityIO"); v != nullptr && v->boolValue()) {
        idleIo = true;
    }
    if (const plist::Value* v = job_.find("LowPriorityBackgroundIO");
        v != nullptr && v->boolValue()) {
        approximate("LowPriorityBackgroundIO",
                    "Linux has no background state: the job's I/O is always at idle priority");
        idleIo = true;
    }
    if (idleIo) {
        service_.add("IOSchedulingClass", "idle");
    }
    if (const plist::Value* v = job_.find("LaunchOnlyOnce"); v != nullptr && v->boolValue()) {
        // Once it has run, the service stays active: no trigger starts it
        // again until the job is removed.
        service_.add("RemainAfterExit", "yes");
    }
    if (const plist::Value* v = job_.find("SessionCreate"); v != nullptr && v->boolValue()) {
        service_.add("PAMName", "login");
    }
    return {};
}

Status Translator::resourceLimits() {
    struct Limit {
        const char* key;
        const char* directive;  // the rlimit's; empty: a cgroup setting instead
    };
    static constexpr Limit kLimits[] = {
        {"Core", "LimitCORE"},          {"CPU", "LimitCPU"},
        {"Data", "LimitDATA"},          {"FileSize", "LimitFSIZE"},
        {"MemoryLock", "LimitMEMLOCK"}, {"NumberOfFiles", "LimitNOFILE"},
        {"Stack", "LimitSTACK"},        {"NumberOfProcesses", ""},
        {"ResidentSetSize", ""},
    };
    struct Given {
        std::optional<std::uint64_t> soft, hard;
    };
    std::map<std::string, Given> given;
    for (const char* which : {"SoftResourceLimits", "HardResourceLimits"}) {
        const plist::Value* v = job_.find(which);
        if (v == nullptr) {
            continue;
        }
        if (v->dictionary() == nullptr) {
            return refuse(which, "must be a dictionary of limits");
        }
        for (const auto& [name, value] : *v->dictionary()) {
            const std::string& key = name;
            const std::string where = std::string(which) + "." + key;
            if (std::none_of(std::begin(kLimits), std::end(kLimits),
                             [&](const Limit& l) { return key == l.key; })) {
                return refuse(where, "is not a resource limit of the job format");
            }
            const auto i = value.asInteger();
            if (!i || (!i->isUnsigned && i->asSigned() < 0)) {
                return refuse(where,
                              "must be a whole number of at least 0, not " + value.description());
            }
            const std::uint64_t n =
                i->isUnsigned ? UINT64_MAX : static_cast<std::uint64_t>(i->asSigned());
            (which[0] == 'S' ? given[key].soft : given[key].hard) = n;
        }
    }
    for (const Limit& limit : kLimits) {
        auto it = given.find(limit.key);
        if (it == given.end()) {
            continue;
        }
        const Given& g = it->second;
        const std::string key =
            std::string(g.soft ? "Soft" : "Hard") + "ResourceLimits." + limit.key;
        if (std::string_view(limit.key) == "NumberOfProcesses") {
            service_.add("TasksMax", limitText(g.hard ? *g.hard : *g.soft));
            approximate(key,
                        "TasksMax= counts the job's own processes and threads, where the "
                        "rlimit counts every process of its user (and none of root's)");
            continue;
        }
        if (std::string_view(limit.key) == "ResidentSetSize") {
            if (g.soft) {
                service_.add("MemoryHigh", limitText(*g.soft));
            }
            if (g.hard) {
                service_.add("MemoryMax", limitText(*g.hard));
            }
            approximate(key,
                        "Linux does not enforce the resident-set rlimit: the memory of the "
                        "job's whole unit is limited instead");
            continue;
        }
        ResourceLimit set;
        if (!g.soft || !g.hard) {
            std::optional<ResourceLimit> inherited;
            if (options_.inheritedLimit) {
                inherited = options_.inheritedLimit(limit.directive);
            }
            if (!inherited) {
                return refuse(key, std::string("systemd sets both limits, and the one the job "
                                               "does not give could not be learned from the "
                                               "service manager (") +
                                       limit.directive + ")");
            }
            set.soft = g.soft ? *g.soft : std::min(inherited->soft, *g.hard);
            set.hard = g.hard ? *g.hard : inherited->hard;
        } else {
            set = {*g.soft, *g.hard};
        }
        if (set.soft > set.hard) {
            return refuse(key, "the soft limit " + limitText(set.soft) +
                                   " is above the hard limit " + limitText(set.hard) +
                                   (g.hard ? "" : " the job keeps"));
        }
        service_.add(limit.directive, limitText(set.soft) + ":" + limitText(set.hard));
    }
    return {};
}

Status Translator::conditions() {
    auto hostNames = [&](const char* key) -> Result<std::vector<std::string>> {
        const plist::Value* v = job_.find(key);
        if (v == nullptr) {
            return std::vector<std::string>{};
        }
        auto names = stringsAt(key, *v);
        if (!names) {
            return names;
        }
        for (const auto& name : names.value()) {
            bool valid = !name.empty() && name.size() <= 253;
            bool allHex = name.size() == 32;
            for (const char c : name) {
                valid = valid && ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                                  (c >= '0' && c <= '9') || c == '-' || c == '.');
                allHex = allHex && std::isxdigit(static_cast<unsigned char>(c)) != 0;
            }
            if (!valid || allHex) {
                return refuse(
                    key, describeValue(name) + " is not a host name systemd compares as written");
            }
        }
        return names;
    };
    auto to = hostNames("LimitLoadToHosts");
    if (!to) {
        return to.error();
    }
    auto from = hostNames("LimitLoadFromHosts");
    if (!from) {
        return from.error();
    }
    // Conditions on every unit of the job: a socket or timer of a job that
    // may not run here does not listen or fire either.
    for (const auto& host : to.value()) {
        if (to.value().size() == 1) {
            everyUnit_.add("ConditionHost", host);
        } else if (Status s = orCondition("LimitLoadToHosts", "ConditionHost=|" + host); !s) {
            return s;
        }
    }
    for (const auto& host : from.value()) {
        everyUnit_.add("ConditionHost", "!" + host);
    }
    if (const plist::Value* v = job_.find("LimitLoadToSessionType")) {
        auto types = stringsAt("LimitLoadToSessionType", *v);
        if (!types) {
            return types.error();
        }
        if (std::find(types.value().begin(), types.value().end(), "System") ==
            types.value().end()) {
            return refuse("LimitLoadToSessionType",
                          "the job is for other sessions than System, the only one a system "
                          "daemon's jobs run in");
        }
    }
    return {};
}

Status Translator::orCondition(const std::string& key, const std::string& line) {
    if (!orConditionKey_.empty() && orConditionKey_ != key) {
        return refuse(key, "systemd ORs every condition of this kind in a unit, and " +
                               orConditionKey_ + " needs such conditions too");
    }
    orConditionKey_ = key;
    // Host conditions hold for every unit; the others for the service.
    (key == "LimitLoadToHosts" ? everyUnit_ : unit_).lines.push_back(line);
    return {};
}

}  // namespace tessary::linux_backend
