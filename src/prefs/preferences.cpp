#include "prefs/preferences.h"

#include <time.h>

#include <cerrno>

#include "plist/codec.h"

namespace tessary {

namespace {

using plist::Array;
using plist::Dictionary;
using plist::Value;

constexpr std::uint32_t kPreferencesMode = 0644;

bool containsLabel(const Value* list, std::string_view label) {
    if (list == nullptr || list->array() == nullptr) {
        return false;
    }
    for (const Value& element : *list->array()) {
        const std::string* s = element.string();
        if (s != nullptr && *s == label) {
            return true;
        }
    }
    return false;
}

bool arrayContains(const Array& array, const Value& element) {
    for (const Value& e : array) {
        if (e == element) {
            return true;
        }
    }
    return false;
}

const Value* lookup(const Dictionary& d, std::string_view key) {
    auto it = d.find(key);
    return it == d.end() ? nullptr : &it->second;
}

// A key that holds something other than an array counts as absent: the
// daemon never writes one, and replacing it is the only way forward.
std::optional<Array> arrayAt(const Dictionary& d, std::string_view key) {
    const Value* v = lookup(d, key);
    if (v == nullptr || v->array() == nullptr) {
        return std::nullopt;
    }
    return *v->array();
}

}  // namespace

struct TYSupervisorPreferences::Read {
    enum class Outcome : std::uint8_t { Missing, Unreadable, Parsed, Unparseable } outcome;
    std::optional<Value> value;
    Error error;
};

// Every read goes to the disk: the file is looked at each time, and what it
// holds now is the answer. Only the decoding is spared: a file whose identity
// (device, inode, size, modification and change times to the nanosecond) is
// that of the file decoded last holds what it held then. The daemon's own
// writes replace the file by rename, a new inode each time; an edit in place
// changes its size or times; either is read anew. Bytes equal to those of the
// daemon's last write hold the dictionary they were written from (what
// decodes from a written list is what was written), so only a file someone
// else wrote is decoded. The identity is taken before and after the bytes
// are read, and a file that changed in between, or so recently that its
// times could still stay the same, is not remembered.
TYSupervisorPreferences::Read TYSupervisorPreferences::read() const {
    const std::string path = paths_.preferencesFile();
    auto before = files_.attributes(path);
    if (before) {
        std::lock_guard lock(decodedMutex_);
        if (decoded_ && decoded_->identity == before.value()) {
            return {decoded_->value ? Read::Outcome::Parsed : Read::Outcome::Unparseable,
                    decoded_->value, decoded_->error};
        }
    }
    auto bytes = files_.readFile(path);
    if (!bytes) {
        if (bytes.error().code == ENOENT) {
            return {Read::Outcome::Missing, Value(Dictionary{}), {}};
        }
        return {Read::Outcome::Unreadable, std::nullopt, bytes.error()};
    }
    Read read{Read::Outcome::Parsed, std::nullopt, {}};
    std::optional<Value> ownWrite;
    {
        std::lock_guard lock(decodedMutex_);
        if (written_ && written_->bytes == bytes.value()) {
            ownWrite = written_->value;
        }
    }
    auto decoded = ownWrite ? Result<Value>(std::move(*ownWrite))
                            : plist::decode(std::span<const std::uint8_t>(bytes.value()));
    if (!decoded) {
        read = {Read::Outcome::Unparseable, std::nullopt, decoded.error()};
    } else if (!decoded.value().isDictionary()) {
        read = {Read::Outcome::Unparseable, std::nullopt,
                Error{"TYPropertyListErrorDomain", 3840,
                      "the preferences file does not hold a dictionary"}};
    } else {
        read.value = std::move(decoded).value();
    }
    auto after = files_.attributes(path);
    // A file changed within the file system clock's current tick could
    // change again within it and keep its times: it is decoded again until
    // its last change is older than that.
    timespec now{};
    (void)::clock_gettime(CLOCK_REALTIME_COARSE, &now);
    const std::int64_t tick = static_cast<std::int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
    if (before && after && before.value() == after.value() &&
        after.value().changeNanoseconds < tick && after.value().modificationNanoseconds < tick) {
        std::lock_guard lock(decodedMutex_);
        decoded_ = Decoded{after.value(), read.value, read.error};
    }
    return read;
}

std::optional<plist::Bytes> TYSupervisorPreferences::preferencesData() const {
    auto bytes = files_.readFile(paths_.preferencesFile());
    if (!bytes) {
        return std::nullopt;
    }
    return std::move(bytes).value();
}

std::optional<Value> TYSupervisorPreferences::preferences() const {
    Read r = read();
    // An unreadable file has no data, and absent data reads as empty.
    if (r.outcome == Read::Outcome::Unreadable) {
        return Value(Dictionary{});
    }
    return r.value;
}

std::optional<Dictionary> TYSupervisorPreferences::mutablePreferences() const {
    Read r = read();
    if (!r.value) {
        return std::nullopt;
    }
    return *r.value->dictionary();
}

bool TYSupervisorPreferences::writePreferences(const Dictionary& preferences) const {
    {
        // Whatever the file holds after this, it is read and decoded anew.
        std::lock_guard lock(decodedMutex_);
        decoded_.reset();
        written_.reset();
    }
    Value value(preferences);
    auto bytes = plist::encode(value, plist::Format::Xml);
    if (!bytes) {
        log_.error("ERROR: Failure serializing preferences: %@", bytes.error());
        return false;
    }
    const std::string path = paths_.preferencesFile();
    if (Status written = files_.writeFileAtomically(path, bytes.value()); !written) {
        log_.error("ERROR: Failure writing preferences: %@", written.error());
        return false;
    }
    {
        std::lock_guard lock(decodedMutex_);
        written_ = Written{std::move(bytes).value(), std::move(value)};
    }
    if (Status chmodded = files_.setPermissions(path, kPreferencesMode); !chmodded) {
        log_.error("ERROR: Failure setting preferences attributes: %@", chmodded.error());
        return false;
    }
    return true;
}

void TYSupervisorPreferences::mutate(const std::function<bool(Dictionary&)>& change) const {
    Read r = read();
    if (!r.value) {
        // The file is there but is not a dictionary we can read: writing our
        // change would replace whatever it holds with a partial dictionary.
        log_.error("ERROR: Failure serializing preferences: %@", r.error);
        return;
    }
    Dictionary d = *r.value->dictionary();
    if (change(d)) {
        (void)writePreferences(d);
    }
}

std::optional<Value> TYSupervisorPreferences::valueFor(std::string_view key) const {
    auto prefs = preferences();
    if (!prefs) {
        return std::nullopt;
    }
    const Value* v = prefs->find(key);
    return v != nullptr ? std::optional<Value>(*v) : std::nullopt;
}

std::optional<Value> TYSupervisorPreferences::overrideFor(std::string_view key,
                                                          std::string_view service,
                                                          std::string_view job) const {
    auto outer = valueFor(key);
    if (!outer) {
        return std::nullopt;
    }
    const Value* perService = outer->find(service);
    const Value* perJob = perService != nullptr ? perService->find(job) : nullptr;
    return perJob != nullptr ? std::optional<Value>(*perJob) : std::nullopt;
}

std::optional<Value> TYSupervisorPreferences::version() const {
    return valueFor(kVersion);
}
std::optional<Value> TYSupervisorPreferences::previousVersion() const {
    return valueFor(kPreviousVersion);
}
std::optional<Value> TYSupervisorPreferences::dynamicServices() const {
    return valueFor(kDynamicServices);
}
std::optional<Value> TYSupervisorPreferences::previouslyEnabledServices() const {
    return valueFor(kPreviouslyEnabledServices);
}
std::optional<Value> TYSupervisorPreferences::activePromotionType() const {
    return valueFor(kActivePromotionType);
}

bool TYSupervisorPreferences::serviceIsEnabled(std::string_view label) const {
    auto list = valueFor(kEnabledServices);
    return list && containsLabel(&*list, label);
}

bool TYSupervisorPreferences::serviceIsPreviouslyEnabled(std::string_view label) const {
    auto list = valueFor(kPreviouslyEnabledServices);
    return list && containsLabel(&*list, label);
}

std::optional<Value> TYSupervisorPreferences::programArgumentsForServiceJob(
    std::string_view service, std::string_view job) const {
    return overrideFor(kProgramArguments, service, job);
}
std::optional<Value> TYSupervisorPreferences::socketsForServiceJob(std::string_view service,
                                                                   std::string_view job) const {
    return overrideFor(kSockets, service, job);
}
std::optional<Value> TYSupervisorPreferences::startCalendarIntervalsForServiceJob(
    std::string_view service, std::string_view job) const {
    return overrideFor(kStartCalendarIntervals, service, job);
}

bool TYSupervisorPreferences::preventsSleepIsDisabled() const {
    auto v = valueFor(kDisablePreventsSleep);
    return v && v->boolValue();
}

void TYSupervisorPreferences::setVersion(const std::optional<std::string>& version) const {
    mutate([&](Dictionary& d) {
        const Value* previous = lookup(d, kPreviousVersion);
        const Value* current = lookup(d, kVersion);
        if (previous == nullptr && current != nullptr) {
            const Value keep = *current;
            d.insert_or_assign(std::string(kPreviousVersion), keep);
        } else if (current == nullptr) {
            d.erase(std::string(kPreviousVersion));
        }
        if (version) {
            d.insert_or_assign(std::string(kVersion), Value(*version));
        } else {
            d.erase(std::string(kVersion));
        }
        return true;
    });
}

void TYSupervisorPreferences::removeKey(std::string_view key) const {
    mutate([&](Dictionary& d) {
        d.erase(std::string(key));
        return true;
    });
}

void TYSupervisorPreferences::clearPreviousVersion() const {
    removeKey(kPreviousVersion);
}
void TYSupervisorPreferences::clearPreviouslyEnabledServices() const {
    removeKey(kPreviouslyEnabledServices);
}
void TYSupervisorPreferences::clearEnabledServices() const {
    removeKey(kEnabledServices);
}

void TYSupervisorPreferences::addDynamicServiceWithDictionary(const Value& dictionary) const {
    mutate([&](Dictionary& d) {
        Array services = arrayAt(d, kDynamicServices).value_or(Array{});
        services.push_back(dictionary);
        d.insert_or_assign(std::string(kDynamicServices), Value(std::move(services)));
        return true;
    });
}

void TYSupervisorPreferences::removeDynamicService(std::string_view label) const {
    mutate([&](Dictionary& d) {
        auto services = arrayAt(d, kDynamicServices);
        if (!services) {
            return false;
        }
        Array kept;
        kept.reserve(services->size());
        for (const Value& definition : *services) {
            const std::string* l = definition.stringAt("Label");
            if (l == nullptr || *l != label) {
                kept.push_back(definition);
            }
        }
        if (kept.size() == services->size()) {
            return false;
        }
        d.insert_or_assign(std::string(kDynamicServices), Value(std::move(kept)));
        return true;
    });
}

void TYSupervisorPreferences::savePreviouslyEnabledServices() const {
    mutate([&](Dictionary& d) {
        auto enabled = arrayAt(d, kEnabledServices);
        if (!enabled) {
            return false;
        }
        Array previous = arrayAt(d, kPreviouslyEnabledServices).value_or(Array{});
        for (const Value& label : *enabled) {
            if (!arrayContains(previous, label)) {
                previous.push_back(label);
            }
        }
        d.insert_or_assign(std::string(kPreviouslyEnabledServices), Value(std::move(previous)));
        // The key stays, holding an empty list; restoring removes its key.
        d.insert_or_assign(std::string(kEnabledServices), Value(Array{}));
        return true;
    });
}

void TYSupervisorPreferences::restorePreviouslyEnabledServices() const {
    mutate([&](Dictionary& d) {
        auto previous = arrayAt(d, kPreviouslyEnabledServices);
        if (!previous) {
            return false;
        }
        Array enabled = arrayAt(d, kEnabledServices).value_or(Array{});
        for (const Value& label : *previous) {
            if (!arrayContains(enabled, label)) {
                enabled.push_back(label);
            }
        }
        d.insert_or_assign(std::string(kEnabledServices), Value(std::move(enabled)));
        d.erase(std::string(kPreviouslyEnabledServices));
        return true;
    });
}

void TYSupervisorPreferences::setServiceEnabled(std::string_view label, bool enabled) const {
    mutate([&](Dictionary& d) {
        Array list = arrayAt(d, kEnabledServices).value_or(Array{});
        const Value element{std::string(label)};
        const bool present = arrayContains(list, element);
        if (enabled == present) {
            return false;
        }
        if (enabled) {
            list.push_back(element);
        } else {
            std::erase(list, element);
        }
        d.insert_or_assign(std::string(kEnabledServices), Value(std::move(list)));
        return true;
    });
}

void TYSupervisorPreferences::setOverride(std::string_view key, const std::optional<Value>& value,
                                          std::string_view service, std::string_view job) const {
    mutate([&](Dictionary& d) {
        Dictionary outer = plist::dictionaryOf(lookup(d, key));
        auto it = outer.find(service);
        Dictionary perService = plist::dictionaryOf(it != outer.end() ? &it->second : nullptr);
        if (value) {
            perService.insert_or_assign(std::string(job), *value);
        } else {
            perService.erase(std::string(job));
        }
        outer.insert_or_assign(std::string(service), Value(std::move(perService)));
        d.insert_or_assign(std::string(key), Value(std::move(outer)));
        return true;
    });
}

void TYSupervisorPreferences::removeOverrides(std::string_view key,
                                              std::string_view service) const {
    mutate([&](Dictionary& d) {
        const Value* existing = lookup(d, key);
        if (existing == nullptr) {
            return false;
        }
        // Written even when the service had no entry.
        Dictionary outer = plist::dictionaryOf(existing);
        outer.erase(std::string(service));
        d.insert_or_assign(std::string(key), Value(std::move(outer)));
        return true;
    });
}

void TYSupervisorPreferences::setProgramArgumentsForServiceJob(const Value& value,
                                                               std::string_view service,
                                                               std::string_view job) const {
    setOverride(kProgramArguments, value, service, job);
}
void TYSupervisorPreferences::removeProgramArgumentsForService(std::string_view service) const {
    removeOverrides(kProgramArguments, service);
}
void TYSupervisorPreferences::setSocketsForServiceJob(const Value& value, std::string_view service,
                                                      std::string_view job) const {
    setOverride(kSockets, value, service, job);
}
void TYSupervisorPreferences::removeSocketsForService(std::string_view service) const {
    removeOverrides(kSockets, service);
}
void TYSupervisorPreferences::setStartCalendarIntervalsForServiceJob(
    const std::optional<Value>& value, std::string_view service, std::string_view job) const {
    setOverride(kStartCalendarIntervals, value, service, job);
}
void TYSupervisorPreferences::removeStartCalendarIntervalsForService(
    std::string_view service) const {
    removeOverrides(kStartCalendarIntervals, service);
}

void TYSupervisorPreferences::setActivePromotionType(const std::optional<std::string>& type) const {
    mutate([&](Dictionary& d) {
        if (type) {
            d.insert_or_assign(std::string(kActivePromotionType), Value(*type));
        } else {
            d.erase(std::string(kActivePromotionType));
        }
        return true;
    });
}

}  // namespace tessary
