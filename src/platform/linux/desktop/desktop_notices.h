#pragma once

#include <chrono>
#include <string>

#include "platform/linux/desktop/console_user.h"
#include "platform/user_notice_service.h"

namespace tessary::linux_backend {

// Notices as desktop notifications: org.freedesktop.Notifications.Notify on
// the session bus of the user logged in at the console (found through
// logind, see findConsoleUser).
//
// The session bus is the user's own: dbus-daemon admits only the uid that
// runs it, and refuses root (measured with dbus-daemon 1.14: the connection
// is closed during authentication). So the call is made by a short-lived
// child process that drops to the user's uid and gid, with no descriptor of
// the daemon's left open, connects to "RUNTIME-PATH/bus", calls Notify and
// exits with one of the codes below. The daemon waits for it at most the
// time limit, then kills it.
//
// The call: app_name "Tessary", replaces_id 0, app_icon the notice's icon
// path, summary the header, body the message, no actions, hints
// {"urgency": byte} from the level (stop is critical, the others normal),
// expire_timeout the notice's time-out in milliseconds, where 0 means, as in
// the notice, that it never expires.
//
// A button title and a sound are not passed on (the daemon's notices have
// neither). Every notification can be dismissed, which is the one button a
// notice has; a button of its own would be an action, whose invocation would
// go to the helper process, gone by then.
//
// The localization bundle is not used: Linux has no such bundles, and the
// header and message are shown as they are, which is what happens elsewhere
// when a bundle has no translation for them.
class DesktopNotices final : public UserNoticeService {
  public:
    enum Code : int {
        kShown = 0,
        kNoConsoleUser = 1,         // logind unreachable, or no user session active on seat0
        kNoSessionBus = 2,          // nothing listens at the user's bus, or it refused us
        kNoNotificationServer = 3,  // nobody owns org.freedesktop.Notifications, nor can start
        kNoAnswer = 4,              // the server refused the call, or did not answer in time
        kNoHelper = 5,              // the child process could not be made or failed to drop
    };

    explicit DesktopNotices(std::string systemBusAddress = kSystemBusAddress,
                            std::chrono::milliseconds timeLimit = kDesktopTimeLimit);

    int displayNotice(const UserNotice& notice) override;

  private:
    std::string systemBus_;
    std::chrono::milliseconds timeLimit_;
};

}  // namespace tessary::linux_backend
