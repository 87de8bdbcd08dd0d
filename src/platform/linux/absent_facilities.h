#pragma once

#include "platform/backup_exclusion_service.h"
#include "platform/file_events.h"

namespace tessary::linux_backend {

// What the daemon gets on a machine without the facility behind a role: each
// answers the way the role's callers treat a missing facility, and none
// pretends to have done anything.

// Linux keeps no system-wide list of paths excluded from backups: there is
// nothing to exclude a path from, so excluding one succeeds at doing
// nothing, and no promotion warns of a failure that cannot happen here.
class NoBackupExclusion final : public BackupExclusionService {
  public:
    int setExcluded(std::string_view /*path*/, bool /*exclude*/, bool /*byPath*/) override {
        return 0;
    }
};

// Linux has no file-coordination service; nothing ever registers a writer.
class NoFileCoordination final : public FileCoordination {
  public:
    void addFilePresenter(FilePresenter& /*presenter*/, const std::string& /*path*/) override {}
};

}  // namespace tessary::linux_backend
