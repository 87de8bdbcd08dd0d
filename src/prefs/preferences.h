#pragma once

#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "platform/file_operations.h"
#include "platform/paths.h"
#include "platform/system_log.h"
#include "plist/value.h"

namespace tessary {

// The daemon's only persistent state: one XML property list. Every read sees
// the file as it is on disk at that moment and every change is a
// read-modify-write of the whole file, so the file is always the one truth
// (see read() for how a file unchanged since its last decoding is not
// decoded again). The object knows where the file is, whom to tell about
// failures, and the last file it decoded.
//
// Call it from the main queue only: read-modify-write cycles must not overlap.
class TYSupervisorPreferences {
  public:
    static constexpr std::string_view kVersion = "version";
    static constexpr std::string_view kPreviousVersion = "previousVersion";
    static constexpr std::string_view kEnabledServices = "enabledServices";
    static constexpr std::string_view kPreviouslyEnabledServices = "previouslyEnabledServices";
    static constexpr std::string_view kDynamicServices = "dynamicServices";
    static constexpr std::string_view kProgramArguments = "programArguments";
    static constexpr std::string_view kSockets = "sockets";
    static constexpr std::string_view kStartCalendarIntervals = "startCalendarIntervals";
    static constexpr std::string_view kDisablePreventsSleep = "disablePreventsSleep";
    static constexpr std::string_view kActivePromotionType = "activePromotionType";

    TYSupervisorPreferences(const Paths& paths, FileOperations& files, SystemLog& log)
        : paths_(paths), files_(files), log_(log) {}

    // Low level.
    std::optional<plist::Bytes> preferencesData() const;
    // Absent file: an empty dictionary. A file that does not parse as a
    // dictionary: absent.
    std::optional<plist::Value> preferences() const;
    // As preferences(), as a dictionary to change. A file that exists but
    // cannot be read is treated like one that does not parse, so that no
    // mutator ever replaces it.
    std::optional<plist::Dictionary> mutablePreferences() const;
    bool writePreferences(const plist::Dictionary& preferences) const;
    void upgradePreferences() const;

    // Getters: a missing key, file, or a file that does not parse all read as
    // absent or false.
    std::optional<plist::Value> version() const;
    std::optional<plist::Value> previousVersion() const;
    std::optional<plist::Value> dynamicServices() const;
    std::optional<plist::Value> previouslyEnabledServices() const;
    bool serviceIsEnabled(std::string_view label) const;
    bool serviceIsPreviouslyEnabled(std::string_view label) const;
    std::optional<plist::Value> programArgumentsForServiceJob(std::string_view service,
                                                              std::string_view job) const;
    std::optional<plist::Value> socketsForServiceJob(std::string_view service,
                                                     std::string_view job) const;
    std::optional<plist::Value> startCalendarIntervalsForServiceJob(std::string_view service,
                                                                    std::string_view job) const;
    bool preventsSleepIsDisabled() const;
    std::optional<plist::Value> activePromotionType() const;

    // Mutators.
    void setVersion(const std::optional<std::string>& version) const;
    void clearPreviousVersion() const;
    void addDynamicServiceWithDictionary(const plist::Value& dictionary) const;
    void removeDynamicService(std::string_view label) const;
    void savePreviouslyEnabledServices() const;
    void restorePreviouslyEnabledServices() const;
    void clearPreviouslyEnabledServices() const;
    void setServiceEnabled(std::string_view label, bool enabled) const;
    void clearEnabledServices() const;
    void setProgramArgumentsForServiceJob(const plist::Value& value, std::string_view service,
                                          std::string_view job) const;
    void removeProgramArgumentsForService(std::string_view service) const;
    void setSocketsForServiceJob(const plist::Value& value, std::string_view service,
                                 std::string_view job) const;
    void removeSocketsForService(std::string_view service) const;
    // An absent value removes the job's entry.
    void setStartCalendarIntervalsForServiceJob(const std::optional<plist::Value>& value,
                                                std::string_view service,
                                                std::string_view job) const;
    void removeStartCalendarIntervalsForService(std::string_view service) const;
    void setActivePromotionType(const std::optional<std::string>& type) const;

  private:
    struct Read;
    Read read() const;
    std::optional<plist::Value> valueFor(std::string_view key) const;
    std::optional<plist::Value> overrideFor(std::string_view key, std::string_view service,
                                            std::string_view job) const;
    // Reads, lets `change` edit the dictionary, and writes when it says so.
    void mutate(const std::function<bool(plist::Dictionary&)>& change) const;
    void setOverride(std::string_view key, const std::optional<plist::Value>& value,
                     std::string_view service, std::string_view job) const;
    void removeOverrides(std::string_view key, std::string_view service) const;
    void removeKey(std::string_view key) const;

    const Paths& paths_;
    FileOperations& files_;
    SystemLog& log_;
    // The file last decoded: what identifies it on disk, and what it held.
    struct Decoded {
        FileAttributes identity;
        std::optional<plist::Value> value;
        Error error;
    };
    // The bytes of the last write and the dictionary they were made from.
    struct Written {
        plist::Bytes bytes;
        plist::Value value;
    };
    mutable std::mutex decodedMutex_;
    mutable std::optional<Decoded> decoded_;
    mutable std::optional<Written> written_;
};

}  // namespace tessary
