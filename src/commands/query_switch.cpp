#include "daemon/supervisor.h"

namespace tessary {

namespace {

const std::string* stringArgument(const TYSupervisor::Arguments& arguments, const char* key) {
    auto it = arguments.find(key);
    return it == arguments.end() ? nullptr : it->second.string();
}

}  // namespace

std::optional<plist::Dictionary> TYSupervisor::listWithArguments(Arguments& /*arguments*/) {
    plist::Array enabled;
    plist::Array disabled;
    if (const ServiceList all = services()) {
        for (const ServicePtr& s : *all) {
            (s->on() ? enabled : disabled).emplace_back(s->label());
        }
    }
    return plist::Dictionary{{"enabledServices", plist::Value(std::move(enabled))},
                             {"disabledServices", plist::Value(std::move(disabled))}};
}

std::optional<plist::Dictionary> TYSupervisor::statusWithArguments(Arguments& /*arguments*/) {
    return plist::Dictionary{{"status", plist::Value(currentSetupStatus())}};
}

std::optional<plist::Dictionary> TYSupervisor::enable(Arguments& arguments, bool enabled) {
    const std::string* label = stringArgument(arguments, "service");
    ServicePtr service = label != nullptr ? serviceWithLabel(*label) : nullptr;
    if (!service) {
        return std::nullopt;
    }
    setServiceEnabled(*service, enabled);
    syncServices();
    return plist::Dictionary{};
}

std::optional<plist::Dictionary> TYSupervisor::enableWithArguments(Arguments& arguments) {
    return enable(arguments, true);
}

std::optional<plist::Dictionary> TYSupervisor::disableWithArguments(Arguments& arguments) {
    return enable(arguments, false);
}

std::optional<plist::Dictionary> TYSupervisor::resetWithArguments(Arguments& arguments) {
    const std::string* label = stringArgument(arguments, "service");
    ServicePtr service = label != nullptr ? serviceWithLabel(*label) : nullptr;
    if (!service) {
        return std::nullopt;
    }
    setServiceEnabled(*service, false);
    syncServices();
    service->reset();
    return plist::Dictionary{};
}

}  // namespace tessary
