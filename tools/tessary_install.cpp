// tessary-install: puts the daemon in place from the app bundle and starts it,
// or takes it away again.
//
//   tessary-install [--root DIR] [--bundle PATH] [--no-start]
//   tessary-install [--root DIR] --uninstall
//
// Installing, each step only after the one before succeeded:
//  1. Reads the daemon's job definition from the daemon inside the bundle
//     ("Contents/Library/LaunchServices/com.orvane.tessaryd", the property list
//     in its ELF section ".tessary_job") and checks that it translates into
//     systemd units, so that nothing is written for a job that cannot run.
//  2. Copies that daemon to /Library/PrivilegedHelperTools/com.orvane.tessaryd,
//     mode 0755, as a new file renamed over the old one: a daemon that is
//     running keeps its executable, and systemd never starts half a file.
//  3. Writes the job definition, byte for byte as carried, to
//     /Library/LaunchDaemons/com.orvane.tessaryd.plist. This file is what starts
//     the daemon at boot: tessaryd-generator makes the daemon's unit from it at
//     every boot, and from nothing when it is gone. Written after the
//     executable, so that it never names a file that is not there yet.
//  4. Makes the directories that the daemon writes in but does not make at
//     every start, when they are missing: /Library/Tessary (its
//     preferences), /Library/Application Support/Orvane (its support
//     directory) and /var/db (the setup-done marker). The daemon's unit lets
//     it write there and nowhere else; a directory must exist for systemd to
//     open it to the daemon, and the daemon itself may not make it under a
//     read-only parent.
//  5. Installs the polkit action that the bundle carries
//     ("Contents/Resources/com.orvane.tessaryd.policy") unless one is installed
//     already (the package's own copy).
//  6. Unless --no-start: submits the job through the systemd backend, which
//     writes the unit into the manager's runtime unit directory and starts it
//     ("OnDemand" false: Restart=always). A job the manager has loaded already
//     (a second install, or the unit the generator made at boot) is restarted
//     instead, so that the new executable runs.
//
// --no-start is for a machine without a running systemd (a chroot, an image
// being built): the files alone are enough for the next boot.
//
// --uninstall undoes all of it the way a demotion does. A daemon that answers
// is asked to demote itself: it stops and removes every service it runs,
// clears the user's choices, runs the uninstall extras and removes its own
// files and job. Whatever it did or did not do, the executable, the job
// definition file and the support directory are then removed, the manager is
// made to re-run its generators (so that a unit made at boot goes with the
// file) and the daemon's job is removed; last go its request socket and the
// directories that held those files and the socket, when they are empty. The
// preferences stay, as a demotion keeps them, and so does the polkit action,
// which the package owns; so do /Library/Tessary and /var/db, which hold them
// and the setup-done marker until the package is purged.
//
// --root makes every fixed path, the manager's socket and unit directory
// included, relative to DIR; it is for tests. The bundle defaults to
// /Applications/Tessary.app under that root.
//
// Exit status: 0 done, 1 failed (the reason in one line on standard error),
// 64 usage error.

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "client/tessary_client.h"
#include "platform/linux/fs/file_bundle_info.h"
#include "platform/linux/fs/posix_file_operations.h"
#include "platform/linux/log/syslog_system_log.h"
#include "platform/linux/polkit/polkit_authorization_service.h"
#include "platform/linux/sd_handles.h"
#include "platform/linux/systemd/sd_bus_values.h"
#include "platform/linux/systemd/systemd_service_manager.h"
#include "platform/linux/systemd/unit_translation.h"
#include "platform/paths.h"
#include "plist/codec.h"

