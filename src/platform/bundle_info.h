#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "plist/value.h"

namespace tessary {

// Information dictionaries of bundles and of executables that carry one.
class BundleInfo {
  public:
    virtual ~BundleInfo() = default;
    // The bundle's "Contents/Info.plist", or the list an executable carries.
    virtual std::optional<plist::Value> infoDictionary(std::string_view path) = 0;
    // The main executable that a bundle's information dictionary names.
    virtual std::optional<std::string> mainExecutablePath(std::string_view bundlePath) = 0;
};

}  // namespace tessary
