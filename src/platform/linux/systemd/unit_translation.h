#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/error.h"
#include "plist/value.h"

namespace tessary::linux_backend {

// One unit file: its name ("com.example.job.service") and its whole text.
struct UnitFile {
    std::string name;
    std::string text;
};

// What the translation says of one key (or sub-key, as "KeepAlive.PathState"
// or "Sockets.Listeners.Bonjour") beyond mapping it exactly.
enum class FindingKind {
    Approximate,  // mapped to what systemd has closest; the reason says what differs
    Ignored,      // no counterpart on Linux: the job runs without it
    Refused,      // the job cannot run as written: nothing is translated
};

struct Finding {
    std::string key;
    FindingKind kind;
    std::string reason;
};

// "approximate", "ignored" or "refused".
const char* findingKindName(FindingKind kind);

// What a job dictionary becomes in systemd.
struct UnitTranslation {
    std::string label;
    // The service first, then the socket units, the timer and the path unit.
    std::vector<UnitFile> units;
    // LABEL.service, or the template LABEL@.service of a job that serves
    // each connection with a process of its own (inetdCompatibility, Wait
    // false): its instances are made by LABEL.socket, one per connection.
    std::string serviceUnit;
    bool accepts = false;
    std::vector<std::string> socketUnits;
    std::string timerUnit;  // empty without a timer
    std::string pathUnit;   // empty without watched paths
    // RunAtLoad, or a KeepAlive that implies a first run: the service itself
    // is started when the job is submitted.
    bool startService = false;
    // Keys mapped approximately and keys ignored, in the order met.
    std::vector<Finding> findings;

    // The units to start when the job is submitted, in that order: sockets,
    // timer and path unit before the service, so that the service finds its
    // sockets.
    std::vector<std::string> unitsToStart() const;
    // The units the manager can load by name: all but a template.
    std::vector<std::string> loadableUnits() const;
};

// A resource limit as systemd sets it; UINT64_MAX is no limit.
struct ResourceLimit {
    std::uint64_t soft = UINT64_MAX;
    std::uint64_t hard = UINT64_MAX;
};

struct TranslationOptions {
    // Put first on the PATH of every job that does not set PATH itself, and
    // searched first for a program given without a directory. Empty: the
    // manager's own search path.
    std::string helperBinDirectory;
    // The limit a service gets from the manager when its unit sets none, by
    // directive ("LimitNOFILE"): what a job that gives only a soft or only a
    // hard limit keeps of the other. Without an answer such a job is refused.
    std::function<std::optional<ResourceLimit>(std::string_view directive)> inheritedLimit;
    // The port of a service name ("http") for a protocol ("tcp", "udp"), as
    // the services database has it. Without an answer a name is refused.
    std::function<std::optional<int>(std::string_view name, std::string_view protocol)> servicePort;
};

// The port the services database (/etc/services) gives a service name for a
// protocol: TranslationOptions::servicePort where the host's database is
// the one to use.
std::optional<int> servicesDatabasePort(std::string_view name, std::string_view protocol);

// Whether `label` can name a job's units: "LABEL.service" must be a valid
// systemd unit name. An error says why not.
Status checkJobLabel(std::string_view label);

// The service unit of a job, "LABEL.service" (no validation).
std::string serviceUnitName(std::string_view label);

// A job read against systemd: its translation, or nothing when refused, and
// every finding either way (a refusal last).
struct JobCheck {
    std::optional<UnitTranslation> translation;
    std::vector<Finding> findings;
};

// Turns a job dictionary into unit files. Reads nothing and writes nothing
// but through the options' functions. Every value written into a unit means
// exactly the job's value to systemd, or the job is refused: the refusal
// names the key and why.
JobCheck checkJob(const plist::Value& job, const TranslationOptions& options);

// The same for the service manager: the translation, or the refusal as one
// error ("Job LABEL: KEY: why").
Result<UnitTranslation> translateJob(const plist::Value& job, const TranslationOptions& options);

}  // namespace tessary::linux_backend
