#include "daemon/supervisor.h"

#include <set>

namespace tessary {

TYSupervisor::TYSupervisor(Platform& platform)
    : platform_(platform),
      preferences_(platform.paths, platform.files, platform.log),
      sharedAuthorization_(platform.authorization),
      environment_{preferences_, platform.serviceManager, platform.log, sharedAuthorization_,
                   platform.powerAssertions} {}

void TYSupervisor::setServices(const ServiceList& services) {
    const ServiceList old = services_.get();
    services_.set(services);
    if (!old) {
        return;
    }
    std::set<const TYSupervisedService*> kept;
    if (services) {
        for (const ServicePtr& s : *services) {
            kept.insert(s.get());
        }
    }
    for (const ServicePtr& s : *old) {
        if (kept.count(s.get()) == 0) {
            s->releaseSleepAssertion();
        }
    }
}

}  // namespace tessary
