#include "platform/system_log.h"

#include <cstdio>

namespace tessary {

void LogArg::appendTo(std::string& out, char conversion) const {
    char buf[64];
    if (const auto* s = std::get_if<std::string_view>(&v_)) {
        out += *s;
    } else if (const auto* v = std::get_if<const plist::Value*>(&v_)) {
        out += (*v)->description();
    } else if (const auto* i = std::get_if<long long>(&v_)) {
        if (conversion == 'f') {
            (void)std::snprintf(buf, sizeof buf, "%f", static_cast<double>(*i));
        } else {
            (void)std::snprintf(buf, sizeof buf, "%lld", *i);
        }
        out += buf;
    } else {
        const double d = std::get<double>(v_);
        if (conversion == 'd') {
            (void)std::snprintf(buf, sizeof buf, "%lld", static_cast<long long>(d));
        } else {
            (void)std::snprintf(buf, sizeof buf, "%f", d);
        }
        out += buf;
    }
}

std::string formatLogLine(std::string_view format, const std::vector<LogArg>& args) {
    std::string out;
    out.reserve(format.size() + 32);
    std::size_t next = 0;
    for (std::size_t i = 0; i < format.size(); ++i) {
        const char c = format[i];
        if (c != '%' || i + 1 == format.size()) {
            out += c;
            continue;
        }
        const char conv = format[i + 1];
        if (conv == '%') {
            out += '%';
            ++i;
        } else if ((conv == '@' || conv == 's' || conv == 'd' || conv == 'f') &&
                   next < args.size()) {
            args[next++].appendTo(out, conv);
            ++i;
        } else {
            out += c;
        }
    }
    return out;
}

}  // namespace tessary
