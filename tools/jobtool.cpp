// jobtool: removes a job from the service manager, the way the daemon does.
//
//   jobtool remove LABEL
//
// The clean-up jobs the daemon leaves behind end with "jobtool remove" on
// their own label, so the common caller is a process inside the very job it
// removes. Stopping that job's unit makes systemd signal every process in it,
// this one included, and the stop cannot finish while this process runs. So
// when the caller is inside the job's service, it ignores the stop's SIGTERM,
// deletes the unit files without waiting for the stop, and by exiting lets the
// stop complete; systemd then drops the unit, whose files are gone. Any other
// caller waits until the job is gone.
//
// Exit status: 0 removed, 1 not removed (the reason on standard error), 64
// usage error.

#include <signal.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <string_view>

#include "platform/linux/log/syslog_system_log.h"
#include "platform/linux/polkit/polkit_authorization_service.h"
#include "platform/linux/systemd/systemd_service_manager.h"
#include "platform/linux/systemd/unit_translation.h"
#include "platform/paths.h"

namespace {

constexpr const char* kDaemonLabel = "com.orvane.tessaryd";

using namespace tessary;
using namespace tessary::linux_backend;

constexpr int kExitSuccess = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 64;

// The same directory the daemon gives the backend (see src/daemon/main.cpp).

constexpr const char* kUsage = "usage: jobtool remove LABEL\n";

// Whether this process runs inside `unit`: a component of its cgroup path,
// in the hierarchy systemd tracks processes with (the unified one, "0::", or
// the named "name=systemd" one on a hybrid machine), is the unit's name. A
// process in a sub-cgroup of the unit is inside it as well.
bool runsInsideUnit(const std::string& unit) {
    std::ifstream in("/proc/self/cgroup");
    for (std::string line; std::getline(in, line);) {
        const auto first = line.find(':');
        const auto second = first == std::string::npos ? first : line.find(':', first + 1);
        if (second == std::string::npos) {
            continue;
        }
        const std::string_view controllers =
            std::string_view(line).substr(first + 1, second - first - 1);
        if (!controllers.empty() && controllers != "name=systemd") {
            continue;
        }
        const std::string path = line.substr(second + 1) + "/";
        if (path.find("/" + unit + "/") != std::string::npos) {
            return true;
        }
    }
    return false;
}

int removeJob(const std::string& label) {
    if (Status s = checkJobLabel(label); !s) {
        (void)std::fprintf(stderr, "jobtool: %s\n", s.error().description.c_str());
        return kExitFailed;
    }
    const Paths paths("/");
    SyslogSystemLog log;
    // The daemon's own unit may be the one the generator made at boot: the
    // clean-up job of a demotion removes that one too.
    SystemdServiceManager serviceManager(
        {std::string(paths.systemdPrivateSocket()), std::string(paths.systemdUnitDirectory()),
         std::string(Paths::kHelperBinDirectory), nullptr, paths.systemdGeneratorDirectory(),
         kDaemonLabel},
        log);
    PolkitAuthorizationService authorizationService;
    // Root's own authorization; none for anyone else, which the backend
    // refuses.
    const AuthorizationRef authorization =
        authorizationService.create({PolkitAuthorizationService::kAdminRight}, 0).authorization;

    const bool ownJob = runsInsideUnit(serviceUnitName(label));
    if (ownJob) {
        // The stop about to be queued signals this process too; it must
        // live to delete the unit files. systemd's final SIGKILL comes only
        // after the stop timeout, long after this process is done.
        (void)::signal(SIGTERM, SIG_IGN);
        (void)::signal(SIGHUP, SIG_IGN);
        (void)::signal(SIGPIPE, SIG_IGN);
    }
    if (Status s = serviceManager.removeJob(label, authorization, !ownJob); !s) {
        (void)std::fprintf(stderr, "jobtool: %s\n", s.error().description.c_str());
        return kExitFailed;
    }
    return kExitSuccess;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && (std::string_view(argv[1]) == "-h" || std::string_view(argv[1]) == "--help")) {
        (void)std::fputs(kUsage, stdout);
        return kExitSuccess;
    }
    if (argc != 3 || std::string_view(argv[1]) != "remove") {
        (void)std::fputs(kUsage, stderr);
        return kExitUsage;
    }
    return removeJob(argv[2]);
}
