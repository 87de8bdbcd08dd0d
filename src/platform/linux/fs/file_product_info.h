#pragma once

#include <string>
#include <string_view>

#include "platform/product_info.h"

namespace tessary::linux_backend {

// The product versions as two one-line text files: the installed version
// and the minimum version this system supports (for example "5.11.1"). The
// first line counts, without surrounding white space; a missing, unreadable
// or empty file means the version is unknown. Read afresh on every call.
class FileProductInfo final : public ProductInfo {
  public:
    static constexpr std::string_view kVersionFile = "/etc/tessary/version";
    static constexpr std::string_view kMinimumVersionFile = "/etc/tessary/minimum-version";

    FileProductInfo(std::string versionFile, std::string minimumVersionFile)
        : versionFile_(std::move(versionFile)),
          minimumVersionFile_(std::move(minimumVersionFile)) {}

    std::optional<std::string> tessaryVersion() override;
    std::optional<std::string> minimumTessaryVersion() override;

  private:
    std::string versionFile_;
    std::string minimumVersionFile_;
};

}  // namespace tessary::linux_backend
