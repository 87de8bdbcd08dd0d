#include "model/supervised_job.h"

#include "model/supervised_service.h"
#include "platform/paths.h"

namespace tessary {

namespace {

using plist::Array;
using plist::Dictionary;
using plist::Value;

constexpr const char* kLabel = "Label";
constexpr const char* kProgram = "Program";
constexpr const char* kProgramArguments = "ProgramArguments";
constexpr const char* kSockets = "Sockets";
constexpr const char* kStartCalendarInterval = "StartCalendarInterval";
constexpr const char* kEnvironmentVariables = "EnvironmentVariables";

constexpr const char* kSupervisorLabel = "com.orvane.tessaryd";

std::string descriptionOf(const Error& error) {
    return error.description.empty() ? "unknown error" : error.description;
}

}  // namespace

TYSupervisedJob::TYSupervisedJob(TYSupervisedService& service, const Value& dictionary)
    : service_(service), dictionary_(dictionary) {
    Dictionary m = plist::dictionaryOf(&dictionary);
    m.erase("Disabled");
    const std::pair<const char*, std::atomic<bool>*> flags[] = {
        {"Transient", &transient_},
        {"PreventsSleep", &preventsSleep_},
        {"UnloadOnSleep", &unloadOnSleep_},
    };
    for (const auto& [key, flag] : flags) {
        if (auto it = m.find(key); it != m.end()) {
            *flag = it->second.boolValue();
            m.erase(it);
        }
    }

    // Overrides are keyed by (service label, job label); both come from the
    // same definition, so in practice they are the same string.
    const std::string service_label = service.label();
    const std::string* ownLabel = dictionary.stringAt(kLabel);
    label_ = ownLabel != nullptr ? *ownLabel : std::string();
    TYSupervisorPreferences& prefs = env().preferences;
    if (auto v = prefs.programArgumentsForServiceJob(service_label, label_)) {
        m.insert_or_assign(kProgramArguments, *v);
    }
    if (auto v = prefs.socketsForServiceJob(service_label, label_)) {
        m.insert_or_assign(kSockets, *v);
    }
    if (auto v = prefs.startCalendarIntervalsForServiceJob(service_label, label_)) {
        m.insert_or_assign(kStartCalendarInterval, *v);
    }

    auto envIt = m.find(kEnvironmentVariables);
    Dictionary variables = plist::dictionaryOf(envIt != m.end() ? &envIt->second : nullptr);
    variables.insert_or_assign(kInstallPathPrefixVariable, Value(Paths::kInstallPathPrefix));
    m.insert_or_assign(kEnvironmentVariables, Value(std::move(variables)));

    setDictionary(Value(std::move(m)));
}

void TYSupervisedJob::setDictionary(plist::Value dictionary) {
    hasProgram_ =
        dictionary.find(kProgramArguments) != nullptr || dictionary.find(kProgram) != nullptr;
    dictionary_.set(std::move(dictionary));
}

ModelEnvironment& TYSupervisedJob::env() const {
    return service_.supervisor().environment();
}

std::string TYSupervisedJob::serviceLabel() const {
    return service_.label();
}

std::optional<Value> TYSupervisedJob::programArguments() const {
    const Value d = dictionary();
    if (const Value* args = d.find(kProgramArguments)) {
        return *args;
    }
    if (const Value* program = d.find(kProgram)) {
        return Value(Array{*program});
    }
    return std::nullopt;
}

std::optional<Value> TYSupervisedJob::sockets() const {
    const Value d = dictionary();
    const Value* s = d.find(kSockets);
    return s != nullptr ? std::optional<Value>(*s) : std::nullopt;
}

Value TYSupervisedJob::startCalendarIntervals() const {
    const Value d = dictionary();
    const Value* v = d.find(kStartCalendarInterval);
    if (v == nullptr) {
        return Value(Array{});
    }
    if (!v->isArray()) {
        return Value(Array{*v});
    }
    return *v;
}

void TYSupervisedJob::replaceKey(const char* key, const std::optional<Value>& value) {
    const Value current = dictionary();
    Dictionary m = plist::dictionaryOf(&current);
    if (value) {
        m.insert_or_assign(key, *value);
    } else {
        m.erase(key);
    }
    setDictionary(Value(std::move(m)));
}

void TYSupervisedJob::reloadIfLoaded() {
    if (loaded() == Answer::Yes) {
        remove();
        submit();
    }
}

void TYSupervisedJob::setProgramArguments(const Value& arguments) {
    env().preferences.setProgramArgumentsForServiceJob(arguments, serviceLabel(), label());
    replaceKey(kProgramArguments, arguments);
    reloadIfLoaded();
}

void TYSupervisedJob::setSockets(const Value& sockets) {
    env().preferences.setSocketsForServiceJob(sockets, serviceLabel(), label());
    replaceKey(kSockets, sockets);
    reloadIfLoaded();
}

void TYSupervisedJob::setStartCalendarIntervals(const std::optional<Value>& intervals) {
    env().preferences.setStartCalendarIntervalsForServiceJob(intervals, serviceLabel(), label());
    std::optional<Value> stored;
    if (intervals) {
        if (const Array* list = intervals->array()) {
            // One entry is kept as a bare dictionary, as a definition would
            // write it; none removes the key.
            if (list->size() == 1) {
                stored = list->front();
            } else if (list->size() > 1) {
                stored = *intervals;
            }
        } else {
            stored = *intervals;  // not a list: applied as it stands
        }
    }
    replaceKey(kStartCalendarInterval, stored);
    reloadIfLoaded();
}

Answer TYSupervisedJob::loaded() const {
    if (!hasProgram_) {
        return Answer::Yes;
    }
    return env().serviceManager.jobIsEnabled(label_);
}

void TYSupervisedJob::submit() const {
    if (!hasProgram_) {
        return;
    }
    const std::string name = label();
    ModelEnvironment& e = env();
    e.log.debug("SUBMIT: %s", name);
    if (Status s = e.serviceManager.submitJob(dictionary(), e.authorization.get()); !s) {
        e.log.error("ERROR: LodgeJob: %@", descriptionOf(s.error()));
    }
}

void TYSupervisedJob::remove() const {
    if (!hasProgram_) {
        return;
    }
    const std::string name = label();
    ModelEnvironment& e = env();
    e.log.debug("REMOVE: %s", name);
    if (Status s = e.serviceManager.removeJob(name, e.authorization.get(), true); !s) {
        e.log.error("ERROR: WithdrawJob: %@", descriptionOf(s.error()));
    }
}

void TYSupervisedJob::removeSupervisorJob(ModelEnvironment& env) {
    (void)env.serviceManager.removeJob(kSupervisorLabel, env.authorization.get(), true);
}

}  // namespace tessary
