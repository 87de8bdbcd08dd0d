#pragma once

// How values are written into unit files so that systemd reads them back
// exactly: quoting of command lines and environment, specifier escapes, the
// checks on values systemd takes as written, and the text of a unit.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "plist/value.h"

namespace tessary::linux_backend {

inline constexpr std::size_t kUnitNameMax = 255;

// "%" doubled: systemd expands specifiers in nearly every value.
std::string escapeSpecifiers(std::string_view s);

// One word as systemd's unquoting reads it back exactly: double quotes,
// backslash escapes for the characters that would end or change the word,
// "%%" against specifier expansion and, where systemd expands variables,
// "$$" against that.
std::string quotedWord(std::string_view s, bool expandsVariables);

// A value for a message: in double quotes, control characters as \xNN.
std::string describeValue(std::string_view s);

bool hasControlCharacter(std::string_view s);

// Why `s` cannot stand as written after "Key=", or empty when it can: systemd
// strips blanks at both ends, joins a line ending in a backslash with the
// next, and rejects a unit holding text that is not UTF-8.
std::string unwritableReason(std::string_view s);

// Why `path` is not a path systemd keeps as given, or empty: it must be
// absolute and hold no "." or ".." component and no "//" (systemd drops, or
// refuses to load, paths that are not normalized).
std::string unnormalizedReason(std::string_view path);

// An integer value, or a real without a fraction; nothing for other types
// and for integers beyond the signed range.
std::optional<std::int64_t> integerOf(const plist::Value& v);

// systemd's escaping of a string into a unit name component: characters
// outside [A-Za-z0-9:_.] (and a leading '.') become \xNN.
std::string escapeUnitNameComponent(std::string_view s);

// One section of a unit file, in the order its lines are added.
struct Section {
    std::vector<std::string> lines;
    void add(std::string_view key, std::string_view value) {
        lines.push_back(std::string(key) + "=" + std::string(value));
    }
};

// A whole unit file of the job `label`: a comment line, then each section.
std::string unitText(std::string_view label,
                     const std::vector<std::pair<std::string, Section>>& sections);

}  // namespace tessary::linux_backend
