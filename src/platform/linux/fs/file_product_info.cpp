#include "platform/linux/fs/file_product_info.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "base/unique_fd.h"

namespace tessary::linux_backend {

namespace {

// A version line is short; whatever lies past this is not read.
constexpr std::size_t kReadLimit = 4096;

std::optional<std::string> firstLine(const std::string& path) {
    UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd) {
        return std::nullopt;
    }
    std::string text(kReadLimit, '\0');
    std::size_t size = 0;
    while (size < text.size()) {
        const ssize_t n = ::read(fd.get(), text.data() + size, text.size() - size);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            return std::nullopt;
        }
        if (n == 0) {
            break;
        }
        size += static_cast<std::size_t>(n);
    }
    std::string_view line(text.data(), size);
    line = line.substr(0, line.find('\n'));
    constexpr std::string_view kSpace = " \t\r\f\v";
    const std::size_t begin = line.find_first_not_of(kSpace);
    if (begin == std::string_view::npos) {
        return std::nullopt;
    }
    line = line.substr(begin, line.find_last_not_of(kSpace) - begin + 1);
    return std::string(line);
}

}  // namespace

std::optional<std::string> FileProductInfo::tessaryVersion() {
    return firstLine(versionFile_);
}

std::optional<std::string> FileProductInfo::minimumTessaryVersion() {
    return firstLine(minimumVersionFile_);
}

}  // namespace tessary::linux_backend
