#include <chrono>
#include <system_error>
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
    auto stopOne = [this, &all, start](std::size_t i) {
        const ServicePtr& service = (*all)[i];
        service->stop();
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
        platform_.log.warning("WARNING: Service %@ took %f seconds to stop", service->label(),
                              took.count());
    };
    {
        std::vector<std::jthread> workers;
        workers.reserve(count);
        for (std::size_t i = 0; i < count; ++i) {
            try {
                workers.emplace_back(stopOne, i);
            } catch (const std::system_error& e) {
                // Out of threads: this service stops here instead, slower but
                // whole; a demotion must not end half-way.
                platform_.log.warning("WARNING: Unable to start a worker to stop %@: %s",
                                      (*all)[i]->label(), e.what());
                stopOne(i);
            }
        }
    }  // joins every worker

    (void)platform_.files.removeItem(platform_.paths.setupDoneMarker());
}

}  // namespace tessary
