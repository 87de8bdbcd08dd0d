#include "daemon/supervisor.h"

namespace tessary {

TYSupervisor::TYSupervisor(Platform& platform)
    : platform_(platform),
      preferences_(platform.paths, platform.files, platform.log),
      sharedAuthorization_(platform.authorization),
      environment_{preferences_, platform.serviceManager, platform.log, sharedAuthorization_,
                   platform.powerAssertions} {}

}  // namespace tessary
