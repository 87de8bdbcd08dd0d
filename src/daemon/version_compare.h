#pragma once

#include <string_view>

namespace tessary {

// Compares two version strings the way people read them: runs of decimal
// digits compare by numeric value (5.10 is greater than 5.9), every other
// character literally and case-sensitively. Negative, zero or positive.
int compareVersions(std::string_view a, std::string_view b);

}  // namespace tessary
