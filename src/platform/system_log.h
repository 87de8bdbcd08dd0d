#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>
#include <vector>

#include "base/error.h"
#include "plist/value.h"

namespace tessary {

// syslog priorities; the daemon uses four of them.
enum class LogLevel : std::uint8_t { Error = 3, Warning = 4, Notice = 5, Debug = 7 };

// One argument of a log format. "%@" takes anything with a description
// (text, a property-list value, an Error), "%s" text, "%d" an integer, "%f" a
// real.
class LogArg {
  public:
    LogArg(std::string_view s) : v_(s) {}  // NOLINT(google-explicit-constructor)
    LogArg(const std::string& s)
        : v_(std::string_view(s)) {}                    // NOLINT(google-explicit-constructor)
    LogArg(const char* s) : v_(std::string_view(s)) {}  // NOLINT(google-explicit-constructor)
    LogArg(const plist::Value& v) : v_(&v) {}           // NOLINT(google-explicit-constructor)
    LogArg(const Error& e)
        : v_(std::string_view(e.description)) {}  // NOLINT(google-explicit-constructor)
    template <class T, std::enable_if_t<std::is_integral_v<T>, int> = 0>
    LogArg(T i) : v_(static_cast<long long>(i)) {}  // NOLINT(google-explicit-constructor)
    LogArg(double d) : v_(d) {}                     // NOLINT(google-explicit-constructor)

    void appendTo(std::string& out, char conversion) const;

  private:
    std::variant<std::string_view, const plist::Value*, long long, double> v_;
};

// Expands a printf-style format with "%@", "%s", "%d", "%f" and "%%". A
// conversion without an argument is left as it stands.
std::string formatLogLine(std::string_view format, const std::vector<LogArg>& args);

// The system log: one line per event. Lines carry their own "ERROR: " or
// "WARNING: " prefix where they have one; the level is the syslog priority.
class SystemLog {
  public:
    virtual ~SystemLog() = default;
    virtual void write(LogLevel level, std::string_view line) = 0;

    template <class... A>
    void error(std::string_view format, const A&... args) {
        write(LogLevel::Error, formatLogLine(format, {LogArg(args)...}));
    }
    template <class... A>
    void warning(std::string_view format, const A&... args) {
        write(LogLevel::Warning, formatLogLine(format, {LogArg(args)...}));
    }
    template <class... A>
    void notice(std::string_view format, const A&... args) {
        write(LogLevel::Notice, formatLogLine(format, {LogArg(args)...}));
    }
    template <class... A>
    void debug(std::string_view format, const A&... args) {
        write(LogLevel::Debug, formatLogLine(format, {LogArg(args)...}));
    }
};

}  // namespace tessary
