#pragma once

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

namespace tessary::linux_backend {

// Owning forms of what sd-bus hands back allocated with malloc: one string,
// or a NULL-terminated vector of strings.
struct MallocFree {
    void operator()(void* p) const { std::free(p); }
};
using MallocString = std::unique_ptr<char, MallocFree>;

class MallocStringVector {
  public:
    MallocStringVector() = default;
    explicit MallocStringVector(char** strv) : strv_(strv) {}
    MallocStringVector(const MallocStringVector&) = delete;
    MallocStringVector& operator=(const MallocStringVector&) = delete;
    ~MallocStringVector() {
        if (strv_ != nullptr) {
            for (char** s = strv_; *s != nullptr; ++s) {
                std::free(*s);
            }
            std::free(strv_);
        }
    }
    char*** out() { return &strv_; }
    std::vector<std::string> strings() const {
        std::vector<std::string> out;
        for (char** s = strv_; s != nullptr && *s != nullptr; ++s) {
            out.emplace_back(*s);
        }
        return out;
    }

  private:
    char** strv_ = nullptr;
};

}  // namespace tessary::linux_backend
