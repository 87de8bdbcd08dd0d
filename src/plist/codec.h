#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "base/error.h"
#include "plist/value.h"

namespace tessary::plist {

enum class Format : std::uint8_t {
    Xml,     // XML property list, version 1.0
    Binary,  // binary property list, version 1.0 ("bplist00")
};

// Containers nested deeper than this are refused on decode and encode: no
// file or message the daemon deals in comes near it, and it bounds recursion.
inline constexpr int kMaxNesting = 256;

// Reads a property list in any form libplist knows (XML or binary). Never
// throws; bad bytes give an Error whose description says why.
Result<Value> decode(std::span<const std::uint8_t> bytes);
Result<Value> decode(std::string_view bytes);

// Writes `value` in the given form. Fails (with a reason) for what the forms
// cannot hold, so that whatever is written reads back exactly: strings with
// NUL bytes or that are not UTF-8, dates out of range, nesting too deep.
Result<Bytes> encode(const Value& value, Format format);

}  // namespace tessary::plist
