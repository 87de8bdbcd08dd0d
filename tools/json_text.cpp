#include "json_text.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>

namespace tessary::client {

void appendJsonString(std::string& out, std::string_view s) {
    out += '"';
    // Runs of characters that need no escape go in whole: a list of many
    // services writes thousands of labels.
    std::size_t plain = 0;
    for (std::size_t i = 0; i < s.size(); ++i) {
        const auto c = static_cast<unsigned char>(s[i]);
        if (c >= 0x20 && c != '"' && c != '\\') {
            continue;
        }
        out.append(s, plain, i - plain);
        plain = i + 1;
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\t':
                out += "\\t";
                break;
            case '\r':
                out += "\\r";
                break;
            default: {
                char buf[8];
                (void)std::snprintf(buf, sizeof buf, "\\u%04x", c);
                out += buf;
            }
        }
    }
    out.append(s, plain, s.size() - plain);
    out += '"';
}

namespace {

std::string base64(const plist::Bytes& bytes) {
    static constexpr char kAlphabet[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        const std::size_t n = std::min<std::size_t>(3, bytes.size() - i);
        std::uint32_t v = static_cast<std::uint32_t>(bytes[i]) << 16;
        if (n > 1) {
            v |= static_cast<std::uint32_t>(bytes[i + 1]) << 8;
        }
        if (n > 2) {
            v |= bytes[i + 2];
        }
        for (std::size_t k = 0; k < 4; ++k) {
            out += k <= n ? kAlphabet[(v >> (18 - 6 * k)) & 0x3F] : '=';
        }
    }
    return out;
}

}  // namespace

void appendJson(std::string& out, const plist::Value& v) {
    switch (v.type()) {
        case plist::Value::Type::Boolean:
            out += *v.asBoolean() ? "true" : "false";
            break;
        case plist::Value::Type::Integer: {
            const plist::Integer i = *v.asInteger();
            out += i.isUnsigned ? std::to_string(i.bits) : std::to_string(i.asSigned());
            break;
        }
        case plist::Value::Type::Real: {
            const double d = *v.asReal();
            if (!std::isfinite(d)) {
                out += "null";
            } else {
                char buf[32];
                (void)std::snprintf(buf, sizeof buf, "%.17g", d);
                out += buf;
            }
            break;
        }
        case plist::Value::Type::String:
            appendJsonString(out, *v.string());
            break;
        case plist::Value::Type::Data:
            appendJsonString(out, base64(*v.data()));
            break;
        case plist::Value::Type::Date:
            appendJsonString(out, v.description());
            break;
        case plist::Value::Type::Array: {
            out += '[';
            bool first = true;
            for (const plist::Value& e : *v.array()) {
                out += first ? "" : ",";
                first = false;
                appendJson(out, e);
            }
            out += ']';
            break;
        }
        case plist::Value::Type::Dictionary: {
            out += '{';
            bool first = true;
            for (const auto& [key, e] : *v.dictionary()) {
                out += first ? "" : ",";
                first = false;
                appendJsonString(out, key);
                out += ':';
                appendJson(out, e);
            }
            out += '}';
            break;
        }
    }
}

}  // namespace tessary::client
