#pragma once

#include <ostream>

#include "plist/value.h"

namespace tessary::plist {

// Test failures show values as their descriptions, not as bytes.
inline void PrintTo(const Value& v, std::ostream* os) {
    *os << v.description();
}

}  // namespace tessary::plist
