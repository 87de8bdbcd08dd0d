#include <cerrno>

#include "daemon/supervisor.h"

namespace tessary {

namespace {

constexpr const char* kBackendService = "com.orvane.tessaryadmind.backend";

}  // namespace

std::optional<plist::Dictionary> TYSupervisor::beginPromotionWithArguments(Arguments& arguments) {
    auto it = arguments.find("senderPID");
    const auto pidNumber = it != arguments.end() ? it->second.asInteger() : std::nullopt;
    if (!pidNumber) {
        return std::nullopt;
    }
    const auto pid = static_cast<std::int32_t>(pidNumber->asSigned());

    // No check for an assertion already held: a second begin replaces the id.
    createPowerAssertion();
    preferences_.setActivePromotionType(currentSetupStatus());

    // The client is watched until it exits, whether or not the promotion
    // ended; an exit during the promotion ends the daemon, and the next start
    // cleans up.
    auto slot = std::make_shared<QueueSourcePtr>();
    auto exited = [this, pid, weak = std::weak_ptr(slot)] {
        if (preferences_.activePromotionType()) {
            platform_.log.warning("WARNING: Client %d exited before promotion ended.", pid);
            platform_.process.exit(0);
            return;
        }
        if (auto held = weak.lock()) {
            clientWatches_.erase(held);  // cancelling releases the watch
        }
    };
    auto watch = platform_.exitWatch.watchExit(pid, exited);
    if (watch) {
        *slot = std::move(watch).value();
        clientWatches_.insert(slot);
    } else if (watch.error().isPosix(ESRCH)) {
        // Gone before it could be watched: that is its exit, which comes
        // after this command as a watched exit would.
        platform_.queue.post(exited);
    } else {
        platform_.log.warning("WARNING: Unable to watch client %d: %@", pid, watch.error());
    }

    if (ServicePtr backend = serviceWithLabel(kBackendService)) {
        setServiceEnabled(*backend, true);
        syncServices();
    }
    return plist::Dictionary{};
}

std::optional<plist::Dictionary> TYSupervisor::endPromotionWithArguments(Arguments& /*arguments*/) {
    // Excluded by path before it exists, under the name the backup tools see.
    const std::string excluded = "/private" + std::string(Paths::kSetupDoneMarker);
    if (platform_.backupExclusion.setExcluded(excluded, true, true) != 0) {
        platform_.log.warning("WARNING: Failed to exclude TessarySetupDone from backup set");
    }
    if (Status written = platform_.files.writeFileAtomically(platform_.paths.setupDoneMarker(), {});
        !written) {
        platform_.log.warning("WARNING: Creation of .TessarySetupDone failed: %@", written.error());
        return std::nullopt;
    }
    Arguments none;
    (void)restoreServicesWithArguments(none);
    preferences_.setActivePromotionType(std::nullopt);
    preferences_.clearPreviousVersion();
    releasePowerAssertion();
    return plist::Dictionary{};
}

std::optional<plist::Dictionary> TYSupervisor::restoreServicesWithArguments(
    Arguments& /*arguments*/) {
    const auto previous = preferences_.previouslyEnabledServices();
    const plist::Array copy = plist::arrayOf(previous ? &*previous : nullptr);
    preferences_.restorePreviouslyEnabledServices();
    // Every service's switch is taken afresh from the enabled list.
    setServices(nullptr);
    loadServices();
    syncServices();
    return plist::Dictionary{{"previouslyEnabledServices", plist::Value(copy)}};
}

std::optional<plist::Dictionary> TYSupervisor::demoteWithArguments(Arguments& /*arguments*/) {
    demote();
    return plist::Dictionary{};
}

}  // namespace tessary
