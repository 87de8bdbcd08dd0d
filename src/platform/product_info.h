#pragma once

#include <optional>
#include <string>

namespace tessary {

// The installed product's version and the minimum version this system
// supports; either may be unknown.
class ProductInfo {
  public:
    virtual ~ProductInfo() = default;
    virtual std::optional<std::string> tessaryVersion() = 0;
    virtual std::optional<std::string> minimumTessaryVersion() = 0;
};

}  // namespace tessary
