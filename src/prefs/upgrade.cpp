#include "prefs/preferences.h"

namespace tessary {

namespace {

constexpr std::string_view kRetiredLabel = "com.orvane.tessaryadmind";
constexpr std::string_view kReplacementLabel = "com.orvane.tessaryadmind.backend";
constexpr std::uint32_t kSetupDirectoryMode = 0755;

// Replaces the retired label in place, position by position; duplicates stay.
void replaceRetiredLabel(plist::Dictionary& d, std::string_view key) {
    auto it = d.find(key);
    if (it == d.end() || it->second.array() == nullptr) {
        return;
    }
    const plist::Array snapshot = *it->second.array();
    plist::Array stored = snapshot;
    for (std::size_t i = 0; i < snapshot.size(); ++i) {
        const std::string* label = snapshot[i].string();
        if (label != nullptr && *label == kRetiredLabel) {
            stored[i] = plist::Value(std::string(kReplacementLabel));
        }
    }
    it->second = plist::Value(std::move(stored));
}

}  // namespace

void TYSupervisorPreferences::upgradePreferences() const {
    const std::string current = paths_.preferencesFile();
    const std::string legacy = paths_.legacyPreferencesFile();

    if (files_.exists(current)) {
        if (!files_.exists(legacy)) {
            return;
        }
        log_.warning("WARNING: Obsolete preferences file found at '%@', will attempt to remove",
                     legacy);
        if (Status removed = files_.removeItem(legacy); !removed) {
            log_.warning("WARNING: Unable to remove obsolete preferences file '%@': %@", legacy,
                         removed.error());
        }
        return;
    }

    if (!files_.exists(paths_.libraryDirectory())) {
        log_.error("ERROR: /Library does not exist");
        return;
    }

    const std::string setup = paths_.setupDirectory();
    if (!files_.exists(setup)) {
        if (Status made = files_.createDirectory(setup, true, kSetupDirectoryMode); !made) {
            log_.error("ERROR: Unable to create '%@': %@", setup, made.error());
            return;
        }
    }

    if (files_.exists(legacy)) {
        if (Status moved = files_.moveItem(legacy, current); !moved) {
            log_.error("ERROR: Unable to move '%@' to '%@': %@", legacy, current, moved.error());
            return;
        }
    }

    // A moved file that does not parse has no dictionary to rewrite; it stays
    // as it is rather than being replaced by an empty one.
    auto prefs = mutablePreferences();
    if (!prefs) {
        log_.error("ERROR: Failure serializing preferences: %@",
                   "the preferences file could not be read as a property list");
        return;
    }
    replaceRetiredLabel(*prefs, kEnabledServices);
    replaceRetiredLabel(*prefs, kPreviouslyEnabledServices);
    (void)writePreferences(*prefs);
}

}  // namespace tessary
