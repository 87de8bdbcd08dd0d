#include "daemon/version_compare.h"

namespace tessary {

namespace {

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

// The run of digits starting at `i`, without its leading zeros.
std::string_view digitRun(std::string_view s, std::size_t& i) {
    std::size_t start = i;
    while (i < s.size() && isDigit(s[i])) {
        ++i;
    }
    while (start + 1 < i && s[start] == '0') {
        ++start;
    }
    return s.substr(start, i - start);
}

}  // namespace

int compareVersions(std::string_view a, std::string_view b) {
    std::size_t i = 0;
    std::size_t j = 0;
    while (i < a.size() && j < b.size()) {
        if (isDigit(a[i]) && isDigit(b[j])) {
            // Compared as text once leading zeros are gone: a longer run is a
            // larger number, so no run can overflow an integer type.
            const std::string_view x = digitRun(a, i);
            const std::string_view y = digitRun(b, j);
            if (x.size() != y.size()) {
                return x.size() < y.size() ? -1 : 1;
            }
            if (const int c = x.compare(y); c != 0) {
                return c < 0 ? -1 : 1;
            }
            continue;
        }
        if (a[i] != b[j]) {
            return static_cast<unsigned char>(a[i]) < static_cast<unsigned char>(b[j]) ? -1 : 1;
        }
        ++i;
        ++j;
    }
    if (i < a.size()) {
        return 1;
    }
    return j < b.size() ? -1 : 0;
}

}  // namespace tessary
