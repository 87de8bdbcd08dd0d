#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/linux/desktop/console_user.h"
#include "platform/running_applications.h"

namespace tessary::linux_backend {

// The applications of the user logged in at the console (findConsoleUser).
//
// Which processes: every process whose systemd cgroup lies in the console
// user's slice "user-UID.slice". That slice holds all of the user's login
// sessions and the user's own service manager, which is where desktops start
// the applications they launch. Matching the audit session ids of the
// console's sessions would miss those, since the user's manager is started
// outside them.
// Another login of the same user (ssh) counts too: the question asked is
// which applications run for that user.
//
// Which of them are applications: those whose unit carries an application id
// (applicationIdOfUnit); the others (shells, the user's own services, the
// session scope) are left out. Each process of an application is listed,
// in process-id order.
//
// Linux tells neither which application is frontmost nor which owns a menu
// bar, so both answer none. No console user, no logind, or no readable
// /proc: no list.
//
// The operating-system version is the kernel release from uname(2): every
// Linux system has one, with the same meaning everywhere, whereas the
// distribution's VERSION_ID is missing on rolling releases and numbers
// unrelated schemes (Debian 12, RHEL 9.4). Compared with 10.12.0 it is
// older, so the incompatibility notice names the older system, on every
// Linux machine alike.
class SessionApplications final : public RunningApplications {
  public:
    explicit SessionApplications(std::string systemBusAddress = kSystemBusAddress,
                                 std::string procRoot = "/proc",
                                 std::chrono::milliseconds timeLimit = kDesktopTimeLimit);

    std::optional<std::vector<RunningApplication>> runningApplications() override;
    std::optional<RunningApplication> frontmostApplication() override { return std::nullopt; }
    std::optional<RunningApplication> menuBarOwningApplication() override { return std::nullopt; }
    OperatingSystemVersion operatingSystemVersion() override;

  private:
    std::string systemBus_;
    std::string procRoot_;
    std::chrono::milliseconds timeLimit_;
};

// The application id carried by the name of a unit that a desktop launched
// an application in, following systemd's naming of desktop applications:
// "app[-LAUNCHER]-ID-RANDOM.scope", "app[-LAUNCHER]-ID@RANDOM.service" or
// "app[-LAUNCHER]-ID.service". The id is the last "-"-separated part before
// the random suffix (an id's own dashes are escaped), with the unit-name
// escapes "\xNN" decoded. None for any other unit.
std::optional<std::string> applicationIdOfUnit(std::string_view unit);

// The application id of a process from its /proc/PID/cgroup text, when the
// process lies in the slice of `uid`: the id of the innermost unit on its
// cgroup path (the unified hierarchy's, or systemd's own on a hybrid layout).
std::optional<std::string> applicationIdOfProcess(std::string_view cgroups, std::uint32_t uid);

// "6.18.3" is 6, 18, 3; "6.1.0-18-amd64" is 6, 1, 0. Missing numbers are 0.
OperatingSystemVersion kernelReleaseVersion(std::string_view release);

}  // namespace tessary::linux_backend
