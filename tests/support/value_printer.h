#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "plist/value.h"

namespace tessary::plist {

// Test failures show values as their descriptions, not as bytes.
inline void PrintTo(const Value& v, std::ostream* os) {
    *os << v.description();
}

}  // namespace tessary::plist

namespace tessary::testing {

// An array of strings, as job arguments and label lists are written.
inline plist::Value strings(const std::vector<std::string>& s) {
    return plist::Value(plist::stringArray(s));
}

}  // namespace tessary::testing
