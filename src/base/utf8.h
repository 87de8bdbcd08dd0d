#pragma once

#include <string_view>

namespace tessary {

// Whether `s` is well-formed UTF-8: no stray continuation bytes, overlong
// forms, surrogates or values past U+10FFFF.
bool isValidUtf8(std::string_view s);

}  // namespace tessary
