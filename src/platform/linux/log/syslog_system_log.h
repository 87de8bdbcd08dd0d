#pragma once

#include "platform/system_log.h"

namespace tessary::linux_backend {

// syslog(3) under the daemon's label, facility daemon; journald keeps the
// priority of each line.
class SyslogSystemLog final : public SystemLog {
  public:
    static constexpr const char* kIdentity = "com.orvane.tessaryd";
    SyslogSystemLog();
    ~SyslogSystemLog() override;
    SyslogSystemLog(const SyslogSystemLog&) = delete;
    SyslogSystemLog& operator=(const SyslogSystemLog&) = delete;

    void write(LogLevel level, std::string_view line) override;
};

}  // namespace tessary::linux_backend
