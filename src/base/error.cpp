#include "base/error.h"

#include <system_error>

namespace tessary {

Error Error::posix(int err, std::string what) {
    std::string text = std::move(what);
    text += ": ";
    text += std::error_code(err, std::generic_category()).message();
    return Error{"NSPOSIXErrorDomain", err, std::move(text)};
}

}  // namespace tessary
