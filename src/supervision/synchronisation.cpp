#include <chrono>
#include <thread>

#include "daemon/supervisor.h"

namespace tessary {

void TYSupervisor::syncServices() {
    const ServiceList all = services();
    if (!all) {
        return;
    }
    for (const ServicePtr& service : *all) {
        if (service->stopable()) {
            service->stop();
        }
        if (service->startable()) {
            if (service->migratable()) {
                service->migrate();
            }
            service->start();
        }
    }
}

void TYSupervisor::setServiceEnabled(TYSupervisedService& service, bool enabled) {
    preferences_.setServiceEnabled(service.label(), enabled);
    service.setOn(enabled);
}

void TYSupervisor::stopAllServices() {
    const ServiceList all = services();
    const std::size_t count = all ? all->size() : 0;
    for (std::size_t i = 0; i < count; ++i) {
        (*all)[i]->setOn(false);
    }

    // One thread per service: a stop mostly waits for the service manager,
    // so the whole takes about as long as the slowest stop. Every line
    // measures from the common start.
    const auto start = std::chrono::steady_clock::now();
    {
        std::vector<std::jthread> workers;
        workers.reserve(count);
        for (std::size_t i = 0; i < count; ++i) {
            workers.emplace_back([this, &all, i, start] {
                const ServicePtr& service = (*all)[i];
                service->stop();
                const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
                platform_.log.warning("WARNING: Service %@ took %f seconds to stop",
                                      service->label(), took.count());
            });
        }
    }  // joins every worker

    (void)platform_.files.removeItem(platform_.paths.setupDoneMarker());
}

}  // namespace tessary
