#include "base/error.h"

#include <system_error>

namespace tessary {

namespace {
constexpr const char* kPosixDomain = "NSPOSIXErrorDomain";
}  // namespace

Error Error::posix(int err, std::string what) {
    std::string text = std::move(what);
    text += ": ";
    text += std::error_code(err, std::generic_category()).message();
    return Error{kPosixDomain, err, std::move(text)};
}

bool Error::isPosix(int err) const {
    return domain == kPosixDomain && code == err;
}

}  // namespace tessary
