#include "platform/linux/systemd/unit_values.h"

#include <cmath>
#include <cstdio>

#include "base/utf8.h"

namespace tessary::linux_backend {

namespace {

std::string hexEscape(unsigned char c) {
    char buf[8];
    (void)std::snprintf(buf, sizeof buf, "\\x%02x", c);
    return buf;
}

bool isBlank(char c) {
    return c == ' ' || c == '\t';
}

}  // namespace

std::string escapeSpecifiers(std::string_view s) {
    std::string out;
    out.reserve(s.size());
    for (const char c : s) {
        out += c;
        if (c == '%') {
            out += '%';
        }
    }
    return out;
}

std::string quotedWord(std::string_view s, bool expandsVariables) {
    std::string out = "\"";
    for (const char ch : s) {
        const auto c = static_cast<unsigned char>(ch);
        switch (ch) {
            case '\\':
                out += "\\\\";
                break;
            case '"':
                out += "\\\"";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\t':
                out += "\\t";
                break;
            case '%':
                out += "%%";
                break;
            case '$':
                out += expandsVariables ? "$$" : "$";
                break;
            default:
                out += c < 0x20 || c == 0x7F ? hexEscape(c) : std::string(1, ch);
        }
    }
    out += '"';
    return out;
}

std::string describeValue(std::string_view s) {
    std::string out = "\"";
    for (const char ch : s) {
        const auto c = static_cast<unsigned char>(ch);
        out += c < 0x20 || c == 0x7F ? hexEscape(c) : std::string(1, ch);
    }
    return out + "\"";
}

bool hasControlCharacter(std::string_view s) {
    for (const char ch : s) {
        const auto c = static_cast<unsigned char>(ch);
        if (c < 0x20 || c == 0x7F) {
            return true;
        }
    }
    return false;
}

std::string unwritableReason(std::string_view s) {
    if (s.empty()) {
        return "it is empty";
    }
    if (!isValidUtf8(s)) {
        return "it is not UTF-8";
    }
    if (hasControlCharacter(s)) {
        return "it holds control characters";
    }
    if (isBlank(s.front()) || isBlank(s.back())) {
        return "it has blanks at one end, which systemd strips";
    }
    if (s.back() == '\\') {
        return "it ends in a backslash, which joins the next line of the unit to it";
    }
    return {};
}

std::string unnormalizedReason(std::string_view path) {
    if (path.empty() || path.front() != '/') {
        return "it is not an absolute path";
    }
    if (path.find("//") != std::string_view::npos) {
        return "it holds \"//\", which systemd does not keep as written";
    }
    std::size_t start = 1;
    while (start <= path.size()) {
        std::size_t end = path.find('/', start);
        if (end == std::string_view::npos) {
            end = path.size();
        }
        const std::string_view part = path.substr(start, end - start);
        if (part == "." || part == "..") {
            return "it holds a \"" + std::string(part) +
                   "\" component: systemd takes only normalized paths";
        }
        start = end + 1;
    }
    return {};
}

std::optional<std::int64_t> integerOf(const plist::Value& v) {
    if (const auto i = v.asInteger()) {
        if (i->isUnsigned) {
            return std::nullopt;
        }
        return i->asSigned();
    }
    if (const auto r = v.asReal()) {
        if (std::isfinite(*r) && std::floor(*r) == *r && std::fabs(*r) < 1e15) {
            return static_cast<std::int64_t>(*r);
        }
    }
    return std::nullopt;
}

std::string escapeUnitNameComponent(std::string_view s) {
    std::string out;
    for (std::size_t i = 0; i < s.size(); ++i) {
        const auto c = static_cast<unsigned char>(s[i]);
        const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                           (c >= '0' && c <= '9') || c == ':' || c == '_' || (c == '.' && i > 0);
        out += plain ? std::string(1, static_cast<char>(c)) : hexEscape(c);
    }
    return out;
}

std::string unitText(std::string_view label,
                     const std::vector<std::pair<std::string, Section>>& sections) {
    std::string text = "# Written by tessaryd for the job ";
    text += label;
    text += "; removed with it.\n";
    for (const auto& [name, section] : sections) {
        if (section.lines.empty() && name != "Service") {
            continue;
        }
        text += "\n[" + name + "]\n";
        for (const auto& line : section.lines) {
            text += line;
            text += '\n';
        }
    }
    return text;
}

}  // namespace tessary::linux_backend
