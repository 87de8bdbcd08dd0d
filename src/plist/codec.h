#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "base/error.h"
#include "plist/budget.h"
#include "plist/value.h"

namespace tessary::plist {

enum class Format : std::uint8_t {
    Xml,     // XML property list, version 1.0
    Binary,  // binary property list, version 1.0 ("bplist00")
};

// Containers nested deeper than this are refused on decode and encode: no
// file or message the daemon deals in comes near it, and it bounds recursion.
inline constexpr int kMaxNesting = 256;

// What decoding does with a string that is not UTF-8. Nothing the daemon
// writes may hold one (libplist's writers would drop its bytes), so files and
// command arguments refuse them; a request's outer message keeps them, so that
// only the field that holds one is wrong.
enum class Strings : std::uint8_t { Utf8Only, KeepInvalid };

// Reads a property list in any form libplist knows (XML or binary), once it
// is known to stay within `budget`. Never throws; bad bytes give an Error
// whose description says why.
Result<Value> decode(std::span<const std::uint8_t> bytes, const Budget& budget = kFileBudget,
                     Strings strings = Strings::Utf8Only);
Result<Value> decode(std::string_view bytes, const Budget& budget = kFileBudget,
                     Strings strings = Strings::Utf8Only);

// Writes `value` in the given form. Fails (with a reason) for what the forms
// cannot hold, so that whatever is written reads back exactly: strings with
// NUL bytes or that are not UTF-8, dates out of range, nesting too deep.
Result<Bytes> encode(const Value& value, Format format);

}  // namespace tessary::plist
