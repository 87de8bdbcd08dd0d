#include "platform/linux/systemd/unit_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "base/unique_fd.h"

namespace tessary::linux_backend {

namespace {

// One directory whatever path names it: the manager may see a unit directory
// through another path than ours (a bind mount).
bool sameDirectory(const std::string& a, const std::string& b) {
    if (a == b) {
        return true;
    }
    struct stat sa {};
    struct stat sb {};
    return ::stat(a.c_str(), &sa) == 0 && ::stat(b.c_str(), &sb) == 0 && sa.st_dev == sb.st_dev &&
           sa.st_ino == sb.st_ino;
}

// The directory of a unit's file when the file is named for the unit, or,
// for an instance ("NAME@INSTANCE.service"), for its template
// ("NAME@.service"), as the files the backend and the generator write are;
// else empty.
std::string directoryOf(const std::string& unit, const std::string& fragment) {
    const auto slash = fragment.rfind('/');
    if (slash == std::string::npos || slash == 0) {
        return {};
    }
    const std::string_view file = std::string_view(fragment).substr(slash + 1);
    const auto at = unit.find('@');
    const auto dot = unit.rfind('.');
    const bool template_ = at != std::string::npos && dot != std::string::npos && at < dot &&
                           file == unit.substr(0, at + 1) + unit.substr(dot);
    return file == unit || template_ ? fragment.substr(0, slash) : std::string();
}

}  // namespace

// Writes a unit file so that the manager sees the old file or the new one,
// never a part: a hidden temporary file beside it (the manager skips hidden
// files), flushed, renamed over it.
Status writeUnitFile(const std::string& directory, const UnitFile& unit) {
    const std::string target = directory + "/" + unit.name;
    std::string temp = directory + "/." + unit.name + ".XXXXXX";
    UniqueFd fd(::mkostemp(temp.data(), O_CLOEXEC));
    if (!fd) {
        return Error::posix(errno, "Unable to write the unit file '" + target + "'");
    }
    const char* data = unit.text.data();
    std::size_t left = unit.text.size();
    int err = 0;
    while (left > 0 && err == 0) {
        const ssize_t n = ::write(fd.get(), data, left);
        if (n < 0) {
            err = errno == EINTR ? 0 : errno;
            continue;
        }
        data += n;
        left -= static_cast<std::size_t>(n);
    }
    if (err == 0 && (::fchmod(fd.get(), 0644) != 0 || ::fsync(fd.get()) != 0)) {
        err = errno;
    }
    if (::close(fd.release()) != 0 && err == 0) {
        err = errno;
    }
    if (err == 0 && ::rename(temp.c_str(), target.c_str()) != 0) {
        err = errno;
    }
    if (err != 0) {
        ::unlink(temp.c_str());
        return Error::posix(err, "Unable to write the unit file '" + target + "'");
    }
    return {};
}

Status removeUnitFile(const std::string& directory, const std::string& name) {
    const std::string path = directory + "/" + name;
    if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
        return Error::posix(errno, "Unable to delete the unit file '" + path + "'");
    }
    return {};
}

bool unitFileExists(const std::string& directory, const std::string& name) {
    struct stat st {};
    return ::lstat((directory + "/" + name).c_str(), &st) == 0;
}

bool generatedUnit(const SystemdServiceManagerOptions& options, std::string_view unit) {
    const std::string& label = options.generatedLabel;
    return !label.empty() && unit.size() > label.size() && unit.starts_with(label) &&
           (unit[label.size()] == '.' || unit[label.size()] == '-');
}

// Whether the manager's file for `unit` is one of the backend's.
bool ownFragment(const SystemdServiceManagerOptions& options, const std::string& unit,
                 const std::string& fragment) {
    // The daemon's own unit runs on without a file once the generators have
    // run again after its definition was removed (a demotion's Reload): it
    // is still the one the generator made, and still to be stopped.
    if (fragment.empty()) {
        return generatedUnit(options, unit);
    }
    const std::string directory = directoryOf(unit, fragment);
    if (directory.empty()) {
        return false;
    }
    return sameDirectory(directory, options.unitDirectory) ||
           (generatedUnit(options, unit) && sameDirectory(directory, options.generatorDirectory));
}

std::string templateProbe(const std::string& templateUnit) {
    const auto at = templateUnit.find('@');
    return templateUnit.substr(0, at + 1) + "tessaryd-probe" + templateUnit.substr(at + 1);
}

bool inGeneratorDirectory(const SystemdServiceManagerOptions& options, const std::string& unit,
                          const std::string& fragment) {
    const std::string directory = directoryOf(unit, fragment);
    return !directory.empty() && sameDirectory(directory, options.generatorDirectory);
}

}  // namespace tessary::linux_backend
