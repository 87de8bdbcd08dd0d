#include "platform/linux/log/syslog_system_log.h"

#include <syslog.h>

#include <string>

namespace tessary::linux_backend {

SyslogSystemLog::SyslogSystemLog() {
    ::openlog(kIdentity, LOG_PID | LOG_NDELAY, LOG_DAEMON);
}

SyslogSystemLog::~SyslogSystemLog() {
    ::closelog();
}

void SyslogSystemLog::write(LogLevel level, std::string_view line) {
    const std::string text(line);
    ::syslog(LOG_DAEMON | static_cast<int>(level), "%s", text.c_str());
}

}  // namespace tessary::linux_backend