namespace {

using namespace tessary;
using namespace tessary::linux_backend;

constexpr int kExitSuccess = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 64;

constexpr const char* kUsage =
    "usage: tessary-install [--root DIR] [--bundle PATH] [--no-start]\n"
    "       tessary-install [--root DIR] --uninstall\n";

constexpr const char* kDaemonLabel = "com.orvane.tessaryd";
// The clean-up job a demoting daemon leaves behind; it runs the helper
// commands, which the package removes right after its removal script.
constexpr const char* kUninstallExtrasLabel = "com.orvane.tessaryd.UninstallExtras";
// The same directory the daemon gives the backend (see src/daemon/main.cpp),
// so that the unit made here is the unit the daemon would make.
constexpr const char* kJobSection = ".tessary_job";
constexpr const char* kBundlePolicy = "/Contents/Resources/com.orvane.tessaryd.policy";
constexpr std::string_view kPolkitAction = "/usr/share/polkit-1/actions/com.orvane.tessaryd.policy";
constexpr std::uint32_t kExecutableMode = 0755;
constexpr std::uint32_t kFileMode = 0644;
constexpr std::uint32_t kDirectoryMode = 0755;
// How long a demoting daemon, a restart, or a job leaving the manager may take.
constexpr auto kSettleTimeout = std::chrono::seconds(30);
constexpr auto kPollInterval = std::chrono::milliseconds(100);
// The daemon answers "demote" once it has stopped every service it runs.
constexpr auto kDemoteTimeout = std::chrono::seconds(60);

struct Options {
    std::string root = "/";
    std::optional<std::string> bundle;
    bool noStart = false;
    bool uninstall = false;
};

Error failed(std::string text) {
    return Error{"TessaryInstall", 1, std::move(text)};
}

std::string parentOf(const std::string& path) {
    return path.substr(0, path.find_last_of('/'));
}

// The manager's private socket, when a manager is running.
bool managerIsRunning(const Paths& paths) {
    struct stat st {};
    return ::stat(paths.systemdPrivateSocket().c_str(), &st) == 0 && S_ISSOCK(st.st_mode);
}

// The two manager calls the backend has no operation for: Reload, which
// re-runs the generators, and a restart of a loaded unit.
class Manager {
  public:
    static Result<Manager> connect(const Paths& paths) {
        const std::string address = busAddressFor(paths.systemdPrivateSocket());
        SdBusPtr bus;
        if (const int r = openBus(address, false, {}, bus); r < 0) {
            return Error::posix(-r, "Unable to connect to the service manager at " + address);
        }
        return Manager(std::move(bus));
    }

    Status reload() {
        SdBusError error;
        sd_bus_message* raw = nullptr;
        const int r = sd_bus_call_method(bus_.get(), kDestination, kManagerPath, kManagerInterface,
                                         "Reload", error.get(), &raw, "");
        SdBusMessagePtr reply(raw);
        return r < 0 ? Status(failure("Unable to reload the service manager", r, error)) : Status();
    }

    // Restarts `unit` and waits until the restart has ended; fails unless the
    // unit is active then.
    Status restart(const std::string& unit) {
        SdBusError error;
        sd_bus_message* raw = nullptr;
        int r = sd_bus_call_method(bus_.get(), kDestination, kManagerPath, kManagerInterface,
                                   "RestartUnit", error.get(), &raw, "ss", unit.c_str(), "replace");
        SdBusMessagePtr reply(raw);
        const char* job = nullptr;
        if (r >= 0) {
            r = sd_bus_message_read(raw, "o", &job);
        }
        if (r < 0) {
            return failure("Unable to restart " + unit, r, error);
        }
        // The job object exists until the job has ended.
        const std::string jobPath = job;
        const auto deadline = std::chrono::steady_clock::now() + kSettleTimeout;
        while (stringProperty(jobPath, "org.freedesktop.systemd1.Job", "State")) {
            if (std::chrono::steady_clock::now() > deadline) {
                return failed("Restarting " + unit + " did not end in time");
            }
            std::this_thread::sleep_for(kPollInterval);
        }
        auto path = unitPath(unit);
        auto state =
            path ? stringProperty(path.value(), "org.freedesktop.systemd1.Unit", "ActiveState")
                 : Result<std::string>(path.error());
        if (!state) {
            return state.error();
        }
        // A daemon that did not start is "activating" again (waiting to be
        // restarted) or "failed" by now, never "active".
        if (state.value() != "active") {
            return failed("Restarting " + unit + " failed: the unit is " + state.value());
        }
        return {};
    }

