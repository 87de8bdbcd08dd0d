// tessaryd-generator: the systemd generator that starts the daemon at boot.
//
//   tessaryd-generator [--root DIR] NORMAL_DIR [EARLY_DIR LATE_DIR]
//
// systemd runs its generators early at every boot and again at every reload,
// each time into emptied output directories. This one reads the daemon's job
// definition file, /Library/LaunchDaemons/com.orvane.tessaryd.plist, and when
// the file is there writes into NORMAL_DIR the units that the systemd backend
// submits for that job, translated the same way and with the same options as
// the daemon's own backend, so that the unit at boot is the unit that
// tessary-install started. Links in the ".wants" directories start them at
// boot: the service from multi-user.target (when the job runs at load or is
// kept alive, as the daemon is), sockets from sockets.target and a timer from
// timers.target.
//
// Without the file it writes nothing. The file is therefore what decides
// whether the daemon starts at the next boot: a demotion removes it, and with
// it every later start. The unit made here for the running daemon goes at the
// next reload, which the daemon's removal of its own job brings about.
//
// --root reads the file under DIR instead (for tests); systemd never passes
// it. Exit status: 0 done (also when there is no file), 1 the file is there
// but unusable (the reason on standard error, which systemd logs), 64 usage
// error.

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>

#include "platform/linux/fs/posix_file_operations.h"
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
    "usage: tessaryd-generator [--root DIR] NORMAL_DIR [EARLY_DIR LATE_DIR]\n";

// The same directory the daemon gives the backend (see src/daemon/main.cpp).

// The target whose ".wants" directory starts `unit` at boot.
std::string_view bootTargetFor(std::string_view unit) {
    if (unit.ends_with(".socket")) {
        return "sockets.target";
    }
    if (unit.ends_with(".timer")) {
        return "timers.target";
    }
    return "multi-user.target";
}

Status writeUnits(FileOperations& files, const std::string& directory,
                  const UnitTranslation& translation) {
    for (const UnitFile& unit : translation.units) {
        const std::string path = directory + "/" + unit.name;
        Status s =
            files.writeFileAtomically(path, plist::Bytes(unit.text.begin(), unit.text.end()));
        if (s) {
            s = files.setPermissions(path, 0644);
        }
        if (!s) {
            return s;
        }
    }
    for (const std::string& unit : translation.unitsToStart()) {
        const std::string wants = directory + "/" + std::string(bootTargetFor(unit)) + ".wants";
        if (Status s = files.createDirectory(wants, true, 0755); !s) {
            return s;
        }
        const std::string link = wants + "/" + unit;
        if (::symlink(("../" + unit).c_str(), link.c_str()) != 0 && errno != EEXIST) {
            return Error::posix(errno, "Unable to link " + link);
        }
    }
    return {};
}

int generate(const Paths& paths, const std::string& outputDirectory) {
    PosixFileOperations files;
    const std::string definition = paths.daemonJobDefinition();
    auto bytes = files.readFile(definition);
    if (!bytes) {
        if (bytes.error().code == ENOENT) {
            return kExitSuccess;  // not installed, or demoted: nothing to start
        }
        (void)std::fprintf(stderr, "tessaryd-generator: %s\n", bytes.error().description.c_str());
        return kExitFailed;
    }
    auto job = plist::decode(std::span<const std::uint8_t>(bytes.value()));
    if (!job) {
        (void)std::fprintf(stderr, "tessaryd-generator: %s: %s\n", definition.c_str(),
                           job.error().description.c_str());
        return kExitFailed;
    }
    auto translation = translateJob(job.value(), {std::string(Paths::kHelperBinDirectory), {}, {}});
    if (!translation) {
        (void)std::fprintf(stderr, "tessaryd-generator: %s: %s\n", definition.c_str(),
                           translation.error().description.c_str());
        return kExitFailed;
    }
    if (Status s = writeUnits(files, outputDirectory, translation.value()); !s) {
        (void)std::fprintf(stderr, "tessaryd-generator: %s\n", s.error().description.c_str());
        return kExitFailed;
    }
    return kExitSuccess;
}

}  // namespace

int main(int argc, char** argv) {
    std::string root = "/";
    int first = 1;
    if (argc > 2 && std::string_view(argv[1]) == "--root") {
        root = argv[2];
        first = 3;
    }
    const int directories = argc - first;
    if ((directories != 1 && directories != 3) || root.empty()) {
        (void)std::fputs(kUsage, stderr);
        return kExitUsage;
    }
    return generate(Paths(root), argv[first]);
}
