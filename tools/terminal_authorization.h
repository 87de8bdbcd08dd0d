#pragma once

#include <cstdint>
#include <string>

namespace tessary::client {

// Whether this process holds the right that every command but "status" needs.
enum class Right : std::uint8_t {
    Held,     // root, or polkit says yes
    Refused,  // polkit says no
    Unknown,  // polkit could not be asked: the daemon decides
};

// Asks polkit, for this very process, whether it may use the daemon's admin
// action, the way systemctl does for a user who is not root: with `mayAsk`,
// and a terminal on standard input, a text agent (pkttyagent) registered for
// this process first asks for an administrator's password there. What polkit
// then grants it keeps for a while (auth_admin_keep), and the daemon's own
// check, made without interaction, finds it.
Right obtainAdminRight(const std::string& actionId, bool mayAsk);

}  // namespace tessary::client