  private:
    static constexpr const char* kDestination = "org.freedesktop.systemd1";
    static constexpr const char* kManagerPath = "/org/freedesktop/systemd1";
    static constexpr const char* kManagerInterface = "org.freedesktop.systemd1.Manager";

    explicit Manager(SdBusPtr bus) : bus_(std::move(bus)) {}

    static Error failure(const std::string& what, int r, SdBusError& error) {
        const char* reason =
            error.isSet() && error.message() != nullptr ? error.message() : std::strerror(-r);
        return Error{"SystemdServiceManager", -r, what + ": " + reason};
    }

    Result<std::string> unitPath(const std::string& unit) {
        SdBusError error;
        sd_bus_message* raw = nullptr;
        int r = sd_bus_call_method(bus_.get(), kDestination, kManagerPath, kManagerInterface,
                                   "GetUnit", error.get(), &raw, "s", unit.c_str());
        SdBusMessagePtr reply(raw);
        const char* path = nullptr;
        if (r >= 0) {
            r = sd_bus_message_read(raw, "o", &path);
        }
        if (r < 0) {
            return failure("Unable to find " + unit, r, error);
        }
        return std::string(path);
    }

    Result<std::string> stringProperty(const std::string& path, const char* interface,
                                       const char* name) {
        SdBusError error;
        char* raw = nullptr;
        const int r = sd_bus_get_property_string(bus_.get(), kDestination, path.c_str(), interface,
                                                 name, error.get(), &raw);
        const MallocString value(raw);
        if (r < 0) {
            return failure(std::string("Unable to read ") + name + " of " + path, r, error);
        }
        return std::string(raw);
    }

