#include "platform/linux/desktop/session_applications.h"

#include <fcntl.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <filesystem>

#include "base/unique_fd.h"

namespace tessary::linux_backend {

namespace {

// A /proc file is read whole; cgroup files are a few lines.
constexpr std::size_t kMaxFileSize = std::size_t{64} * 1024;

std::optional<std::string> readSmallFile(const std::string& path) {
    const UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd) {
        return std::nullopt;
    }
    std::string text;
    char buffer[4096];
    for (;;) {
        const ssize_t n = ::read(fd.get(), buffer, sizeof buffer);
        if (n < 0) {
            return std::nullopt;
        }
        if (n == 0 || text.size() >= kMaxFileSize) {
            return text;
        }
        text.append(buffer, static_cast<std::size_t>(n));
    }
}

bool cutSuffix(std::string_view& s, std::string_view suffix) {
    if (!s.ends_with(suffix)) {
        return false;
    }
    s.remove_suffix(suffix.size());
    return true;
}

int hexDigit(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

// systemd escapes the bytes a unit name cannot hold as "\xNN".
std::string unescapeUnitName(std::string_view s) {
    std::string out;
    for (std::size_t i = 0; i < s.size(); ++i) {
        if (s[i] == '\\' && i + 3 < s.size() && s[i + 1] == 'x' && hexDigit(s[i + 2]) >= 0 &&
            hexDigit(s[i + 3]) >= 0) {
            out.push_back(static_cast<char>(hexDigit(s[i + 2]) * 16 + hexDigit(s[i + 3])));
            i += 3;
        } else {
            out.push_back(s[i]);
        }
    }
    return out;
}

}  // namespace

std::optional<std::string> applicationIdOfUnit(std::string_view unit) {
    std::string_view rest = unit;
    if (!rest.starts_with("app-")) {
        return std::nullopt;
    }
    rest.remove_prefix(4);
    if (cutSuffix(rest, ".scope")) {
        // A scope ends in "-RANDOM".
        const auto dash = rest.rfind('-');
        if (dash == std::string_view::npos || dash + 1 == rest.size()) {
            return std::nullopt;
        }
        rest = rest.substr(0, dash);
    } else if (cutSuffix(rest, ".service")) {
        // An instance of a template ends in "@RANDOM"; the template itself
        // runs nothing.
        const auto at = rest.find('@');
        if (at != std::string_view::npos) {
            if (at + 1 == rest.size()) {
                return std::nullopt;
            }
            rest = rest.substr(0, at);
        }
    } else {
        return std::nullopt;
    }
    const auto dash = rest.rfind('-');
    if (dash != std::string_view::npos) {
        rest.remove_prefix(dash + 1);
    }
    std::string id = unescapeUnitName(rest);
    if (id.empty()) {
        return std::nullopt;
    }
    return id;
}

std::optional<std::string> applicationIdOfProcess(std::string_view cgroups, std::uint32_t uid) {
    // "0::PATH" is the unified hierarchy; on a hybrid layout systemd keeps
    // its units in "N:name=systemd:PATH" and the unified path stays "/".
    std::string_view unified;
    std::string_view named;
    while (!cgroups.empty()) {
        const auto end = cgroups.find('\n');
        std::string_view line = cgroups.substr(0, end);
        cgroups.remove_prefix(end == std::string_view::npos ? cgroups.size() : end + 1);
        if (line.starts_with("0::")) {
            unified = line.substr(3);
        } else if (const auto at = line.find(":name=systemd:"); at != std::string_view::npos) {
            named = line.substr(at + 14);
        }
    }
    std::string_view path = unified.size() > 1 ? unified : named;

    const std::string slice = "user-" + std::to_string(uid) + ".slice";
    bool inSlice = false;
    std::optional<std::string_view> unit;
    while (!path.empty()) {
        const auto slash = path.find('/');
        const std::string_view part = path.substr(0, slash);
        path.remove_prefix(slash == std::string_view::npos ? path.size() : slash + 1);
        inSlice = inSlice || part == slice;
        if (part.ends_with(".scope") || part.ends_with(".service")) {
            unit = part;
        }
    }
    if (!inSlice || !unit) {
        return std::nullopt;
    }
    return applicationIdOfUnit(*unit);
}

OperatingSystemVersion kernelReleaseVersion(std::string_view release) {
    int numbers[3] = {0, 0, 0};
    const char* p = release.data();
    const char* end = release.data() + release.size();
    for (int& n : numbers) {
        const auto [next, ec] = std::from_chars(p, end, n);
        if (ec != std::errc{}) {
            break;
        }
        p = next;
        if (p == end || *p != '.') {
            break;
        }
        ++p;
    }
    return {numbers[0], numbers[1], numbers[2]};
}

SessionApplications::SessionApplications(std::string systemBusAddress, std::string procRoot,
                                         std::chrono::milliseconds timeLimit)
    : systemBus_(std::move(systemBusAddress)),
      procRoot_(std::move(procRoot)),
      timeLimit_(timeLimit) {}

std::optional<std::vector<RunningApplication>> SessionApplications::runningApplications() {
    const auto user = findConsoleUser(systemBus_, timeLimit_);
    if (!user) {
        return std::nullopt;
    }
    std::error_code ec;
    std::filesystem::directory_iterator it(procRoot_, ec);
    if (ec) {
        return std::nullopt;
    }
    std::vector<RunningApplication> apps;
    // A process that ends meanwhile has no cgroup file left and drops out.
    for (; !ec && it != std::filesystem::directory_iterator(); it.increment(ec)) {
        const std::string name = it->path().filename().string();
        std::int32_t pid = 0;
        const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), pid);
        if (error != std::errc{} || end != name.data() + name.size()) {
            continue;
        }
        const auto cgroups = readSmallFile(procRoot_ + "/" + name + "/cgroup");
        if (!cgroups) {
            continue;
        }
        if (auto id = applicationIdOfProcess(*cgroups, user->uid)) {
            apps.push_back({pid, std::move(*id)});
        }
    }
    std::sort(
        apps.begin(), apps.end(),
        [](const RunningApplication& a, const RunningApplication& b) { return a.pid < b.pid; });
    return apps;
}

OperatingSystemVersion SessionApplications::operatingSystemVersion() {
    utsname names{};
    if (::uname(&names) != 0) {
        return {};
    }
    return kernelReleaseVersion(names.release);
}

}  // namespace tessary::linux_backend
