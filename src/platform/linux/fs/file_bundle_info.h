#pragma once

#include <cstddef>

#include "base/error.h"
#include "platform/bundle_info.h"

namespace tessary::linux_backend {

// Information dictionaries from the file system.
//
// A bundle is a directory whose dictionary is "Contents/Info.plist", in
// either property-list form. An executable carries its dictionary in an ELF
// section named ".tessary_info" that holds exactly one property list, XML
// (which may end in NUL padding) or binary. Only dictionaries count.
//
// A bundle's main executable is "Contents/MacOS/<CFBundleExecutable>": the
// bundles this system deals in keep the layout they have everywhere else.
class FileBundleInfo final : public BundleInfo {
  public:
    static constexpr const char* kInfoSection = ".tessary_info";
    // No information dictionary comes near this; a larger section is refused
    // rather than read.
    static constexpr std::size_t kMaxSection = std::size_t{1024} * 1024;

    std::optional<plist::Value> infoDictionary(std::string_view path) override;
    std::optional<std::string> mainExecutablePath(std::string_view bundlePath) override;
};

// The bytes of the section `name` of the ELF file at `path` (32- or 64-bit,
// in this machine's byte order).
Result<plist::Bytes> readElfSection(const std::string& path, std::string_view name,
                                    std::size_t limit);

}  // namespace tessary::linux_backend
