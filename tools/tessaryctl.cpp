// tessaryctl: the command-line client of tessaryd.

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "base/unique_fd.h"
#include "client/tessary_client.h"
#include "job_check.h"
#include "json_text.h"
#include "platform/linux/fs/posix_file_operations.h"
#include "platform/linux/log/syslog_system_log.h"
#include "platform/linux/polkit/polkit_authorization_service.h"
#include "platform/paths.h"
#include "plist/codec.h"
#include "prefs/preferences.h"
#include "service_details.h"
#include "terminal_authorization.h"
#include "unit_states.h"

extern char** environ;

namespace {

namespace plist = tessary::plist;
namespace client = tessary::client;

constexpr int kExitSuccess = 0;
constexpr int kExitFailed = 1;       // the daemon answered with return code 1
constexpr int kExitUnreachable = 2;  // no daemon, or no answer in time
constexpr int kExitUsage = 64;

// How a command's result is shown without --json.
enum class Output : std::uint8_t {
    Nothing,        // enable, disable, reset
    Services,       // list: one "enabled"/"disabled" line per service
    Status,         // the status word
    Label,          // create, destroy: the service's label
    Labels,         // restore-services: the previously enabled labels, one per line
    ArgumentLines,  // program arguments, one per line
    PropertyList,   // sockets, calendar intervals: an XML property list
};

struct Command {
    std::string_view name;  // as typed
    std::string_view wire;  // "commandString"
    bool takesService;      // SERVICE, under "service"
    bool takesJob;          // --job JOB, under "job"
    // --file PLIST goes under this key; empty: no file.
    std::string_view fileKey;
    bool fileRequired;
    bool takesArguments;  // -- ARG..., under "programArguments"
    // The result key holding the value to show, for the override commands.
    std::string_view valueKey;
    Output output;
    // What a refusal can mean besides a missing right.
    std::string_view refusal = "";
};

// Every command the client offers as one request. "promote" is made of two
// of them around a command of the caller's (see runPromotion).
constexpr std::array kCommands = {
    Command{"list", "list", false, false, "", false, false, "", Output::Services},
    Command{"status", "status", false, false, "", false, false, "", Output::Status},
    Command{"enable", "enable", true, false, "", false, false, "", Output::Nothing,
            "no such service"},
    Command{"disable", "disable", true, false, "", false, false, "", Output::Nothing,
            "no such service"},
    Command{"reset", "reset", true, false, "", false, false, "", Output::Nothing,
            "no such service"},
    Command{"program-arguments", "programArguments", true, true, "", false, true,
            "programArguments", Output::ArgumentLines, "no such service or job"},
    Command{"sockets", "sockets", true, true, "sockets", false, false, "sockets",
            Output::PropertyList, "no such service or job"},
    Command{"start-calendar-intervals", "startCalendarIntervals", true, true,
            "startCalendarIntervals", false, false, "startCalendarIntervals", Output::PropertyList,
            "no such service or job"},
    Command{"create", "create", false, false, "serviceDictionary", true, false, "", Output::Label,
            "the definition has no Label, or its label is in use"},
    Command{"destroy", "destroy", true, false, "", false, false, "", Output::Label,
            "no such service"},
    Command{"begin-promotion", "beginPromotion", false, false, "", false, false, "",
            Output::Nothing},
    Command{"end-promotion", "endPromotion", false, false, "", false, false, "", Output::Nothing,
            "the machine could not be marked as set up"},
    Command{"restore-services", "restoreServices", false, false, "", false, false, "",
            Output::Labels},
    Command{"demote", "demote", false, false, "", false, false, "", Output::Nothing},
};

constexpr std::string_view kPromote = "promote";
constexpr std::string_view kLogs = "logs";
constexpr std::string_view kShow = "show";
constexpr std::string_view kCheck = "check";

constexpr const char* kNotAuthorized =
    "not authorized: run as root or authenticate as an administrator";
constexpr const char* kDaemonJournal = "journalctl -t com.orvane.tessaryd";

constexpr const char* kUsage =
    "usage: tessaryctl [--socket PATH] [--timeout SECONDS] [--json] [--no-ask-password] COMMAND\n"
    "       tessaryctl --help | help\n"
    "\n"
    "commands:\n"
    "  list                              the services, whether each is enabled, and\n"
    "                                    what the service manager says of it\n"
    "  status                            the setup status\n"
    "  logs SERVICE                      the service's recent journal lines\n"
    "  show SERVICE                      the service's definition and overrides\n"
    "                                    (read from the files, as root)\n"
    "  enable SERVICE                    switch a service on\n"
    "  disable SERVICE                   switch a service off\n"
    "  reset SERVICE                     switch a service off and reset it\n"
    "  program-arguments SERVICE [--job JOB] [-- ARG...]\n"
    "                                    show, or with ARGs set, a job's arguments\n"
    "  sockets SERVICE [--job JOB] [--file PLIST]\n"
    "                                    show, or from PLIST set, a job's sockets\n"
    "  start-calendar-intervals SERVICE [--job JOB] [--file PLIST]\n"
    "                                    show, or from PLIST set, a job's start times\n"
    "  check --file PLIST                what the service PLIST describes becomes in\n"
    "                                    systemd, and what of it would differ or be\n"
    "                                    refused; asks nothing of the daemon\n"
    "  create --file PLIST [--force]     add the service PLIST describes; one that\n"
    "                                    cannot run here only with --force\n"
    "                                    (--file -: read PLIST from standard input)\n"
    "  destroy SERVICE                   remove a service\n"
    "  promote -- COMMAND [ARG...]       begin a promotion, run COMMAND, and end the\n"
    "                                    promotion when COMMAND succeeds\n"
    "  begin-promotion                   begin a promotion for this process\n"
    "  end-promotion                     end the promotion: set-up done\n"
    "  restore-services                  enable again the services enabled before;\n"
    "                                    shows them\n"
    "  demote                            stop everything and uninstall the daemon\n"
    "\n"
    "exit status: 0 success, 1 refused (by the daemon, or a definition that cannot\n"
    "run here), 2 no daemon or no answer, 64 usage error; promote: COMMAND's\n"
    "status when it fails\n";

struct Invocation {
    const Command* command = nullptr;
    std::string socket = client::kDefaultSocket;
    std::chrono::milliseconds timeout = client::kDefaultTimeout;
    bool json = false;
    std::optional<std::string> service;
    std::optional<std::string> job;
    std::optional<std::string> file;
    std::optional<std::vector<std::string>> arguments;
    // promote: COMMAND and its arguments, in `arguments`.
    bool promote = false;
    // logs SERVICE: shown from the journal, without the daemon.
    bool logs = false;
    // show SERVICE: read from the daemon's files, without the daemon.
    bool show = false;
    // check --file PLIST: translated here, without the daemon.
    bool check = false;
    // create --force: also a definition that cannot run here.
    bool force = false;
    bool mayAskPassword = true;
};

// Ends the program with a usage error: the error and where the usage is, so
// that the error stays on the screen.
[[noreturn]] void usageError(const std::string& message) {
    (void)std::fprintf(stderr, "tessaryctl: %s\nTry 'tessaryctl --help'.\n", message.c_str());
    std::exit(kExitUsage);
}

[[noreturn]] void showUsage() {
    (void)std::fputs(kUsage, stdout);
    std::exit(std::fflush(stdout) == 0 ? kExitSuccess : kExitFailed);
}

std::chrono::milliseconds parseTimeout(const std::string& text) {
    char* end = nullptr;
    errno = 0;
    const double seconds = std::strtod(text.c_str(), &end);
    if (text.empty() || end != text.c_str() + text.size() || errno != 0 ||
        !std::isfinite(seconds) || seconds <= 0 || seconds > 86400) {
        usageError("--timeout wants a number of seconds, not \"" + text + "\"");
    }
    return std::chrono::milliseconds(static_cast<long long>(std::ceil(seconds * 1000)));
}

Invocation parseArguments(int argc, char** argv) {
    Invocation inv;
    std::vector<std::string> positional;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--") {
            inv.arguments.emplace(argv + i + 1, argv + argc);
            break;
        }
        if (arg == "-h" || arg == "--help") {
            showUsage();
        }
        if (arg.size() < 2 || arg[0] != '-') {
            positional.push_back(arg);
            continue;
        }
        const std::size_t eq = arg.find('=');
        const std::string name = arg.substr(0, eq);
        if (name == "--json" && eq == std::string::npos) {
            inv.json = true;
            continue;
        }
        if (name == "--no-ask-password" && eq == std::string::npos) {
            inv.mayAskPassword = false;
            continue;
        }
        if (name == "--force" && eq == std::string::npos) {
            inv.force = true;
            continue;
        }
        if (name != "--socket" && name != "--timeout" && name != "--job" && name != "--file") {
            usageError("unknown option " + arg);
        }
        std::string value;
        if (eq != std::string::npos) {
            value = arg.substr(eq + 1);
        } else if (i + 1 < argc) {
            value = argv[++i];
        } else {
            usageError(name + " wants a value");
        }
        if (name == "--socket") {
            inv.socket = value;
        } else if (name == "--timeout") {
            inv.timeout = parseTimeout(value);
        } else if (name == "--job") {
            inv.job = value;
        } else {
            inv.file = value;
        }
    }

    if (positional.empty()) {
        usageError("no command given");
    }
    if (positional[0] == "help") {
        showUsage();
    }
    if (inv.force && positional[0] != "create") {
        usageError("only create takes --force");
    }
    if (positional[0] == kLogs || positional[0] == kShow) {
        if (positional.size() != 2 || inv.job || inv.file || inv.arguments) {
            usageError(positional[0] + " takes one SERVICE");
        }
        inv.service = positional[1];
        (positional[0] == kLogs ? inv.logs : inv.show) = true;
        return inv;
    }
    if (positional[0] == kCheck) {
        if (positional.size() != 1 || !inv.file || inv.job || inv.arguments) {
            usageError("check takes only --file PLIST");
        }
        inv.check = true;
        return inv;
    }
    if (positional[0] == kPromote) {
        if (positional.size() > 1 || inv.job || inv.file || inv.json) {
            usageError("promote takes only -- COMMAND [ARG...]");
        }
        if (!inv.arguments || inv.arguments->empty()) {
            usageError("promote wants -- COMMAND [ARG...]");
        }
        inv.promote = true;
        return inv;
    }
    for (const Command& c : kCommands) {
        if (c.name == positional[0]) {
            inv.command = &c;
        }
    }
    const Command* c = inv.command;
    if (c == nullptr) {
        usageError("unknown command \"" + positional[0] + "\"");
    }
    const std::string name(c->name);
    if (c->takesService) {
        if (positional.size() < 2) {
            usageError(name + " wants a SERVICE");
        }
        inv.service = positional[1];
    }
    if (positional.size() > (c->takesService ? 2U : 1U)) {
        usageError("too many arguments for " + name);
    }
    if (inv.job && !c->takesJob) {
        usageError(name + " takes no --job");
    }
    if (inv.file && c->fileKey.empty()) {
        usageError(name + " takes no --file");
    }
    if (!inv.file && c->fileRequired) {
        usageError(name + " wants --file PLIST");
    }
    if (inv.arguments && !c->takesArguments) {
        usageError(name + " takes no arguments after --");
    }
    if (inv.arguments && inv.arguments->empty()) {
        usageError("give at least one argument after --");
    }
    return inv;
}