    SdBusPtr bus_;
};

SystemdServiceManager makeServiceManager(const Paths& paths, SystemLog& log) {
    return SystemdServiceManager({paths.systemdPrivateSocket(), paths.systemdUnitDirectory(),
                                  std::string(Paths::kHelperBinDirectory), nullptr,
                                  paths.systemdGeneratorDirectory(), kDaemonLabel},
                                 log);
}

// Root's own authorization; none for anyone else, which the backend refuses.
AuthorizationRef ownAuthorization() {
    PolkitAuthorizationService authorizations;
    return authorizations.create({PolkitAuthorizationService::kAdminRight}, 0).authorization;
}

// The job definition the daemon at `daemonPath` carries, as its bytes (without
// any padding after the list) and as its value.
struct CarriedJob {
    plist::Bytes bytes;
    plist::Value job;
};

Result<CarriedJob> carriedJob(const std::string& daemonPath) {
    auto section = readElfSection(daemonPath, kJobSection, FileBundleInfo::kMaxSection);
    if (!section) {
        return failed("No job definition in " + daemonPath + ": " + section.error().description);
    }
    plist::Bytes bytes = std::move(section).value();
    while (!bytes.empty() && bytes.back() == 0) {
        bytes.pop_back();
    }
    auto job = plist::decode(std::span<const std::uint8_t>(bytes));
    if (!job || !job.value().isDictionary()) {
        return failed("The job definition in " + daemonPath + " is not a property-list dictionary");
    }
    const std::string* label = job.value().stringAt("Label");
    if (label == nullptr || *label != kDaemonLabel) {
        return failed("The job definition in " + daemonPath + " is not labelled " +
                      std::string(kDaemonLabel));
    }
    if (auto units = translateJob(job.value(), {std::string(Paths::kHelperBinDirectory), {}, {}});
        !units) {
        return units.error();
    }
    return CarriedJob{std::move(bytes), std::move(job).value()};
}

Status makeDirectoryFor(FileOperations& files, const std::string& path) {
    return files.createDirectory(parentOf(path), true, kDirectoryMode);
}

// Copies the daemon as a new file beside the target and renames it over the
// target, executable before it gets the name. The copy's name is this
// install's own: a running daemon updating itself from the same bundle at the
// same moment (an upgrade replaces the bundle it watches) writes its own copy,
// and whichever rename comes last leaves a whole executable.
Status installExecutable(FileOperations& files, const std::string& from, const std::string& to) {
    if (Status s = makeDirectoryFor(files, to); !s) {
        return s;
    }
    auto staged = files.copyBeside(from, to, kExecutableMode);
    if (!staged) {
        return staged.error();
    }
    Status s = files.replaceFile(staged.value(), to);
    if (!s) {
        (void)files.removeItem(staged.value());
    }
    return s;
}

Status installJobDefinition(FileOperations& files, const std::string& path,
                            const plist::Bytes& bytes) {
    Status s = makeDirectoryFor(files, path);
    if (s) {
        s = files.writeFileAtomically(path, bytes);
    }
    if (s) {
        s = files.setPermissions(path, kFileMode);
    }
    return s;
}

// The directories the daemon's sandbox opens to it, from the fixed paths.
Status makeWritableDirectories(FileOperations& files, const Paths& paths) {
    for (const std::string& directory :
         {parentOf(paths.setupDirectory()), parentOf(paths.supportDirectory()),
          parentOf(paths.setupDoneMarker())}) {
        if (Status s = files.createDirectory(directory, true, kDirectoryMode); !s) {
            return s;
        }
    }
    return {};
}

Status installPolkitAction(FileOperations& files, const std::string& bundle,
                           const std::string& target) {
    if (files.exists(target)) {
        return {};
    }
    const std::string source = bundle + kBundlePolicy;
    if (!files.exists(source)) {
        return failed("The bundle " + bundle + " carries no polkit action (" + source + ")");
    }
    Status s = makeDirectoryFor(files, target);
    if (s) {
        s = files.copyFile(source, target);
    }
    if (s) {
        s = files.setPermissions(target, kFileMode);
    }
    return s;
}

Status startDaemon(const Paths& paths, const plist::Value& job) {
    if (!managerIsRunning(paths)) {
        return failed("No service manager at " + paths.systemdPrivateSocket() +
                      " (use --no-start where systemd does not run)");
    }
    SyslogSystemLog log;
    SystemdServiceManager serviceManager = makeServiceManager(paths, log);
    if (serviceManager.jobIsEnabled(kDaemonLabel) != Answer::Yes) {
        return serviceManager.submitJob(job, ownAuthorization());
    }
    auto manager = Manager::connect(paths);
    if (!manager) {
        return manager.error();
    }
    // The generators first, so that a unit made at boot is made again from the
    // file just written.
    if (Status s = manager.value().reload(); !s) {
        return s;
    }
    return manager.value().restart(serviceUnitName(kDaemonLabel));
}

Status install(const Paths& paths, const std::string& bundle, bool start) {
    PosixFileOperations files;
    const std::string daemonCopy =
        bundle + std::string(Paths::kAppDaemonCopy.substr(Paths::kAppBundle.size()));
    auto carried = carriedJob(daemonCopy);
    if (!carried) {
        return carried.error();
    }
    if (Status s = installExecutable(files, daemonCopy, paths.installedDaemon()); !s) {
        return s;
    }
    if (Status s = installJobDefinition(files, paths.daemonJobDefinition(), carried.value().bytes);
        !s) {
        return s;
    }
    if (Status s = makeWritableDirectories(files, paths); !s) {
        return s;
    }
    if (Status s = installPolkitAction(files, bundle, paths.resolve(kPolkitAction)); !s) {
        return s;
    }
    return start ? startDaemon(paths, carried.value().job) : Status();
}

// Waits until none of `labels` is loaded any more, or the time is up.
void waitUntilRemoved(ServiceManagerClient& serviceManager,
                      std::initializer_list<const char*> labels) {
    const auto deadline = std::chrono::steady_clock::now() + kSettleTimeout;
    for (const char* label : labels) {
        while (serviceManager.jobIsEnabled(label) != Answer::No &&
               std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(kPollInterval);
        }
    }
}

// Removes the job `label` unless the manager no longer has it.
Status removeJob(ServiceManagerClient& serviceManager, const char* label) {
    Status s = serviceManager.removeJob(label, ownAuthorization(), true);
    if (!s && s.error().code == ESRCH) {
        return {};
    }
    return s;
}

Status uninstall(const Paths& paths) {
    PosixFileOperations files;
    SyslogSystemLog log;
    SystemdServiceManager serviceManager = makeServiceManager(paths, log);
    const bool managed = managerIsRunning(paths);

    // The daemon, when it answers, does what only it can: stop its services.
    auto form = client::makeAuthorizationForm();
    if (form) {
        auto reply = client::sendRequest(paths.requestSocket(), {"demote", form.value(), {}},
                                         kDemoteTimeout);
        if (reply && reply.value().returnCode == 0 && managed) {
            // The daemon first: it submits the clean-up job before it goes.
            waitUntilRemoved(serviceManager, {kDaemonLabel, kUninstallExtrasLabel});
        }
    }

    Status result;
    auto keepFirstFailure = [&](Status s) {
        if (!s && result) {
            result = std::move(s);
        }
    };
    for (const std::string& path :
         {paths.installedDaemon(), paths.daemonJobDefinition(), paths.supportDirectory()}) {
        if (files.exists(path)) {
            keepFirstFailure(files.removeItem(path));
        }
    }
    if (managed) {
        // The daemon's unit is the backend's to stop while it is still loaded
        // from its file, the generator's included: a Reload first would leave
        // a running daemon without a file, which is nobody's. The generators
        // then run again without the job definition file.
        keepFirstFailure(removeJob(serviceManager, kDaemonLabel));
        auto manager = Manager::connect(paths);
        keepFirstFailure(manager ? manager.value().reload() : Status(manager.error()));
        if (serviceManager.jobIsEnabled(kUninstallExtrasLabel) != Answer::No) {
            keepFirstFailure(removeJob(serviceManager, kUninstallExtrasLabel));
        }
    }
    // The daemon's request socket outlives the daemon as a file; it is of no
    // use once the daemon's job is gone.
    struct stat st {};
    if (result && ::lstat(paths.requestSocket().c_str(), &st) == 0 && S_ISSOCK(st.st_mode)) {
        (void)::unlink(paths.requestSocket().c_str());
    }
    // Copies of the daemon that an install or update killed halfway left.
    const std::string helpers = parentOf(paths.installedDaemon());
    const std::string copyPrefix = "." + std::string(kDaemonLabel) + ".";
    const auto names = files.listDirectory(helpers);
    for (const std::string& name : names ? names.value() : std::vector<std::string>{}) {
        if (name.starts_with(copyPrefix)) {
            (void)files.removeItem(helpers + "/" + name);
        }
    }
    // The directories the install made, when nothing else is in them.
    for (const std::string& directory :
         {parentOf(paths.installedDaemon()), parentOf(paths.daemonJobDefinition()),
          parentOf(paths.supportDirectory()), parentOf(parentOf(paths.supportDirectory())),
          parentOf(paths.requestSocket())}) {
        (void)::rmdir(directory.c_str());
    }
    return result;
}

// The options, or nothing after a usage error.
std::optional<Options> parse(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg = argv[i];
        const bool hasValue = i + 1 < argc;
        if (arg == "--root" && hasValue) {
            options.root = argv[++i];
        } else if (arg == "--bundle" && hasValue) {
            options.bundle = argv[++i];
        } else if (arg == "--no-start") {
            options.noStart = true;
        } else if (arg == "--uninstall") {
            options.uninstall = true;
        } else {
            return std::nullopt;
        }
    }
    if (options.root.empty() || (options.uninstall && (options.bundle || options.noStart))) {
        return std::nullopt;
    }
    return options;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && (std::string_view(argv[1]) == "-h" || std::string_view(argv[1]) == "--help")) {
        (void)std::fputs(kUsage, stdout);
        return kExitSuccess;
    }
    const std::optional<Options> options = parse(argc, argv);
    if (!options) {
        (void)std::fputs(kUsage, stderr);
        return kExitUsage;
    }
    const Paths paths(options->root);
    const Status status =
        options->uninstall
            ? uninstall(paths)
            : install(paths, options->bundle.value_or(paths.appBundle()), !options->noStart);
    if (!status) {
        (void)std::fprintf(stderr, "tessary-install: %s\n", status.error().description.c_str());
        return kExitFailed;
    }
    return kExitSuccess;
}
