#pragma once

#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace tessary::testing {

// A unit file read back the way systemd reads it: sections of directives,
// one per line, comments skipped. Written independently of the code that
// generates units, from systemd.syntax(7) and the "Command lines" section of
// systemd.service(5).
struct UnitText {
    // "Section.Key" -> every value, in order.
    std::map<std::string, std::vector<std::string>> values;

    static UnitText parse(const std::string& text) {
        UnitText unit;
        std::istringstream in(text);
        std::string line;
        std::string section;
        while (std::getline(in, line)) {
            if (line.empty() || line[0] == '#' || line[0] == ';') {
                continue;
            }
            if (line.front() == '[' && line.back() == ']') {
                section = line.substr(1, line.size() - 2);
                continue;
            }
            const auto eq = line.find('=');
            if (eq == std::string::npos) {
                unit.values["!malformed"].push_back(line);
                continue;
            }
            unit.values[section + "." + line.substr(0, eq)].push_back(line.substr(eq + 1));
        }
        return unit;
    }

    std::vector<std::string> all(const std::string& key) const {
        auto it = values.find(key);
        return it == values.end() ? std::vector<std::string>{} : it->second;
    }
    std::optional<std::string> one(const std::string& key) const {
        auto v = all(key);
        return v.size() == 1 ? std::optional<std::string>(v.front()) : std::nullopt;
    }
};

// Splits a quoted value into words: double or single quotes, C escapes
// inside them and outside ("\n", "\t", "\\", "\"", "\xNN"), then "%%" to
// "%" (any other specifier is an error here: nothing of the job may be
// expanded) and, with `variables`, "$$" to "$" (a lone "$" before a name or
// brace would be expanded, so it is an error too). Empty on error.
inline std::optional<std::vector<std::string>> splitWords(const std::string& value,
                                                          bool variables) {
    std::vector<std::string> words;
    std::size_t i = 0;
    auto hex = [](char c) -> int {
        if (c >= '0' && c <= '9')
            return c - '0';
        if (c >= 'a' && c <= 'f')
            return c - 'a' + 10;
        if (c >= 'A' && c <= 'F')
            return c - 'A' + 10;
        return -1;
    };
    while (i < value.size()) {
        while (i < value.size() && (value[i] == ' ' || value[i] == '\t')) {
            ++i;
        }
        if (i == value.size()) {
            break;
        }
        std::string word;
        char quote = 0;
        for (; i < value.size(); ++i) {
            const char c = value[i];
            if (quote == 0 && (c == ' ' || c == '\t')) {
                break;
            }
            if (c == quote) {
                quote = 0;
                continue;
            }
            if (quote == 0 && (c == '"' || c == '\'')) {
                quote = c;
                continue;
            }
            if (c == '%') {
                if (i + 1 >= value.size() || value[i + 1] != '%') {
                    return std::nullopt;
                }
                word += '%';
                ++i;
                continue;
            }
            if (c == '$' && variables) {
                if (i + 1 < value.size() && value[i + 1] == '$') {
                    word += '$';
                    ++i;
                    continue;
                }
                return std::nullopt;
            }
            if (c != '\\') {
                word += c;
                continue;
            }
            if (++i >= value.size()) {
                return std::nullopt;
            }
            switch (value[i]) {
                case 'n':
                    word += '\n';
                    break;
                case 't':
                    word += '\t';
                    break;
                case '\\':
                    word += '\\';
                    break;
                case '"':
                    word += '"';
                    break;
                case '\'':
                    word += '\'';
                    break;
                case 'x': {
                    if (i + 2 >= value.size() || hex(value[i + 1]) < 0 || hex(value[i + 2]) < 0) {
                        return std::nullopt;
                    }
                    word += static_cast<char>(hex(value[i + 1]) * 16 + hex(value[i + 2]));
                    i += 2;
                    break;
                }
                default:
                    return std::nullopt;
            }
        }
        if (quote != 0) {
            return std::nullopt;
        }
        words.push_back(word);
    }
    return words;
}

// ExecStart= read back: the executable and argv. With the "@" prefix argv[0]
// is the second word; the executable path is not variable-expanded.
struct CommandLine {
    std::string path;
    std::vector<std::string> argv;
};

inline std::optional<CommandLine> parseExecStart(std::string value) {
    const bool at = !value.empty() && value.front() == '@';
    if (at) {
        value.erase(0, 1);
    }
    // The end of the first word in the raw text.
    std::size_t i = 0;
    char quote = 0;
    for (; i < value.size(); ++i) {
        const char c = value[i];
        if (c == '\\') {
            ++i;
        } else if (quote != 0 && c == quote) {
            quote = 0;
        } else if (quote == 0 && (c == '"' || c == '\'')) {
            quote = c;
        } else if (quote == 0 && c == ' ') {
            break;
        }
    }
    auto path = splitWords(value.substr(0, i), false);
    auto args = splitWords(value.substr(i), true);
    if (!path || path->size() != 1 || !args) {
        return std::nullopt;
    }
    CommandLine cmd;
    cmd.path = path->front();
    if (!at) {
        cmd.argv.push_back(cmd.path);
    }
    cmd.argv.insert(cmd.argv.end(), args->begin(), args->end());
    return cmd;
}

}  // namespace tessary::testing
