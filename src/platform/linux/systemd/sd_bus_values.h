#pragma once

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "base/malloc_ptr.h"

namespace tessary::linux_backend {

// Owning forms of what sd-bus hands back allocated with malloc: one string,
// or a NULL-terminated vector of strings.
using MallocString = MallocPtr<char>;

class MallocStringVector {
  public:
    MallocStringVector() = default;
    explicit MallocStringVector(char** strv) : strv_(strv) {}
    MallocStringVector(const MallocStringVector&) = delete;
    MallocStringVector& operator=(const MallocStringVector&) = delete;
    ~MallocStringVector() {
        if (strv_ != nullptr) {
            for (char** s = strv_; *s != nullptr; ++s) {
                MallocFree{}(*s);
            }
            MallocFree{}(strv_);
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
