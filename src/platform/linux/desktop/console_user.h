#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "platform/linux/logind/logind_power.h"
#include "platform/linux/sd_handles.h"

namespace tessary::linux_backend {

// Every bus call made for the desktop (logind, the user's session bus) gives
// up after this: notices are shown from the main queue, which must not wait
// long for a desktop that does not answer.
inline constexpr std::chrono::milliseconds kDesktopTimeLimit{2000};

// The user logged in at the console, as logind knows them.
struct ConsoleUser {
    std::uint32_t uid = 0;
    std::uint32_t gid = 0;
    std::string runtimePath;  // "/run/user/UID"; the session bus listens on its "bus"
};

// A client connection to the bus at `address` whose method calls give up
// after `limit`; 0 or a negative errno. The connection is made, not yet
// authenticated: the first call finds out whether the bus accepts us.
int connectToBus(const std::string& address, std::chrono::milliseconds limit, SdBusPtr& out);

// The user of the session that is active on seat0, asked of logind
// (org.freedesktop.login1) on the system bus at `systemBusAddress`:
// Manager.GetSeat("seat0"), the seat's ActiveSession, that session's Class
// and User, and the user's GID and RuntimePath.
//
// None when logind cannot be reached or does not answer within `limit`, when
// no session is active on seat0, or when the active one is not of class
// "user" (a greeter or lock screen has nobody to tell).
std::optional<ConsoleUser> findConsoleUser(const std::string& systemBusAddress,
                                           std::chrono::milliseconds limit);

}  // namespace tessary::linux_backend
