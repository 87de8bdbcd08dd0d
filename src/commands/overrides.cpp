#include "daemon/supervisor.h"

namespace tessary {

namespace {

using Getter = std::optional<plist::Value> (*)(const TYSupervisedJob&);
using Setter = void (*)(TYSupervisedJob&, const plist::Value&);

// The three override commands share one shape: find the service and its job,
// then set the value when one is given, or read it.
std::optional<plist::Dictionary> overrideCommand(const TYSupervisor& supervisor,
                                                 const TYSupervisor::Arguments& arguments,
                                                 const char* valueKey, Getter get, Setter set) {
    auto serviceIt = arguments.find("service");
    const std::string* serviceLabel =
        serviceIt != arguments.end() ? serviceIt->second.string() : nullptr;
    ServicePtr service =
        serviceLabel != nullptr ? supervisor.serviceWithLabel(*serviceLabel) : nullptr;
    if (!service) {
        return std::nullopt;
    }
    auto jobIt = arguments.find("job");
    const plist::Value jobArgument =
        jobIt != arguments.end() ? jobIt->second : plist::Value(*serviceLabel);
    const std::string* jobLabel = jobArgument.string();
    JobPtr job = jobLabel != nullptr ? service->jobWithLabel(*jobLabel) : nullptr;
    if (!job) {
        return std::nullopt;
    }

    std::optional<plist::Value> value;
    if (auto valueIt = arguments.find(valueKey); valueIt != arguments.end()) {
        set(*job, valueIt->second);  // taken exactly as received
        value = valueIt->second;
    } else {
        value = get(*job);
    }

    plist::Dictionary result{{"service", serviceIt->second}, {"job", jobArgument}};
    if (value) {
        result.insert_or_assign(valueKey, *value);
    }
    return result;
}

}  // namespace

std::optional<plist::Dictionary> TYSupervisor::programArgumentsWithArguments(Arguments& arguments) {
    return overrideCommand(
        *this, arguments, "programArguments",
        [](const TYSupervisedJob& j) { return j.programArguments(); },
        [](TYSupervisedJob& j, const plist::Value& v) { j.setProgramArguments(v); });
}

std::optional<plist::Dictionary> TYSupervisor::socketsWithArguments(Arguments& arguments) {
    return overrideCommand(
        *this, arguments, "sockets", [](const TYSupervisedJob& j) { return j.sockets(); },
        [](TYSupervisedJob& j, const plist::Value& v) { j.setSockets(v); });
}

std::optional<plist::Dictionary> TYSupervisor::startCalendarIntervalsWithArguments(
    Arguments& arguments) {
    return overrideCommand(
        *this, arguments, "startCalendarIntervals",
        [](const TYSupervisedJob& j) {
            return std::optional<plist::Value>(j.startCalendarIntervals());
        },
        [](TYSupervisedJob& j, const plist::Value& v) { j.setStartCalendarIntervals(v); });
}

}  // namespace tessary
