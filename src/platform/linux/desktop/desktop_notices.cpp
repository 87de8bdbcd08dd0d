#include "platform/linux/desktop/desktop_notices.h"

#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstring>

#include "base/unique_fd.h"

namespace tessary::linux_backend {

namespace {

constexpr const char* kNotifications = "org.freedesktop.Notifications";
constexpr const char* kNotificationsPath = "/org/freedesktop/Notifications";
constexpr const char* kAppName = "Tessary";

// Notification urgencies: 0 low, 1 normal, 2 critical.
std::uint8_t urgencyOf(UserNotice::Level level) {
    return level == UserNotice::Level::Stop ? 2 : 1;
}

// Milliseconds for expire_timeout; 0 stays 0, which the interface reads as
// "never expires".
std::int32_t expireTimeout(double seconds) {
    if (!(seconds > 0)) {
        return 0;
    }
    const double ms = std::ceil(seconds * 1000);
    return ms >= INT32_MAX ? INT32_MAX : static_cast<std::int32_t>(ms);
}

int appendNotify(sd_bus_message* m, const UserNotice& notice) {
    int r = sd_bus_message_append(m, "susss", kAppName, 0u, notice.iconPath.c_str(),
                                  notice.header.c_str(), notice.message.c_str());
    r = r < 0 ? r : sd_bus_message_append(m, "as", 0);
    r = r < 0 ? r : sd_bus_message_append(m, "a{sv}", 1, "urgency", "y", urgencyOf(notice.level));
    return r < 0 ? r : sd_bus_message_append(m, "i", expireTimeout(notice.timeout));
}

// Nobody owns the name and the bus cannot start anyone for it.
bool noServer(const char* errorName) {
    static constexpr const char kSpawnError[] = "org.freedesktop.DBus.Error.Spawn.";
    return std::strcmp(errorName, SD_BUS_ERROR_SERVICE_UNKNOWN) == 0 ||
           std::strcmp(errorName, SD_BUS_ERROR_NAME_HAS_NO_OWNER) == 0 ||
           std::strncmp(errorName, kSpawnError, sizeof kSpawnError - 1) == 0;
}

// In the child, as the user.
int notify(const std::string& address, const UserNotice& notice, std::chrono::milliseconds limit) {
    SdBusPtr bus;
    const char* unique = nullptr;
    // Asking our unique name waits for the bus to accept us.
    if (connectToBus(address, limit, bus) < 0 || sd_bus_get_unique_name(bus.get(), &unique) < 0) {
        return DesktopNotices::kNoSessionBus;
    }
    sd_bus_message* raw = nullptr;
    if (sd_bus_message_new_method_call(bus.get(), &raw, kNotifications, kNotificationsPath,
                                       kNotifications, "Notify") < 0) {
        return DesktopNotices::kNoAnswer;
    }
    const SdBusMessagePtr call(raw);
    if (appendNotify(call.get(), notice) < 0) {
        return DesktopNotices::kNoAnswer;
    }
    SdBusError error;
    raw = nullptr;
    const int r = sd_bus_call(bus.get(), call.get(), 0, error.get(), &raw);
    const SdBusMessagePtr reply(raw);
    if (r >= 0) {
        return DesktopNotices::kShown;
    }
    return error.isSet() && noServer(error.name()) ? DesktopNotices::kNoNotificationServer
                                                   : DesktopNotices::kNoAnswer;
}

[[noreturn]] void notifyAsUser(pid_t daemon, const ConsoleUser& user, const std::string& address,
                               const UserNotice& notice, std::chrono::milliseconds limit) {
    const gid_t gid = user.gid;
    // Nothing of the daemon's (sockets, locks, files) goes along to the
    // user's side.
    if (::close_range(3, ~0U, 0) != 0 || ::setgroups(1, &gid) != 0 ||
        ::setresgid(gid, gid, gid) != 0 || ::setresuid(user.uid, user.uid, user.uid) != 0) {
        ::_exit(DesktopNotices::kNoHelper);
    }
    // The change of credentials cleared any parent-death signal, so it is
    // set only now; a daemon already gone leaves nobody to answer.
    if (::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || ::getppid() != daemon) {
        ::_exit(DesktopNotices::kNoHelper);
    }
    ::_exit(notify(address, notice, limit));
}

// Whether `pid` ended before `deadline`.
bool endsBy(pid_t pid, std::chrono::steady_clock::time_point deadline) {
    const UniqueFd pidfd(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
    if (!pidfd) {
        return false;
    }
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd p{pidfd.get(), POLLIN, 0};
        const int n = ::poll(&p, 1, static_cast<int>(std::max<long>(left.count(), 0)));
        if (n >= 0 || errno != EINTR) {
            return n > 0;
        }
    }
}

}  // namespace

DesktopNotices::DesktopNotices(std::string systemBusAddress, std::chrono::milliseconds timeLimit)
    : systemBus_(std::move(systemBusAddress)), timeLimit_(timeLimit) {}

int DesktopNotices::displayNotice(const UserNotice& notice) {
    const auto user = findConsoleUser(systemBus_, timeLimit_);
    if (!user) {
        return kNoConsoleUser;
    }
    const std::string address = "unix:path=" + user->runtimePath + "/bus";
    const auto deadline = std::chrono::steady_clock::now() + timeLimit_;
    const pid_t daemon = ::getpid();
    const pid_t child = ::fork();
    if (child < 0) {
        return kNoHelper;
    }
    if (child == 0) {
        notifyAsUser(daemon, *user, address, notice, timeLimit_);
    }
    const bool ended = endsBy(child, deadline);
    if (!ended) {
        ::kill(child, SIGKILL);
    }
    int status = 0;
    pid_t waited = -1;
    while ((waited = ::waitpid(child, &status, 0)) < 0 && errno == EINTR) {
    }
    if (!ended) {
        return kNoAnswer;
    }
    if (waited != child || !WIFEXITED(status) || WEXITSTATUS(status) > kNoHelper) {
        return kNoHelper;
    }
    return WEXITSTATUS(status);
}

}  // namespace tessary::linux_backend
