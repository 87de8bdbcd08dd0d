#include "platform/linux/systemd/unit_picture.h"

#include <dirent.h>

#include <memory>

#include "platform/linux/systemd/unit_files.h"

namespace tessary::linux_backend {

int UnitPicture::onUnitChanged(sd_bus_message* m, void* userdata, sd_bus_error* /*error*/) {
    const char* unit = nullptr;
    const char* path = nullptr;
    if (sd_bus_message_read(m, "so", &unit, &path) > 0 && unit != nullptr) {
        static_cast<UnitPicture*>(userdata)->fragments_.erase(unit);
    }
    return 0;
}

int UnitPicture::onReloading(sd_bus_message* /*m*/, void* userdata, sd_bus_error* /*error*/) {
    static_cast<UnitPicture*>(userdata)->fragments_.clear();
    return 0;
}

Status UnitPicture::follow(sd_bus* kept) {
    unfollow();
    struct Match {
        const char* member;
        sd_bus_message_handler_t handler;
        SdBusSlotPtr& slot;
    };
    for (const Match& match : {Match{"UnitNew", &onUnitChanged, unitNew_},
                               Match{"UnitRemoved", &onUnitChanged, unitRemoved_},
                               Match{"Reloading", &onReloading, reloading_}}) {
        sd_bus_slot* raw = nullptr;
        if (const int r = sd_bus_match_signal(kept, &raw, nullptr, kManagerPath, kManagerInterface,
                                              match.member, match.handler, this);
            r < 0) {
            unfollow();
            return Error::posix(-r, "Unable to follow the service manager's units");
        }
        match.slot.reset(raw);
    }
    return {};
}

void UnitPicture::unfollow() {
    unitNew_.reset();
    unitRemoved_.reset();
    reloading_.reset();
    fragments_.clear();
    stale_ = true;
}

Status UnitPicture::takeUnlessCurrent(ManagerBus& bus, sd_bus* kept, std::uint64_t iteration) {
    if (!stale_ && iteration == iteration_) {
        return {};
    }
    auto units = bus.unitsMatching({"*.service", "*.socket"});
    if (!units) {
        return units.error();
    }
    // The signals the manager sent before it answered came before the
    // answer: the remembered files are as current as the picture.
    while (sd_bus_process(kept, nullptr) > 0) {
    }
    units_.clear();
    jobs_.clear();
    for (auto& [name, state] : units.value()) {
        entryFor(name).second.inMemory = std::move(state);
    }
    if (std::unique_ptr<DIR, int (*)(DIR*)> dir(::opendir(options_.unitDirectory.c_str()),
                                                &::closedir);
        dir) {
        while (const dirent* entry = ::readdir(dir.get())) {
            entryFor(entry->d_name).second.file = true;
        }
    }
    iteration_ = iteration;
    stale_ = false;
    return {};
}

UnitPicture::Entry& UnitPicture::entryFor(const std::string& unit) {
    const auto [it, added] = units_.try_emplace(unit);
    if (added) {
        const std::string_view name = it->first;
        for (const auto& [suffix, slot] : {std::pair{std::string_view(".service"), &Job::service},
                                           std::pair{std::string_view(".socket"), &Job::socket}}) {
            if (name.ends_with(suffix)) {
                jobs_[std::string(name.substr(0, name.size() - suffix.size()))].*slot = &*it;
            }
        }
    }
    return *it;
}

void UnitPicture::changed(const std::string& unit, Origin origin) {
    entryFor(unit).second.decided = origin;
}

bool UnitPicture::asksByName(const Entry& entry) const {
    const Unit& u = entry.second;
    const bool loaded = u.inMemory && u.inMemory->loadState == "loaded";
    return !loaded && (u.file || generatedUnit(options_, entry.first));
}

std::optional<Origin> UnitPicture::knownOrigin(Entry& entry) {
    Unit& u = entry.second;
    if (u.decided) {
        return u.decided;
    }
    if (asksByName(entry)) {
        return std::nullopt;  // asked by name, the manager would load it from its file first
    }
    if (!u.inMemory || !u.inMemory->present()) {
        return Origin::None;
    }
    const auto fragment = fragments_.find(entry.first);
    if (fragment == fragments_.end()) {
        return std::nullopt;
    }
    // Kept: the file is remembered only until a signal says the unit changed.
    u.decided = fragment->second;
    return u.decided;
}

std::optional<Answer> UnitPicture::jobAnswer(std::string_view label) {
    // The daemon's own units may come from the generator's directory, which
    // the picture does not read.
    if (!options_.generatedLabel.empty() && label.starts_with(options_.generatedLabel)) {
        return std::nullopt;
    }
    // A label no unit can carry names nothing the picture holds: No, as the
    // question would answer.
    const auto job = jobs_.find(label);
    if (job == jobs_.end()) {
        return Answer::No;
    }
    bool own = false;
    for (Entry* entry : {job->second.service, job->second.socket}) {
        if (entry == nullptr) {
            continue;  // neither in memory nor a file: nobody's
        }
        const auto origin = knownOrigin(*entry);
        if (!origin) {
            return std::nullopt;
        }
        own = own || *origin == Origin::Own;
    }
    return own ? Answer::Yes : Answer::No;
}

Result<Origin> UnitPicture::originOf(ManagerBus& bus, const std::string& unit) {
    Entry& entry = entryFor(unit);
    if (auto known = knownOrigin(entry)) {
        return *known;
    }
    Unit& u = entry.second;
    // Either asked by name, which loads it, or running with its file not yet
    // known; only the latter's file is remembered until the unit changes.
    const bool byName = asksByName(entry);
    auto state = byName ? bus.unitState(unit) : Result<UnitState>(*u.inMemory);
    if (!state) {
        return state.error();
    }
    auto asked = linux_backend::originOf(bus, options_, unit, state.value(), false);
    if (!asked) {
        return asked.error();
    }
    u.decided = asked.value().origin;
    if (!byName) {
        fragments_.insert_or_assign(unit, *u.decided);
    }
    return *u.decided;
}

}  // namespace tessary::linux_backend
