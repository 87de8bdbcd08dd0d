#pragma once

#include <cstdlib>
#include <memory>

namespace tessary {

// What C libraries (libplist, sd-bus, sd-login) hand back allocated with
// malloc, owned until freed.
struct MallocFree {
    void operator()(void* p) const {
        // NOLINTNEXTLINE(cppcoreguidelines-no-malloc,cppcoreguidelines-owning-memory)
        std::free(p);
    }
};
template <class T>
using MallocPtr = std::unique_ptr<T, MallocFree>;

}  // namespace tessary
