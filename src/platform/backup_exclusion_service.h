#pragma once

#include <string_view>

namespace tessary {

// Excludes a path from backups. 0 on success.
class BackupExclusionService {
  public:
    virtual ~BackupExclusionService() = default;
    virtual int setExcluded(std::string_view path, bool exclude, bool byPath) = 0;
};

}  // namespace tessary
