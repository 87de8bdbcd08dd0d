// KeepAlive, OnDemand and ThrottleInterval: when systemd restarts the job,
// and whether it starts it at once.
//
// - KeepAlive true (or OnDemand false) is Restart=always. The dictionary's
//   exit conditions are made exact with the lists systemd keeps beside
//   Restart=: SuccessfulExit true restarts only after exit status 0
//   (on-success, less the signals systemd counts as clean), false after
//   anything else (on-failure, plus those signals); Crashed true only after a
//   crash signal (no restart, but those signals), false after anything but
//   one. Several conditions restart when any of them holds; every union the
//   two keys can make has an exact form below.
// - Only KeepAlive true, OnDemand false and SuccessfulExit imply a first run:
//   the service is started at submit then, unless AfterInitialDemand asks to
//   wait for the first start on demand.
// - PathState keeps the job alive while each path exists (true) or is absent
//   (false): Restart=always under "ConditionPathExists=|" conditions, which
//   systemd checks at every restart, and a path unit that starts the job when
//   a path appears. systemd cannot start a job when a path disappears: a job
//   kept alive by an absent path is started at submit and kept alive, not
//   started again by the path going. The conditions hold for every start, so
//   PathState beside another way to start is refused.
// - A restarting job waits ThrottleInterval seconds (default 10, the job
//   format's own) after each exit before it is started again, and is never
//   given up on (StartLimitIntervalSec=0): a job that is kept alive stays
//   alive. The job format spaces starts instead: one that ran longer than the
//   interval would restart at once.

#include "platform/linux/systemd/translator.h"

namespace tessary::linux_backend {

namespace {

// How a process ended, as far as restarting is concerned.
enum : unsigned {
    kExitZero = 1,
    kExitNonZero = 2,
    kCleanSignal = 4,  // what systemd counts as a clean end
    kCrashSignal = 8,  // what the job format counts as a crash
    kOtherSignal = 16,
    kAnyEnd = 31,
};

constexpr const char* kCleanSignals = "SIGHUP SIGINT SIGTERM SIGPIPE";
constexpr const char* kCrashSignals = "SIGILL SIGTRAP SIGABRT SIGBUS SIGFPE SIGSEGV SIGSYS";

struct RestartRule {
    unsigned ends;
    const char* restart;
    const char* prevent;
    const char* force;
};

// Every set of ends the exit conditions can make, alone or together.
constexpr RestartRule kRules[] = {
    {kAnyEnd, "always", nullptr, nullptr},
    {kExitZero, "on-success", kCleanSignals, nullptr},
    {kAnyEnd & ~kExitZero, "on-failure", nullptr, kCleanSignals},
    {kCrashSignal, "no", nullptr, kCrashSignals},
    {kAnyEnd & ~kCrashSignal, "always", kCrashSignals, nullptr},
    {kExitZero | kCrashSignal, "on-success", kCleanSignals, kCrashSignals},
};

}  // namespace

bool Translator::startsOtherwise(std::string_view except) const {
    for (const char* key :
         {"Sockets", "StartCalendarInterval", "StartInterval", "WatchPaths", "QueueDirectories"}) {
        if (key != except && job_.find(key) != nullptr) {
            return true;
        }
    }
    const plist::Value* run = job_.find("RunAtLoad");
    return run != nullptr && run->boolValue();
}

Status Translator::restart() {
    unsigned ends = 0;
    bool firstRun = false;
    bool afterInitialDemand = false;
    std::vector<std::pair<std::string, bool>> pathState;
    if (const plist::Value* keep = job_.find("KeepAlive")) {
        if (const plist::Dictionary* dict = keep->dictionary()) {
            for (const auto& [key, value] : *dict) {
                const std::string where = "KeepAlive." + key;
                if (key == "SuccessfulExit") {
                    ends |= value.boolValue() ? kExitZero : (kAnyEnd & ~kExitZero);
                    firstRun = true;
                } else if (key == "Crashed") {
                    ends |= value.boolValue() ? kCrashSignal : (kAnyEnd & ~kCrashSignal);
                } else if (key == "AfterInitialDemand") {
                    afterInitialDemand = value.boolValue();
                } else if (key == "PathState") {
                    if (value.dictionary() == nullptr) {
                        return refuse(where, "must be a dictionary of paths");
                    }
                    for (const auto& [path, exists] : *value.dictionary()) {
                        pathState.emplace_back(path, exists.boolValue());
                    }
                } else if (key == "OtherJobEnabled") {
                    ignore(where, "systemd cannot follow whether another job is loaded");
                    unmappedTriggers_.push_back(where);
                } else if (key == "NetworkState") {
                    ignore(where, "the job format itself no longer reads it");
                } else {
                    return refuse(where, "is not a KeepAlive condition of the job format");
                }
            }
        } else {
            ends = keep->boolValue() ? unsigned{kAnyEnd} : 0U;
            firstRun = keep->boolValue();
        }
        if (job_.find("OnDemand") != nullptr) {
            ignore("OnDemand",
                   "the older spelling of KeepAlive, which the job also has and "
                   "which decides");
        }
    } else if (const plist::Value* onDemand = job_.find("OnDemand")) {
        ends = onDemand->boolValue() ? 0U : unsigned{kAnyEnd};
        firstRun = ends != 0;
    }

    if (!pathState.empty()) {
        if (ends != 0 || startsOtherwise("")) {
            return refuse("KeepAlive.PathState",
                          "systemd cannot keep a job alive by a path's state and start or "
                          "restart it by other rules at once");
        }
        bool absentKeepsAlive = false;
        for (const auto& [path, exists] : pathState) {
            const std::string where = "KeepAlive.PathState." + path;
            const plist::Value text(path);
            auto value = pathValue(where, &text);
            if (!value) {
                return value.error();
            }
            if (exists) {
                pathTriggers_.push_back("PathExists=" + value.value());
            } else {
                absentKeepsAlive = true;
            }
            if (Status s = orCondition(
                    "KeepAlive.PathState",
                    "ConditionPathExists=|" + std::string(exists ? "" : "!") + value.value());
                !s) {
                return s;
            }
        }
        if (absentKeepsAlive) {
            approximate("KeepAlive.PathState",
                        "systemd cannot start a job when a path disappears: the job is started "
                        "at submit and kept alive while the path is absent");
        }
        ends = kAnyEnd;
        firstRun = absentKeepsAlive;
    }

    if (const plist::Value* t = job_.find("ThrottleInterval")) {
        auto seconds = integerAt("ThrottleInterval", *t, 0, INT32_MAX);
        if (!seconds) {
            return seconds.error();
        }
        throttleSeconds_ = static_cast<int>(seconds.value());
        approximate("ThrottleInterval",
                    "systemd waits this long after every exit before a restart, and does not "
                    "space starts on demand; the job format spaces every start");
    }
    if (ends == 0) {
        return {};
    }
    if (out_.accepts) {
        return refuse("KeepAlive", kOnlyForConnections);
    }
    for (const RestartRule& rule : kRules) {
        if (rule.ends == ends) {
            service_.add("Restart", rule.restart);
            if (rule.prevent != nullptr) {
                service_.add("RestartPreventExitStatus", rule.prevent);
            }
            if (rule.force != nullptr) {
                service_.add("RestartForceExitStatus", rule.force);
            }
        }
    }
    service_.add("RestartSec", std::to_string(throttleSeconds_));
    restarts_ = true;
    out_.startService = firstRun && !afterInitialDemand;
    return {};
}

}  // namespace tessary::linux_backend
