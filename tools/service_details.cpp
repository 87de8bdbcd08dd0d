#include "service_details.h"

#include <span>
#include <vector>

#include "plist/codec.h"

namespace tessary::client {

namespace {

namespace plist = tessary::plist;

// The built-in definition of `label` as the daemon loads it: the first file
// of the directory, in its order, whose name ends in ".plist" and that holds
// a dictionary with that label.
std::optional<plist::Value> builtInDefinition(const Paths& paths, FileOperations& files,
                                              std::string_view label) {
    const std::string directory = paths.builtInDefinitions();
    auto names = files.listDirectory(directory);
    for (const std::string& name : names ? names.value() : std::vector<std::string>{}) {
        if (name.size() <= 6 || name.compare(name.size() - 6, 6, ".plist") != 0) {
            continue;
        }
        auto bytes = files.readFile(directory + "/" + name);
        if (!bytes) {
            continue;
        }
        auto definition = plist::decode(std::span<const std::uint8_t>(bytes.value()));
        if (definition && definition.value().isDictionary()) {
            const std::string* found = definition.value().stringAt("Label");
            if (found != nullptr && *found == label) {
                return std::move(definition).value();
            }
        }
    }
    return std::nullopt;
}

std::optional<plist::Value> dynamicDefinition(const TYSupervisorPreferences& preferences,
                                              std::string_view label) {
    const auto dynamic = preferences.dynamicServices();
    for (const plist::Value& definition : plist::arrayOf(dynamic ? &*dynamic : nullptr)) {
        const std::string* found = definition.stringAt("Label");
        if (found != nullptr && *found == label) {
            return definition;
        }
    }
    return std::nullopt;
}

plist::Value xmlText(const plist::Value& v) {
    auto xml = plist::encode(v, plist::Format::Xml);
    return xml ? plist::Value(std::string(xml.value().begin(), xml.value().end()))
               : plist::Value(std::string());
}

// One setting: the definition's value and the override, each where there is
// one, as `shown` makes them readable.
plist::Value setting(const plist::Value* definition, const std::optional<plist::Value>& override,
                     plist::Value (*shown)(const plist::Value&)) {
    plist::Dictionary out;
    if (definition != nullptr) {
        out.insert_or_assign("definition", shown(*definition));
    }
    if (override) {
        out.insert_or_assign("override", shown(*override));
    }
    return plist::Value(std::move(out));
}

plist::Value asItIs(const plist::Value& v) {
    return v;
}

}  // namespace

std::optional<plist::Value> serviceDetails(const Paths& paths, FileOperations& files,
                                           const TYSupervisorPreferences& preferences,
                                           std::string_view label) {
    bool dynamic = false;
    std::optional<plist::Value> definition = builtInDefinition(paths, files, label);
    if (!definition) {
        definition = dynamicDefinition(preferences, label);
        dynamic = definition.has_value();
    }
    if (!definition) {
        return std::nullopt;
    }
    // The job falls back to "Program" alone when there are no arguments.
    const plist::Value* arguments = definition->find("ProgramArguments");
    std::optional<plist::Value> program;
    if (arguments == nullptr && definition->find("Program") != nullptr) {
        program = plist::Value(plist::Array{*definition->find("Program")});
        arguments = &*program;
    }
    plist::Dictionary out;
    out.insert_or_assign("service", plist::Value(label));
    out.insert_or_assign("job", plist::Value(label));
    out.insert_or_assign("dynamic", plist::Value::boolean(dynamic));
    out.insert_or_assign("definition", xmlText(*definition));
    out.insert_or_assign(
        "programArguments",
        setting(arguments, preferences.programArgumentsForServiceJob(label, label), asItIs));
    out.insert_or_assign("sockets",
                         setting(definition->find("Sockets"),
                                 preferences.socketsForServiceJob(label, label), xmlText));
    out.insert_or_assign(
        "startCalendarIntervals",
        setting(definition->find("StartCalendarInterval"),
                preferences.startCalendarIntervalsForServiceJob(label, label), xmlText));
    return plist::Value(std::move(out));
}

}  // namespace tessary::client
