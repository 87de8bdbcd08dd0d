// The backend's object: one operation per label at a time, the question
// whether a job is loaded, and the connections every operation borrows.
// Submitting and removing a job have files of their own.

#include "platform/linux/systemd/systemd_service_manager.h"

#include <algorithm>
#include <optional>
#include <thread>
#include <vector>

#include "platform/linux/systemd/manager_bus.h"
#include "platform/linux/systemd/shared_manager_connection.h"
#include "platform/linux/systemd/unit_files.h"
#include "platform/linux/systemd/unit_loading.h"
#include "platform/linux/systemd/unit_picture.h"
#include "platform/linux/systemd/unit_translation.h"

namespace tessary::linux_backend {

SystemdServiceManager::LabelGuard::LabelGuard(SystemdServiceManager& manager, std::string label)
    : manager_(manager), label_(std::move(label)) {
    std::unique_lock lock(manager_.busyMutex_);
    manager_.busyChanged_.wait(lock, [&] { return manager_.busyLabels_.count(label_) == 0; });
    manager_.busyLabels_.insert(label_);
}

SystemdServiceManager::LabelGuard::~LabelGuard() {
    {
        std::lock_guard lock(manager_.busyMutex_);
        manager_.busyLabels_.erase(label_);
    }
    manager_.busyChanged_.notify_all();
}

SystemdServiceManager::SystemdServiceManager(SystemdServiceManagerOptions options, SystemLog& log)
    : options_(std::move(options)),
      address_(busAddressFor(options_.busAddress)),
      log_(log),
      picture_(std::make_unique<UnitPicture>(options_)) {}

SystemdServiceManager::~SystemdServiceManager() {
    picture_->unfollow();
}

void SystemdServiceManager::pictureChanged(const std::vector<std::string>& units, bool own,
                                           bool succeeded) {
    if (!succeeded || std::this_thread::get_id() != home_) {
        picture_->forget();
        return;
    }
    for (const auto& unit : units) {
        picture_->changed(unit, own ? Origin::Own : Origin::None);
    }
}

Error SystemdServiceManager::notAuthorized(std::string_view what) {
    return Error{kErrorDomain, EPERM,
                 "Not authorized to " + std::string(what) +
                     " system jobs: the authorization could not be obtained"};
}

std::optional<Answer> SystemdServiceManager::answerFromPicture(std::string_view label) {
    if (options_.event == nullptr || !kept_ || std::this_thread::get_id() != home_) {
        return std::nullopt;
    }
    std::uint64_t iteration = 0;
    if (sd_event_get_iteration(options_.event, &iteration) < 0 || !picture_->current(iteration)) {
        return std::nullopt;
    }
    return picture_->jobAnswer(label);
}

Answer SystemdServiceManager::jobIsEnabled(std::string_view label) {
    // Most questions of a pass are answered from its picture alone, without
    // the connection, the names or the checks a question to the manager needs.
    if (auto answer = answerFromPicture(label)) {
        return *answer;
    }
    if (!checkJobLabel(label)) {
        return Answer::No;  // no unit can have that name
    }
    // The job's service, or for a job that serves each connection (whose
    // service is a template the manager cannot be asked about) its socket.
    const std::vector<std::string> units = {serviceUnitName(label), std::string(label) + ".socket"};
    // A question is asked again once on a new connection when the kept one
    // turns out to be gone (the manager re-executed since the last one).
    for (int attempt = 0; attempt < 2; ++attempt) {
        auto kept = keptConnection();
        auto connected = managerBus(kept, [this] { return sharedConnection(); });
        if (!connected) {
            return Answer::Unknown;
        }
        ManagerBus& bus = connected.value();
        std::optional<Error> failure;
        std::vector<Origin> origins;
        if (kept.value() != nullptr && options_.event != nullptr) {
            std::uint64_t iteration = 0;
            (void)sd_event_get_iteration(options_.event, &iteration);
            if (Status s = picture_->takeUnlessCurrent(bus, kept.value(), iteration); !s) {
                failure = s.error();
            }
            for (std::size_t i = 0; !failure && i < units.size(); ++i) {
                if (auto origin = picture_->originOf(bus, units[i])) {
                    origins.push_back(origin.value());
                } else {
                    failure = origin.error();
                }
            }
        } else {
            // Off the main loop (the stop of all asks of every service at
            // once) only the units the manager holds are asked about: one it
            // does not hold and that has no file of ours is nobody's or
            // another's, No either way, and a question by name would have the
            // manager search every unit directory for it and keep an object.
            auto states =
                kept.value() == nullptr
                    ? statesLoadingOnly(bus, units,
                                        [this](const std::string& unit) {
                                            return unitFileExists(options_.unitDirectory, unit) ||
                                                   generatedUnit(options_, unit);
                                        })
                    : bus.unitStates(units);
            if (!states) {
                failure = states.error();
            }
            for (std::size_t i = 0; !failure && i < units.size(); ++i) {
                if (auto origin = originOf(bus, options_, units[i], states.value()[i], false)) {
                    origins.push_back(origin.value().origin);
                } else {
                    failure = origin.error();
                }
            }
        }
        if (!failure) {
            return std::find(origins.begin(), origins.end(), Origin::Own) != origins.end()
                       ? Answer::Yes
                       : Answer::No;
        }
        picture_->forget();
        if (!connectionLost(*failure)) {
            return Answer::Unknown;
        }
    }
    return Answer::Unknown;
}

Result<std::shared_ptr<SharedManagerConnection>> SystemdServiceManager::sharedConnection() {
    std::lock_guard lock(sharedMutex_);
    if (auto current = shared_.lock(); current && current->usable()) {
        return current;
    }
    auto opened = SharedManagerConnection::open(address_);
    if (opened) {
        shared_ = opened.value();
    }
    return opened;
}

Result<sd_bus*> SystemdServiceManager::keptConnection() {
    if (std::this_thread::get_id() != home_) {
        return static_cast<sd_bus*>(nullptr);
    }
    if (kept_) {
        // Drops what the manager sent since the last operation; a connection
        // it closed is made anew.
        int r = 0;
        while ((r = sd_bus_process(kept_.get(), nullptr)) > 0) {
        }
        if (r < 0 || sd_bus_is_open(kept_.get()) <= 0) {
            picture_->unfollow();
            kept_.reset();
        }
    }
    if (!kept_) {
        SdBusPtr bus;
        if (const int r = openManagerBus(address_, bus); r < 0) {
            return unreachable(address_, r);
        }
        if (options_.event != nullptr) {
            (void)sd_bus_attach_event(bus.get(), options_.event, SD_EVENT_PRIORITY_IDLE);
        }
        if (Status s = picture_->follow(bus.get()); !s) {
            return s.error();
        }
        kept_ = std::move(bus);
    }
    return kept_.get();
}

}  // namespace tessary::linux_backend
