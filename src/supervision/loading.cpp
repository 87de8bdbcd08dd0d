#include <set>

#include "daemon/supervisor.h"
#include "plist/codec.h"

namespace tessary {

namespace {

// The extension as a path API gives it: what follows the last dot, unless
// that dot starts the name (".plist" has none).
std::string_view extensionOf(std::string_view name) {
    const auto dot = name.find_last_of('.');
    if (dot == std::string_view::npos || dot == 0) {
        return {};
    }
    return name.substr(dot + 1);
}

}  // namespace

void TYSupervisor::loadServices() {
    auto result = std::make_shared<std::vector<ServicePtr>>();
    std::set<std::string, std::less<>> taken;
    FileOperations& files = platform_.files;
    SystemLog& log = platform_.log;

    const std::string directory = platform_.paths.builtInDefinitions();
    // A definition becomes a job that may run as root: it is taken only from
    // a file, and a directory, that nobody but root can change.
    const bool directoryIsRoots = files.writableOnlyByRoot(directory);
    auto names = files.listDirectory(directory);
    for (const std::string& name : names ? names.value() : std::vector<std::string>{}) {
        const std::string path = directory + "/" + name;
        if (extensionOf(name) != "plist" || !directoryIsRoots || !files.writableOnlyByRoot(path)) {
            log.error("Error loading dictionary at path: %@", path);
            continue;
        }
        auto bytes = files.readFile(path);
        auto definition = bytes ? plist::decode(std::span<const std::uint8_t>(bytes.value()))
                                : Result<plist::Value>(bytes.error());
        const std::string* label = (definition && definition.value().isDictionary())
                                       ? definition.value().stringAt("Label")
                                       : nullptr;
        if (label == nullptr || taken.count(*label) != 0) {
            log.error("Error loading dictionary at path: %@", path);
            continue;
        }
        taken.insert(*label);
        ServicePtr service = TYSupervisedService::make(*this, definition.value());
        service->setOn(serviceIsEnabled(*service));
        result->push_back(std::move(service));
    }

    const auto dynamic = preferences_.dynamicServices();
    const plist::Array definitions = plist::arrayOf(dynamic ? &*dynamic : nullptr);
    for (const plist::Value& definition : definitions) {
        const std::string* label = definition.stringAt("Label");
        if (label == nullptr) {
            log.error("Error loading dynamic service: %@", definition);
            continue;
        }
        if (taken.count(*label) != 0) {
            log.error("Error loading dynamic service: %@", *label);
            continue;
        }
        taken.insert(*label);
        ServicePtr service = TYSupervisedService::make(*this, definition);
        const Answer stale = service->stale();
        if (stale == Answer::Yes) {
            preferences_.removeDynamicService(*label);
            setServiceEnabled(*service, false);
            continue;
        }
        if (stale == Answer::Unknown) {
            // Only a manager that said the job is gone may cost the user the
            // definition; it is asked again at the next load.
            log.warning("WARNING: Unable to learn whether %@ is loaded; keeping it", *label);
        }
        service->setOn(serviceIsEnabled(*service));
        result->push_back(std::move(service));
    }

    setServices(std::move(result));
}

ServicePtr TYSupervisor::serviceWithLabel(std::string_view label) const {
    const ServiceList all = services();
    if (!all) {
        return nullptr;
    }
    for (const ServicePtr& s : *all) {
        if (s->label() == label) {
            return s;
        }
    }
    return nullptr;
}

bool TYSupervisor::serviceIsEnabled(const TYSupervisedService& service) const {
    return preferences_.serviceIsEnabled(service.label());
}

}  // namespace tessary
