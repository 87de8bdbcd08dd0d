#include "daemon/supervisor.h"

namespace tessary {

std::optional<plist::Dictionary> TYSupervisor::createWithArguments(Arguments& arguments) {
    auto it = arguments.find("serviceDictionary");
    if (it == arguments.end()) {
        return std::nullopt;
    }
    const plist::Value& definition = it->second;
    const std::string* label = definition.stringAt("Label");
    if (label == nullptr || serviceWithLabel(*label)) {
        return std::nullopt;  // a label is never created twice
    }
    ServicePtr service = TYSupervisedService::make(*this, definition);
    preferences_.addDynamicServiceWithDictionary(definition);
    setServiceEnabled(*service, false);
    // Without a service list (loading was skipped) there is nothing to join.
    if (const ServiceList all = services()) {
        auto grown = std::make_shared<std::vector<ServicePtr>>(*all);
        grown->push_back(service);
        setServices(std::move(grown));
    }
    return plist::Dictionary{{"service", plist::Value(*label)}};
}

std::optional<plist::Dictionary> TYSupervisor::destroyWithArguments(Arguments& arguments) {
    auto it = arguments.find("service");
    const std::string* label = it != arguments.end() ? it->second.string() : nullptr;
    if (label == nullptr) {
        return std::nullopt;
    }
    // The stored definition goes first, whether or not a service carries it.
    preferences_.removeDynamicService(*label);
    ServicePtr service = serviceWithLabel(*label);
    if (!service) {
        return std::nullopt;
    }
    setServiceEnabled(*service, false);
    if (service->stopable()) {
        service->stop();
    }
    if (const ServiceList all = services()) {
        auto shrunk = std::make_shared<std::vector<ServicePtr>>();
        for (const ServicePtr& s : *all) {
            if (s != service) {
                shrunk->push_back(s);
            }
        }
        setServices(std::move(shrunk));
    }
    return plist::Dictionary{{"service", it->second}};
}

}  // namespace tessary
