#include "platform/paths.h"

namespace tessary {

Paths::Paths(std::string root) : root_(std::move(root)) {
    while (root_.size() > 1 && root_.back() == '/') {
        root_.pop_back();
    }
}

std::string Paths::resolve(std::string_view absolute) const {
    if (root_ == "/" || root_.empty()) {
        return std::string(absolute);
    }
    std::string out = root_;
    out += absolute;
    return out;
}

}  // namespace tessary
