#pragma once

#include <cctype>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace tessary::testing {

// Values that would break a naive unit file: a newline starting a new
// directive, quotes, specifiers, variables, escapes, control characters.
inline const std::vector<std::string> kHostileValues = {
    "line one\nExecStartPre=/bin/sh -c 'touch /tmp/owned'",
    "say \"hi\" and 'bye'",
    "100% %n %i %%",
    "$HOME ${HOME} $$ $",
    "back\\slash \\n \\x41 trailing\\",
    "tab\there, bell\x07 and del\x7f",
    "",
    ";",
    "  spaces at both ends  ",
    "unicode \xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80",
};

// A unit file read back the way systemd reads it (systemd.syntax(7)), written
// apart from the code that generates units: "Section.Key" -> every value.
struct UnitText {
    std::map<std::string, std::vector<std::string>> values;

    static UnitText parse(const std::string& text) {
        UnitText unit;
        std::istringstream in(text);
        std::string section;
        std::string pending;
        for (std::string line; std::getline(in, line);) {
            // A line ending in an odd number of backslashes goes on in the
            // next, the backslash read as a blank.
            std::size_t slashes = 0;
            while (slashes < line.size() && line[line.size() - 1 - slashes] == '\\') {
                ++slashes;
            }
            if (slashes % 2 == 1) {
                pending += line.substr(0, line.size() - 1) + " ";
                continue;
            }
            line = pending + line;
            pending.clear();
            if (line.empty() || line[0] == '#' || line[0] == ';') {
                continue;
            }
            const auto eq = line.find('=');
            if (line.front() == '[' && line.back() == ']') {
                section = line.substr(1, line.size() - 2);
            } else if (eq == std::string::npos) {
                unit.values["!malformed"].push_back(line);
            } else {
                unit.values[section + "." + line.substr(0, eq)].push_back(line.substr(eq + 1));
            }
        }
        return unit;
    }
    std::vector<std::string> all(const std::string& key) const {
        auto it = values.find(key);
        return it == values.end() ? std::vector<std::string>{} : it->second;
    }
    // The value of a directive given exactly once.
    std::optional<std::string> one(const std::string& key) const {
        auto v = all(key);
        return v.size() == 1 ? std::optional(v.front()) : std::nullopt;
    }
    // The same with specifiers expanded: "%%" is "%"; any other specifier
    // would take a value of the machine's, so the value is not the job's.
    std::optional<std::string> expanded(const std::string& key) const {
        auto v = one(key);
        std::string out;
        for (std::size_t i = 0; v && i < v->size(); ++i) {
            if ((*v)[i] == '%' && (i + 1 == v->size() || (*v)[++i] != '%')) {
                return std::nullopt;
            }
            out += (*v)[i];
        }
        return v ? std::optional(out) : std::nullopt;
    }
};

// The word starting at `i` of a command line or Environment= value, unquoted
// as systemd.service(5) describes: quotes, C escapes, then "%%" for "%" (any
// other specifier is an error here: nothing of a job may be expanded) and,
// with `variables`, "$$" for "$" (a lone "$" would be expanded: an error too).
inline std::optional<std::string> nextWord(const std::string& s, std::size_t& i, bool variables) {
    constexpr std::string_view kEscapes = "nt\\\"'", kEscaped = "\n\t\\\"'";
    std::string word;
    char quote = 0;
    for (; i < s.size() && (quote != 0 || (s[i] != ' ' && s[i] != '\t')); ++i) {
        const char c = s[i];
        if (c == quote || (quote == 0 && (c == '"' || c == '\''))) {
            quote = quote == 0 ? c : 0;
        } else if (c == '%' || (c == '$' && variables)) {
            if (i + 1 == s.size() || s[++i] != c) {
                return std::nullopt;
            }
            word += c;
        } else if (c != '\\') {
            word += c;
        } else if (++i < s.size() && kEscapes.find(s[i]) != std::string_view::npos) {
            word += kEscaped[kEscapes.find(s[i])];
        } else if (i + 2 < s.size() && s[i] == 'x' && std::isxdigit(s[i + 1]) &&
                   std::isxdigit(s[i + 2])) {
            word += static_cast<char>(std::stoi(s.substr(i + 1, 2), nullptr, 16));
            i += 2;
        } else {
            return std::nullopt;
        }
    }
    return quote == 0 ? std::optional(word) : std::nullopt;
}

// All words of `s`; none when any is malformed.
inline std::optional<std::vector<std::string>> splitWords(const std::string& s, bool variables) {
    std::vector<std::string> words;
    for (auto i = s.find_first_not_of(" \t"); i < s.size(); i = s.find_first_not_of(" \t", i)) {
        auto word = nextWord(s, i, variables);
        if (!word) {
            return std::nullopt;
        }
        words.push_back(*word);
    }
    return words;
}

// ExecStart= read back: the executable and argv. With the "@" prefix argv[0]
// is the second word; the executable is not variable-expanded.
struct CommandLine {
    std::string path;
    std::vector<std::string> argv;
};
inline std::optional<CommandLine> parseExecStart(const std::string& value) {
    const bool at = value.starts_with('@');
    std::size_t i = at ? 1 : 0;
    auto path = nextWord(value, i, false);
    auto argv = splitWords(value.substr(i), true);
    if (!path || !argv) {
        return std::nullopt;
    }
    if (!at) {
        argv->insert(argv->begin(), *path);
    }
    return CommandLine{*path, *argv};
}

}  // namespace tessary::testing
