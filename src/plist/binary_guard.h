#pragma once

#include <string_view>

namespace tessary::plist {

// Whether a binary property list holds a string object with a NUL byte in it.
// libplist aborts the process when such a string is a dictionary key (its
// key reader asserts that a key's length is its C-string length), so these
// lists are refused before libplist parses them; neither written form could
// carry such a string back anyway. Anything the scan cannot read (a damaged
// trailer or table, an object out of bounds) is left to libplist, which
// refuses damaged lists on its own.
bool binaryListHasNulInString(std::string_view bytes);

}  // namespace tessary::plist