// Reads all of `fd` when it holds at most `limit` bytes; nothing otherwise.
std::optional<plist::Bytes> readAtMost(int fd, std::size_t limit) {
    plist::Bytes bytes;
    std::array<std::uint8_t, 65536> chunk{};
    for (;;) {
        const ssize_t n = ::read(fd, chunk.data(), chunk.size());
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0 || bytes.size() + static_cast<std::size_t>(n) > limit) {
            return std::nullopt;
        }
        if (n == 0) {
            return bytes;
        }
        bytes.insert(bytes.end(), chunk.begin(), chunk.begin() + n);
    }
}

// The property list in `path` ("-": standard input, so that a program
// driving tessaryctl needs no file of its own), in any form, checked for the
// shape the command's key wants.
plist::Value readPropertyListFile(const std::string& path, std::string_view key) {
    constexpr std::size_t kLimit = std::size_t{4} * 1024 * 1024;
    const bool standardInput = path == "-";
    tessary::UniqueFd fd(standardInput ? ::dup(STDIN_FILENO)
                                       : ::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat st {};
    if (!fd || ::fstat(fd.get(), &st) != 0) {
        usageError(tessary::Error::posix(errno, path).description);
    }
    if (!standardInput && !S_ISREG(st.st_mode)) {
        usageError(path + ": not a property-list file");
    }
    const std::optional<plist::Bytes> bytes = readAtMost(fd.get(), kLimit);
    if (!bytes) {
        usageError(path + ": cannot read it whole, or it is larger than 4 MiB");
    }
    auto value = plist::decode(std::span<const std::uint8_t>(*bytes));
    if (!value) {
        usageError(path + ": " + value.error().description);
    }
    plist::Value v = std::move(value).value();
    if (key == "startCalendarIntervals") {
        // One entry may stand alone; the job keeps a list of them.
        if (v.isDictionary()) {
            v = plist::Value(plist::Array{v});
        }
        if (!v.isArray()) {
            usageError(path + ": calendar intervals are a dictionary or an array of them");
        }
    } else if (!v.isDictionary()) {
        usageError(path + ": the top level must be a dictionary");
    }
    return v;
}

plist::Dictionary argumentsFor(const Invocation& inv) {
    plist::Dictionary args;
    if (inv.service) {
        args.insert_or_assign("service", plist::Value(*inv.service));
    }
    if (inv.job) {
        args.insert_or_assign("job", plist::Value(*inv.job));
    }
    if (inv.file) {
        args.insert_or_assign(std::string(inv.command->fileKey),
                              readPropertyListFile(*inv.file, inv.command->fileKey));
    }
    if (inv.arguments) {
        args.insert_or_assign("programArguments", plist::Value(plist::stringArray(*inv.arguments)));
    }
    return args;
}

void printXml(const plist::Value& v) {
    auto xml = plist::encode(v, plist::Format::Xml);
    if (xml) {
        (void)std::fwrite(xml.value().data(), 1, xml.value().size(), stdout);
    }
}

// A line on what a setup status means and what sets the machine up.
const char* explanationOf(const std::string& status) {
    if (status == "unconfigured") {
        return "This machine has not been set up: until it is, each start of the daemon "
               "parks the services that are switched on.\nSet it up with: tessaryctl promote "
               "-- true";
    }
    if (status == "updatable") {
        return "Services were parked by an update of the app or by a start before set-up.\n"
               "Bring them back by setting the machine up again: tessaryctl promote -- true";
    }
    return nullptr;
}

void printReadable(const Command& c, const plist::Value& result) {
    switch (c.output) {
        case Output::Nothing:
            return;
        case Output::Services: {
            const plist::Value* states = result.find("states");
            for (const char* key : {"enabledServices", "disabledServices"}) {
                const char* choice = key[0] == 'e' ? "enabled" : "disabled";
                for (const plist::Value& label : plist::arrayOf(result.find(key))) {
                    const plist::Value* state =
                        states != nullptr ? states->find(label.description()) : nullptr;
                    (void)std::printf("%-8s  %-24s  %s\n", choice,
                                      state != nullptr ? state->description().c_str() : "unknown",
                                      label.description().c_str());
                }
            }
            return;
        }
        case Output::Labels:
            for (const plist::Value& label :
                 plist::arrayOf(result.find("previouslyEnabledServices"))) {
                (void)std::printf("%s\n", label.description().c_str());
            }
            return;
        case Output::Status:
        case Output::Label: {
            const char* key = c.output == Output::Status ? "status" : "service";
            if (const plist::Value* v = result.find(key)) {
                (void)std::printf("%s\n", v->description().c_str());
                if (const char* more =
                        c.output == Output::Status ? explanationOf(v->description()) : nullptr) {
                    (void)std::printf("%s\n", more);
                }
            }
            return;
        }
        case Output::ArgumentLines:
        case Output::PropertyList: {
            const plist::Value* v = result.find(c.valueKey);
            if (v == nullptr) {
                return;  // the job has no such setting
            }
            if (c.output == Output::ArgumentLines && v->array() != nullptr) {
                for (const plist::Value& a : *v->array()) {
                    (void)std::printf("%s\n", a.description().c_str());
                }
            } else {
                printXml(*v);
            }
            return;
        }
    }
}

// The labels the app's own definitions give, taken as the daemon's loading
// takes them: files named "*.plist" in the definitions directory, it and
// they writable by root alone, that hold a dictionary with a "Label".
// Nothing when one of them cannot be read.
std::optional<std::set<std::string>> builtInLabels() {
    const tessary::Paths paths;
    tessary::linux_backend::PosixFileOperations files;
    const std::string directory = paths.builtInDefinitions();
    std::set<std::string> labels;
    if (!files.writableOnlyByRoot(directory)) {
        return labels;
    }
    auto names = files.listDirectory(directory);
    for (const std::string& name : names ? names.value() : std::vector<std::string>{}) {
        const std::string path = directory + "/" + name;
        const auto dot = name.find_last_of('.');
        if (dot == std::string::npos || dot == 0 || name.substr(dot + 1) != "plist" ||
            !files.writableOnlyByRoot(path)) {
            continue;
        }
        auto bytes = files.readFile(path);
        if (!bytes) {
            return std::nullopt;
        }
        auto definition = plist::decode(std::span<const std::uint8_t>(bytes.value()));
        if (const std::string* label = definition && definition.value().isDictionary()
                                           ? definition.value().stringAt("Label")
                                           : nullptr) {
            labels.insert(*label);
        }
    }
    return labels;
}

// Of the listed `labels`, those of the services created at run time, for
// root, who may read the daemon's preferences that keep them; nothing for
// others. The daemon's list does not tell them apart, and a front end offers
// "destroy" for these only. They are the services no definition of the app
// names: the daemon loads the app's first, and a created service never takes
// a label in use. So the preferences, which hold every created service's
// whole definition, need not be read for their labels.
std::optional<plist::Value> dynamicLabels(const std::vector<std::string>& labels) {
    if (::access(tessary::Paths().preferencesFile().c_str(), R_OK) != 0) {
        return std::nullopt;
    }
    const auto builtIn = builtInLabels();
    if (!builtIn) {
        return std::nullopt;
    }
    std::vector<std::string> created;
    for (const std::string& label : labels) {
        if (builtIn->count(label) == 0) {
            created.push_back(label);
        }
    }
    return plist::Value(plist::stringArray(created));
}

// The list with what the service manager says of each service, under
// "states", and the services created at run time, under "dynamicServices"
// (root only); the daemon's protocol stays as it is, the client asks.
plist::Value withUnitStates(const plist::Value& list) {
    std::vector<std::string> labels;
    for (const char* key : {"enabledServices", "disabledServices"}) {
        for (const plist::Value& label : plist::arrayOf(list.find(key))) {
            labels.push_back(label.description());
        }
    }
    plist::Dictionary states;
    for (auto& [label, state] : client::unitStates(labels)) {
        states.insert_or_assign(label, plist::Value(state));
    }
    plist::Dictionary out = plist::dictionaryOf(&list);
    out.insert_or_assign("states", plist::Value(std::move(states)));
    if (auto dynamic = dynamicLabels(labels)) {
        out.insert_or_assign("dynamicServices", std::move(*dynamic));
    }
    return plist::Value(std::move(out));
}

int runAndWait(std::vector<std::string> command);

// A service's definition and overrides, from the daemon's files; only root
// may read the preferences that hold the overrides.
int showService(const Invocation& inv) {
    const tessary::Paths paths;
    if (::access(paths.preferencesFile().c_str(), R_OK) != 0 && errno != ENOENT) {
        (void)std::fprintf(stderr, "tessaryctl: cannot read %s: %s\n",
                           paths.preferencesFile().c_str(), std::strerror(errno));
        return kExitFailed;
    }
    tessary::linux_backend::PosixFileOperations files;
    tessary::linux_backend::SyslogSystemLog log;
    const tessary::TYSupervisorPreferences preferences(paths, files, log);
    const std::optional<plist::Value> details =
        client::serviceDetails(paths, files, preferences, *inv.service);
    if (!details) {
        (void)std::fprintf(stderr, "tessaryctl: no service has the label \"%s\"\n",
                           inv.service->c_str());
        return kExitFailed;
    }
    if (inv.json) {
        std::string out;
        client::appendJson(out, *details);
        (void)std::printf("%s\n", out.c_str());
    } else {
        printXml(*details);
    }
    return std::fflush(stdout) == 0 ? kExitSuccess : kExitFailed;
}

// The service's journal: its units' lines, by journalctl.
int showLogs(const Invocation& inv) {
    std::vector<std::string> command = {"journalctl", "--no-pager", "--lines=100"};
    if (inv.json) {
        command.emplace_back("--output=json");
    }
    for (const char* suffix : {".service", ".socket", ".timer", ".path", "@*.service"}) {
        command.emplace_back("--unit=" + *inv.service + suffix);
    }
    return runAndWait(std::move(command));
}

// One request to the daemon. Every request names its sender; commands that
// need no right ignore it.
tessary::Result<client::Reply> ask(const Invocation& inv, std::string_view command,
                                   const plist::Dictionary& args) {
    client::Request request;
    request.command = std::string(command);
    if (!args.empty()) {
        request.arguments = args;
    }
    if (auto form = client::makeAuthorizationForm()) {
        request.authorizationForm = form.value();
    }
    return client::sendRequest(inv.socket, request, inv.timeout);
}

// Why the daemon refused the command, as far as the client can learn it: the
// reason never travels. The daemon refuses "list" only to a caller without
// the right, so the list, asked after the refusal, tells whether the right
// was missing, and which services there are.
std::string refusalOf(const Invocation& inv, const Command& c, const plist::Dictionary& args) {
    const std::string refused = "the daemon refused \"" + std::string(c.name) + "\"";
    if (c.wire == "status") {
        // Open to every caller: it fails only when the daemon cannot tell
        // which process asks.
        return refused + ": it could not identify this process";
    }
    if (c.wire == "list") {
        return kNotAuthorized;
    }
    auto list = ask(inv, "list", {});
    if (!list) {
        return refused + ": not allowed" + (c.refusal.empty() ? "" : ", or ") +
               std::string(c.refusal);
    }
    if (list.value().returnCode != 0) {
        return kNotAuthorized;
    }
    std::set<std::string> labels;
    const plist::Value listed = list.value().result.value_or(plist::Value());
    for (const char* key : {"enabledServices", "disabledServices"}) {
        for (const plist::Value& label : plist::arrayOf(listed.find(key))) {
            labels.insert(label.description());
        }
    }
    if (inv.service && !labels.contains(*inv.service)) {
        return "no service " + *inv.service + "; `tessaryctl list` shows them";
    }
    if (inv.job) {
        return *inv.service + " has no job " + *inv.job;
    }
    if (auto it = args.find("serviceDictionary"); it != args.end()) {
        const std::string* label = it->second.stringAt("Label");
        if (label == nullptr) {
            return "the definition has no Label string";
        }
        if (labels.contains(*label)) {
            return "there is a service " + *label + " already";
        }
    }
    return refused + "; its journal may say why: " + kDaemonJournal;
}

// Sends one request and shows its result; the exit status.
int perform(const Invocation& inv, const Command& command, const plist::Dictionary& args) {
    // A definition the daemon's backend would refuse to submit is stored all
    // the same when created, as a service that can never run: only on demand.
    std::optional<std::string> cannotRun;
    if (auto it = args.find("serviceDictionary"); it != args.end()) {
        cannotRun = client::jobRefusal(it->second);
        if (cannotRun && !inv.force) {
            (void)std::fprintf(stderr,
                               "tessaryctl: not created, as it cannot run here: %s (--force "
                               "creates it all the same)\n",
                               cannotRun->c_str());
            return kExitFailed;
        }
    }
    // The right is obtained before the request, as systemctl does: the
    // daemon asks polkit without interaction and finds what polkit kept.
    if (command.wire != "status" &&
        client::obtainAdminRight(tessary::linux_backend::PolkitAuthorizationOptions{}.actionId,
                                 inv.mayAskPassword) == client::Right::Refused) {
        (void)std::fprintf(stderr, "tessaryctl: %s\n", kNotAuthorized);
        return kExitFailed;
    }

    auto reply = ask(inv, command.wire, args);
    if (!reply) {
        const tessary::Error& e = reply.error();
        (void)std::fprintf(stderr, "tessaryctl: %s\n", e.description.c_str());
        if (e.code == client::kRequestTooLarge || e.code == client::kInvalidRequest) {
            return kExitUsage;
        }
        return kExitUnreachable;
    }
    if (reply.value().returnCode != 0) {
        (void)std::fprintf(stderr, "tessaryctl: %s\n", refusalOf(inv, command, args).c_str());
        return kExitFailed;
    }
    if (cannotRun) {
        (void)std::fprintf(stderr, "tessaryctl: created, but it cannot run here: %s\n",
                           cannotRun->c_str());
    }
    plist::Value result = reply.value().result.value_or(plist::Value());
    if (command.output == Output::Services) {
        result = withUnitStates(result);
    }
    if (inv.json) {
        std::string out;
        client::appendJson(out, result);
        (void)std::printf("%s\n", out.c_str());
    } else {
        printReadable(command, result);
    }
    return std::fflush(stdout) == 0 ? kExitSuccess : kExitFailed;
}

const Command& commandNamed(std::string_view name) {
    for (const Command& c : kCommands) {
        if (c.name == name) {
            return c;
        }
    }
    std::abort();  // only called with the names of the table
}

// Runs COMMAND and waits for it, as system(3) does: this process ignores the
// terminal's interrupt and quit while COMMAND runs, and COMMAND gets them as
// usual. The status in the shell's terms: the exit status, 128 + the signal
// that killed it, 127 when it could not be found, 126 when it could not be
// run.
int runAndWait(std::vector<std::string> command) {
    std::vector<char*> argv;
    argv.reserve(command.size() + 1);
    for (std::string& a : command) {
        argv.push_back(a.data());
    }
    argv.push_back(nullptr);

    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    struct sigaction oldInt {};
    struct sigaction oldQuit {};
    (void)::sigaction(SIGINT, &ignore, &oldInt);
    (void)::sigaction(SIGQUIT, &ignore, &oldQuit);
    posix_spawnattr_t attr;
    (void)posix_spawnattr_init(&attr);
    sigset_t defaults;
    (void)sigemptyset(&defaults);
    (void)sigaddset(&defaults, SIGINT);
    (void)sigaddset(&defaults, SIGQUIT);
    (void)posix_spawnattr_setsigdefault(&attr, &defaults);
    (void)posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGDEF);
    pid_t pid = -1;
    const int err = posix_spawnp(&pid, argv[0], nullptr, &attr, argv.data(), environ);
    (void)posix_spawnattr_destroy(&attr);
    int status = 0;
    if (err == 0) {
        while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
    }
    (void)::sigaction(SIGINT, &oldInt, nullptr);
    (void)::sigaction(SIGQUIT, &oldQuit, nullptr);
    if (err != 0) {
        (void)std::fprintf(stderr, "tessaryctl: cannot run %s: %s\n", argv[0], std::strerror(err));
        return err == ENOENT ? 127 : 126;
    }
    if (WIFSIGNALED(status)) {
        return 128 + WTERMSIG(status);
    }
    return WEXITSTATUS(status);
}

