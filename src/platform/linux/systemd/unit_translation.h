#pragma once

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

// What a job dictionary becomes in systemd.
struct UnitTranslation {
    std::string label;
    // The service first, then the socket units, then the timer.
    std::vector<UnitFile> units;
    std::string serviceUnit;
    std::vector<std::string> socketUnits;
    std::string timerUnit;  // empty without a timer
    // RunAtLoad, or a KeepAlive that restarts the job: the service itself is
    // started when the job is submitted.
    bool startService = false;
    // Keys (and sub-keys, as "KeepAlive.PathState" or
    // "Sockets.Listeners.Bonjour") that have no systemd counterpart here.
    std::vector<std::string> ignoredKeys;

    // The units to start when the job is submitted, in that order: sockets
    // and timer before the service, so that the service finds its sockets.
    std::vector<std::string> unitsToStart() const;
};

struct TranslationOptions {
    // Put first on the PATH of every job that does not set PATH itself, and
    // searched first for a program given without a directory. Empty: the
    // manager's own search path.
    std::string helperBinDirectory;
};

// Whether `label` can name a job's units: "LABEL.service" must be a valid
// systemd unit name. An error says why not.
Status checkJobLabel(std::string_view label);

// The service unit of a job, "LABEL.service" (no validation).
std::string serviceUnitName(std::string_view label);

// Turns a job dictionary into unit files. Pure: reads nothing and writes
// nothing. An error names the offending key; nothing half-made is returned.
// A job whose program is "/bin/sh" runs under "/bin/bash", its arguments
// unchanged (the .cpp says why).
Result<UnitTranslation> translateJob(const plist::Value& job, const TranslationOptions& options);

}  // namespace tessary::linux_backend
