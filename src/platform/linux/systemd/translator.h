#pragma once

// The translation of one job dictionary, step by step. Each step reads its
// keys, adds lines to the units and its findings, or refuses the job with the
// key and the reason; the steps live in files by concern:
// translate_process.cpp (the program, its environment and its process),
// translate_restart.cpp (KeepAlive and its relatives),
// translate_sockets.cpp, translate_triggers.cpp (timer and watched paths).

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/systemd/unit_translation.h"
#include "platform/linux/systemd/unit_values.h"

namespace tessary::linux_backend {

// Why a job that serves each connection with a process of its own can have
// no other start.
inline constexpr const char* kOnlyForConnections =
    "a job that serves each connection (inetdCompatibility with Wait false) runs only for a "
    "connection";

class Translator {
  public:
    Translator(const plist::Value& job, const TranslationOptions& options)
        : job_(job), options_(options) {}

    JobCheck run();

  private:
    Status program();
    Status environment();
    Status restart();
    Status processSettings();
    Status resourceLimits();
    Status conditions();
    Status sockets();
    Status timer();
    Status watchedPaths();
    Status otherKeys();

    // What the socket dictionaries of one name add up to.
    struct SocketUnit {
        Section listen;
        std::optional<std::int64_t> mode;
        std::optional<std::int64_t> owner;
        std::optional<std::int64_t> group;
        bool ipv6Only = false;
        bool dualStack = false;
        std::vector<std::string> secureKeys;  // SecureSocketWithKey variables
    };
    Status socketEntry(const std::string& where, const plist::Value& entry, SocketUnit& unit);
    Status inetd(const plist::Dictionary& sockets);

    // The job refused: the finding, and the error the step returns.
    Error refuse(std::string key, std::string reason);
    void approximate(std::string key, std::string reason);
    void ignore(std::string key, std::string reason);

    // A string value systemd takes as written after "Key=": no unquoting, so
    // none of what unwritableReason() names; "%" is escaped.
    Result<std::string> plainValue(const std::string& key, const plist::Value* value);
    // The same for a path that must be absolute and normalized.
    Result<std::string> pathValue(const std::string& key, const plist::Value* value);
    Result<std::int64_t> integerAt(const std::string& key, const plist::Value& value,
                                   std::int64_t min, std::int64_t max);
    // A string or an array of strings, as several keys take either.
    Result<std::vector<std::string>> stringsAt(const std::string& key, const plist::Value& value);

    bool hasTrigger() const;
    // A timer or path unit ("Timer", "Path") that starts the service, named
    // into `unitName`; refused for a job whose service serves connections.
    Status addTrigger(const std::string& key, const char* kind, const char* description,
                      Section body, std::string& unitName);
    // Adds an OR-ed condition of `key` to the service's [Unit] section.
    Status orCondition(const std::string& key, const std::string& line);
    // Whether the job has a way to start other than `except` (a key).
    bool startsOtherwise(std::string_view except) const;

    const plist::Value& job_;
    const TranslationOptions& options_;
    UnitTranslation out_;
    std::vector<Finding> findings_;
    Section unit_;       // [Unit] of the service
    Section service_;    // [Service]
    Section everyUnit_;  // [Unit] lines of every unit of the job (its conditions)
    std::vector<std::pair<std::string, std::vector<std::pair<std::string, Section>>>>
        companions_;                         // sockets, timer, path unit: name and sections
    std::vector<std::string> pathTriggers_;  // [Path] lines
    std::string programPath_;                // as the job gives it
    // The key whose conditions are OR-ed ("ConditionX=|..."): systemd ORs
    // every such condition of a unit, whatever the key, so only one key may.
    std::string orConditionKey_;
    int throttleSeconds_ = 10;  // the job format's default
    bool restarts_ = false;
    // Starts the job has that systemd has no counterpart for (MachServices,
    // LaunchEvents, ...): when they are all it has, it could never run.
    std::vector<std::string> unmappedTriggers_;
};

}  // namespace tessary::linux_backend