// promote -- COMMAND...: the daemon watches the process that begins a
// promotion and ends itself when that process exits before the promotion is
// ended. So this process begins it, stays alive while COMMAND does the
// set-up, and ends it only when COMMAND succeeded. When COMMAND fails the
// promotion is left unended and this process exits: the daemon then takes
// the promotion as abandoned and cleans it up.
int runPromotion(const Invocation& inv) {
    if (const int rc = perform(inv, commandNamed("begin-promotion"), {}); rc != kExitSuccess) {
        return rc;
    }
    const int status = runAndWait(*inv.arguments);
    if (status != 0) {
        (void)std::fprintf(stderr,
                           "tessaryctl: %s ended with status %d; the promotion is not ended\n",
                           inv.arguments->front().c_str(), status);
        return status;
    }
    return perform(inv, commandNamed("end-promotion"), {});
}

}  // namespace

int main(int argc, char** argv) {
    const Invocation inv = parseArguments(argc, argv);
    if (inv.promote) {
        return runPromotion(inv);
    }
    if (inv.logs) {
        return showLogs(inv);
    }
    if (inv.show) {
        return showService(inv);
    }
    if (inv.check) {
        return client::printJobCheck(readPropertyListFile(*inv.file, "serviceDictionary"),
                                     inv.json);
    }
    return perform(inv, *inv.command, argumentsFor(inv));
}
