#include "platform/linux/systemd/unit_translation.h"

#include <algorithm>
#include <cerrno>

#include "platform/linux/systemd/translator.h"

// How a job dictionary maps onto units, in general; each step's file says how
// its keys map and where the two models differ.
//
// - The job is LABEL.service (Type=exec, so that a program that cannot be
//   executed fails the start instead of counting as started). Sockets become
//   socket units, calendar and interval starts one LABEL.timer, watched paths
//   and queue directories one LABEL.path; each points at the service.
// - A value goes into a unit only when systemd reads it back as exactly the
//   job's value; otherwise the job is refused with the key and the reason.
//   Nothing is altered to make it fit: a job that runs differently from its
//   definition is worse than one that does not run and says why.
// - Keys without a counterpart are reported as ignored (the backend logs a
//   warning naming each); keys mapped to what systemd has closest are
//   reported as approximate with what differs. A job whose only way to start
//   is a key without a counterpart could never run and is refused.
// - Starts are never refused for coming too often (StartLimitIntervalSec=0):
//   a restarting job has its own pause (RestartSec).

namespace tessary::linux_backend {

namespace {

Error invalid(std::string text) {
    return Error{"SystemdUnitTranslation", EINVAL, std::move(text)};
}

// Keys the steps read; every other top-level key is looked up in kUnmapped.
constexpr std::string_view kHandled[] = {
    "Label", "Program", "ProgramArguments", "EnableGlobbing", "EnvironmentVariables", "RunAtLoad",
    "KeepAlive", "OnDemand", "StartCalendarInterval", "StartInterval", "Sockets",
    "inetdCompatibility", "WatchPaths", "QueueDirectories", "WorkingDirectory", "UserName",
    "GroupName", "InitGroups", "RootDirectory", "Umask", "Nice", "ProcessType", "LowPriorityIO",
    "LowPriorityBackgroundIO", "StandardInPath", "StandardOutPath", "StandardErrorPath",
    "ExitTimeOut", "ThrottleInterval", "AbandonProcessGroup", "LaunchOnlyOnce", "SessionCreate",
    "SoftResourceLimits", "HardResourceLimits", "LimitLoadToHosts", "LimitLoadFromHosts",
    "LimitLoadToSessionType",
    // The daemon's own keys, read and taken out before a job is submitted.
    "Disabled", "Transient", "PreventsSleep", "UnloadOnSleep"};

struct Unmapped {
    std::string_view key;
    const char* reason;
    bool starts;  // a way for the job to be started
};

// Keys of the job format with no counterpart on Linux.
constexpr Unmapped kUnmapped[] = {
    {"MachServices", "Mach services do not exist on Linux: no message starts the job", true},
    {"LaunchEvents", "systemd has no launch events: no event starts the job", true},
    {"StartOnMount", "systemd has no start at every mount", true},
    {"LimitLoadToHardware", "systemd has no condition on the hardware model", false},
    {"LimitLoadFromHardware", "systemd has no condition on the hardware model", false},
    {"MaterializeDatalessFiles", "Linux has no dataless files", false},
    {"TimeOut", "the job format itself does nothing with it", false},
    {"Debug", "systemd has no per-job debug logging of the manager", false},
    {"WaitForDebugger", "systemd does not hold a process for a debugger", false},
    {"EnableTransactions", "systemd has no exit transactions", false},
    {"EnablePressuredExit", "systemd has no exit under memory pressure", false},
    {"AssociatedBundleIdentifiers", "Linux has no app bundles to associate", false},
    {"HopefullyExitsFirst", "systemd orders stops by dependencies only", false},
    {"HopefullyExitsLast", "systemd orders stops by dependencies only", false},
    {"ServiceIPC", "the job format itself no longer reads it", false},
};

}  // namespace

const char* findingKindName(FindingKind kind) {
    switch (kind) {
        case FindingKind::Approximate:
            return "approximate";
        case FindingKind::Ignored:
            return "ignored";
        case FindingKind::Refused:
            return "refused";
    }
    return "refused";
}

Error Translator::refuse(std::string key, std::string reason) {
    std::string text = key.empty() ? reason : key + ": " + reason;
    findings_.push_back({std::move(key), FindingKind::Refused, std::move(reason)});
    return invalid(std::move(text));
}

void Translator::approximate(std::string key, std::string reason) {
    findings_.push_back({std::move(key), FindingKind::Approximate, std::move(reason)});
}

void Translator::ignore(std::string key, std::string reason) {
    findings_.push_back({std::move(key), FindingKind::Ignored, std::move(reason)});
}

Result<std::string> Translator::plainValue(const std::string& key, const plist::Value* value) {
    const std::string* s = value->string();
    if (s == nullptr) {
        return refuse(key, "must be a string, not " + value->description());
    }
    if (const std::string why = unwritableReason(*s); !why.empty()) {
        return refuse(key, describeValue(*s) + " cannot stand in a unit file: " + why);
    }
    return escapeSpecifiers(*s);
}

Result<std::string> Translator::pathValue(const std::string& key, const plist::Value* value) {
    auto plain = plainValue(key, value);
    if (!plain) {
        return plain;
    }
    if (const std::string why = unnormalizedReason(*value->string()); !why.empty()) {
        return refuse(key, describeValue(*value->string()) + " is refused: " + why);
    }
    return plain;
}

Result<std::int64_t> Translator::integerAt(const std::string& key, const plist::Value& value,
                                           std::int64_t min, std::int64_t max) {
    const auto i = integerOf(value);
    if (!i || *i < min || *i > max) {
        return refuse(key, "must be an integer from " + std::to_string(min) + " to " +
                               std::to_string(max) + ", not " + value.description());
    }
    return *i;
}

Result<std::vector<std::string>> Translator::stringsAt(const std::string& key,
                                                       const plist::Value& value) {
    std::vector<std::string> out;
    if (const std::string* s = value.string()) {
        out.push_back(*s);
        return out;
    }
    if (const plist::Array* array = value.array()) {
        for (const auto& v : *array) {
            if (v.string() == nullptr) {
                break;
            }
            out.push_back(*v.string());
        }
        if (out.size() == array->size()) {
            return out;
        }
    }
    return refuse(key, "must be a string or an array of strings, not " + value.description());
}

Status Translator::otherKeys() {
    for (const auto& entry : *job_.dictionary()) {
        const std::string& key = entry.first;
        if (std::find(std::begin(kHandled), std::end(kHandled), key) != std::end(kHandled)) {
            continue;
        }
        const auto* unmapped = std::find_if(std::begin(kUnmapped), std::end(kUnmapped),
                                            [&](const Unmapped& u) { return u.key == key; });
        if (unmapped == std::end(kUnmapped)) {
            ignore(key, "not a key of the job format");
            continue;
        }
        ignore(key, unmapped->reason);
        if (unmapped->starts) {
            unmappedTriggers_.push_back(key);
        }
    }
    return {};
}

bool Translator::hasTrigger() const {
    return out_.startService || !out_.socketUnits.empty() || !out_.timerUnit.empty() ||
           !out_.pathUnit.empty();
}

JobCheck Translator::run() {
    auto refused = [this] { return JobCheck{std::nullopt, std::move(findings_)}; };
    if (job_.dictionary() == nullptr) {
        (void)refuse("", "the job is not a dictionary");
        return refused();
    }
    const std::string* label = job_.stringAt("Label");
    if (label == nullptr) {
        (void)refuse("Label", "the job has no Label string");
        return refused();
    }
    if (Status s = checkJobLabel(*label); !s) {
        (void)refuse("Label", s.error().description);
        return refused();
    }
    out_.label = *label;
    out_.serviceUnit = serviceUnitName(*label);

    // Sockets come before the program settings: a job that serves each
    // connection with a process of its own is a template service.
    for (auto step : {&Translator::sockets, &Translator::program, &Translator::environment,
                      &Translator::processSettings, &Translator::resourceLimits,
                      &Translator::conditions, &Translator::restart, &Translator::timer,
                      &Translator::watchedPaths, &Translator::otherKeys}) {
        if (Status s = (this->*step)(); !s) {
            return refused();
        }
    }
    if (const plist::Value* run = job_.find("RunAtLoad"); run != nullptr && run->boolValue()) {
        if (out_.accepts) {
            (void)refuse("RunAtLoad", kOnlyForConnections);
            return refused();
        }
        out_.startService = true;
    }
    if (!hasTrigger() && !unmappedTriggers_.empty()) {
        (void)refuse(unmappedTriggers_.front(),
                     "it is the job's only way to start, and systemd has no counterpart: the "
                     "job could never run");
        return refused();
    }

    Section unit;
    unit.add("Description", out_.label);
    unit.add("StartLimitIntervalSec", "0");
    unit.lines.insert(unit.lines.end(), unit_.lines.begin(), unit_.lines.end());
    unit.lines.insert(unit.lines.end(), everyUnit_.lines.begin(), everyUnit_.lines.end());
    Section service;
    service.add("Type", "exec");
    service.lines.insert(service.lines.end(), service_.lines.begin(), service_.lines.end());
    out_.units.push_back(
        {out_.serviceUnit, unitText(out_.label, {{"Unit", unit}, {"Service", service}})});
    for (auto& [name, sections] : companions_) {
        Section& companionUnit = sections.front().second;
        companionUnit.lines.insert(companionUnit.lines.end(), everyUnit_.lines.begin(),
                                   everyUnit_.lines.end());
        out_.units.push_back({name, unitText(out_.label, sections)});
    }
    out_.findings = findings_;
    return JobCheck{std::move(out_), std::move(findings_)};
}

std::vector<std::string> UnitTranslation::unitsToStart() const {
    std::vector<std::string> names = socketUnits;
    for (const std::string* unit : {&timerUnit, &pathUnit}) {
        if (!unit->empty()) {
            names.push_back(*unit);
        }
    }
    if (startService) {
        names.push_back(serviceUnit);
    }
    return names;
}

std::vector<std::string> UnitTranslation::loadableUnits() const {
    std::vector<std::string> names;
    for (const auto& unit : units) {
        if (!(accepts && unit.name == serviceUnit)) {
            names.push_back(unit.name);
        }
    }
    return names;
}

std::string serviceUnitName(std::string_view label) {
    return std::string(label) + ".service";
}

Status checkJobLabel(std::string_view label) {
    auto refuse = [&](const std::string& why) {
        return invalid(describeValue(label) + " is not a valid systemd unit name: " + why);
    };
    if (label.empty()) {
        return refuse("it is empty");
    }
    constexpr std::string_view kServiceSuffix = ".service";
    if (label.size() + kServiceSuffix.size() > kUnitNameMax) {
        return refuse("with its suffix it is longer than " + std::to_string(kUnitNameMax) +
                      " characters");
    }
    for (const char c : label) {
        const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                        (c >= '0' && c <= '9') || c == ':' || c == '_' || c == '.' || c == '-' ||
                        c == '@';
        if (!ok) {
            return refuse("only letters, digits and \":_.-@\" are allowed");
        }
    }
    if (label.front() == '.') {
        return refuse("a name beginning with '.' is a hidden file the manager skips");
    }
    // With its suffix: a label ending in '.' makes "..service".
    if (label.find("..") != std::string_view::npos || label.back() == '.') {
        return refuse("it must not hold \"..\"");
    }
    if (label.front() == '@') {
        return refuse("it must not begin with '@'");
    }
    if (label.back() == '@') {
        return refuse("a name ending in '@' is a template, which cannot run");
    }
    return {};
}

JobCheck checkJob(const plist::Value& job, const TranslationOptions& options) {
    return Translator(job, options).run();
}

Result<UnitTranslation> translateJob(const plist::Value& job, const TranslationOptions& options) {
    JobCheck check = checkJob(job, options);
    if (check.translation) {
        return std::move(*check.translation);
    }
    const Finding& refusal = check.findings.back();
    const std::string* label = job.stringAt("Label");
    std::string text = refusal.key.empty() ? refusal.reason : refusal.key + ": " + refusal.reason;
    if (label != nullptr && refusal.key != "Label") {
        text = "Job " + *label + ": " + text;
    }
    return invalid(std::move(text));
}

}  // namespace tessary::linux_backend
