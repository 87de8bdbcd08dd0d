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
    if (kept == followed_) {
        return {};
    }
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
    followed_ = kept;
    return {};
}

void UnitPicture::unfollow() {
    unitNew_.reset();
    unitRemoved_.reset();
    reloading_.reset();
    followed_ = nullptr;
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
    inMemory_.clear();
    for (auto& [name, state] : units.value()) {
        inMemory_.insert_or_assign(std::move(name), std::move(state));
    }
    files_.clear();
    if (std::unique_ptr<DIR, int (*)(DIR*)> dir(::opendir(options_.unitDirectory.c_str()),
                                                &::closedir);
        dir) {
        while (const dirent* entry = ::readdir(dir.get())) {
            files_.insert(entry->d_name);
        }
    }
    origins_.clear();
    iteration_ = iteration;
    stale_ = false;
    return {};
}

Result<Origin> UnitPicture::originOf(ManagerBus& bus, const std::string& unit) {
    if (auto decided = origins_.find(unit); decided != origins_.end()) {
        return decided->second;
    }
    const auto known = inMemory_.find(unit);
    const bool loaded = known != inMemory_.end() && known->second.loadState == "loaded";
    const bool running = known != inMemory_.end() && known->second.present();
    Origin origin = Origin::None;
    if (!loaded && (files_.count(unit) != 0 || generatedUnit(options_, unit))) {
        // Asked by name, the manager would load it from its file first.
        auto state = bus.unitState(unit);
        if (!state) {
            return state.error();
        }
        auto asked = linux_backend::originOf(bus, options_, unit, state.value(), false);
        if (!asked) {
            return asked.error();
        }
        origin = asked.value().origin;
    } else if (running) {
        auto fragment = fragments_.find(unit);
        if (fragment == fragments_.end()) {
            auto path = bus.stringProperty(known->second.path, kUnitInterface, "FragmentPath");
            if (!path) {
                return path.error();
            }
            fragment = fragments_.insert_or_assign(unit, path.value()).first;
        }
        origin = ownFragment(options_, unit, fragment->second) ? Origin::Own : Origin::Foreign;
    }
    origins_[unit] = origin;
    return origin;
}

}  // namespace tessary::linux_backend
