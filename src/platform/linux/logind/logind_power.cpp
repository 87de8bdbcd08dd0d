#include "platform/linux/logind/logind_power.h"

#include <fcntl.h>

#include <cerrno>
#include <string_view>

#include "platform/linux/sd_handles.h"

namespace tessary::linux_backend {

namespace {

constexpr const char* kLogind = "org.freedesktop.login1";
constexpr const char* kManagerPath = "/org/freedesktop/login1";
constexpr const char* kManagerInterface = "org.freedesktop.login1.Manager";
constexpr const char* kDelayWhy = "Taking down the services that stop for sleep";
// The bus itself: no client can own this name or send in it.
constexpr const char* kBusDriver = "org.freedesktop.DBus";
constexpr const char* kLogindOwnerMatch =
    "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
    "interface='org.freedesktop.DBus',member='NameOwnerChanged',arg0='org.freedesktop.login1'";

std::uint64_t timeoutMicroseconds() {
    return static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(kLogindCallTimeout).count());
}

// A client connection to the bus at `address`; 0 or a negative errno.
int connectTo(const std::string& address, SdBusPtr& out) {
    return openBus(address, true, std::chrono::microseconds(timeoutMicroseconds()), out);
}

// The lock's descriptor from an Inhibit reply; the message owns the one it
// carries, so the lock is a duplicate.
int lockFromReply(sd_bus_message* reply, UniqueFd& out) {
    int fd = -1;
    int r = sd_bus_message_read(reply, "h", &fd);
    if (r < 0) {
        return r;
    }
    UniqueFd lock(::fcntl(fd, F_DUPFD_CLOEXEC, 3));
    if (!lock) {
        return -errno;
    }
    out = std::move(lock);
    return 0;
}

int inhibit(sd_bus* bus, const char* what, const char* who, const char* why, const char* mode,
            UniqueFd& out) {
    SdBusError error;
    sd_bus_message* raw = nullptr;
    int r = sd_bus_call_method(bus, kLogind, kManagerPath, kManagerInterface, "Inhibit",
                               error.get(), &raw, "ssss", what, who, why, mode);
    SdBusMessagePtr reply(raw);
    if (r < 0) {
        return r;
    }
    return lockFromReply(reply.get(), out);
}

// The unique name that owns logind's name now.
int logindOwner(sd_bus* bus, std::string& out) {
    SdBusError error;
    sd_bus_message* raw = nullptr;
    int r = sd_bus_call_method(bus, kBusDriver, "/org/freedesktop/DBus", kBusDriver, "GetNameOwner",
                               error.get(), &raw, "s", kLogind);
    SdBusMessagePtr reply(raw);
    const char* owner = nullptr;
    if (r >= 0 && (r = sd_bus_message_read(raw, "s", &owner)) >= 0) {
        out = owner;
    }
    return r;
}

// A signal the bus sent to every listener from `sender`: not one addressed
// to this connection alone, which any client may send with any content, and
// which the bus hands over whatever the match rules say.
bool broadcastFrom(sd_bus_message* message, std::string_view sender) {
    const char* from = sd_bus_message_get_sender(message);
    return sd_bus_message_get_destination(message) == nullptr && from != nullptr &&
           !sender.empty() && sender == from;
}

}  // namespace

struct LogindSystemPowerNotifier::Registered {
    // Where the system is between two PrepareForSleep signals.
    enum class Phase {
        Awake,           // the delay lock is held (or being taken again)
        SleepAnnounced,  // will-sleep delivered; the lock waits for the reply
        SleepAllowed,    // the lock is closed; the system may sleep
    };

    Callback callback;
    // Destroyed in reverse order: the slots before the bus they refer to.
    SdBusPtr bus;             // the port; null once destroyed
    SdBusSlotPtr match;       // the notifier; null once deregistered
    SdBusSlotPtr ownerMatch;  // logind's name changing hands
    SdBusSlotPtr retake;      // an Inhibit call in flight after wake
    UniqueFd delayLock;       // the connection's lock
    bool connectionOpen = true;
    // Sleep and wake are taken only from the process that owns logind's
    // name: its unique name, or empty while nobody owns it.
    std::string logindOwner;
    Phase phase = Phase::Awake;
    std::intptr_t announcedSleep = 0;

    void takeDelayLockAgain();
    void prepareForSleep(bool sleeping);
};

namespace {

int onPrepareForSleep(sd_bus_message* message, void* userdata, sd_bus_error* /*error*/) {
    auto* r = static_cast<LogindSystemPowerNotifier::Registered*>(userdata);
    int sleeping = 0;
    if (broadcastFrom(message, r->logindOwner) &&
        sd_bus_message_read(message, "b", &sleeping) >= 0) {
        r->prepareForSleep(sleeping != 0);
    }
    return 0;
}

int onLogindOwnerChanged(sd_bus_message* message, void* userdata, sd_bus_error* /*error*/) {
    auto* r = static_cast<LogindSystemPowerNotifier::Registered*>(userdata);
    const char* name = nullptr;
    const char* before = nullptr;
    const char* after = nullptr;
    if (broadcastFrom(message, kBusDriver) &&
        sd_bus_message_read(message, "sss", &name, &before, &after) >= 0 &&
        std::string_view(name) == kLogind) {
        r->logindOwner = after;
    }
    return 0;
}

int onDelayLockTaken(sd_bus_message* reply, void* userdata, sd_bus_error* /*error*/) {
    auto* r = static_cast<LogindSystemPowerNotifier::Registered*>(userdata);
    r->retake.reset();
    if (sd_bus_message_is_method_error(reply, nullptr) != 0 || !r->connectionOpen) {
        // No lock until the next wake tries again: the next sleep goes
        // ahead without waiting for the services.
        return 0;
    }
    UniqueFd lock;
    if (lockFromReply(reply, lock) < 0) {
        return 0;
    }
    // A sleep announced and allowed meanwhile must not wait for this lock.
    if (r->phase != LogindSystemPowerNotifier::Registered::Phase::SleepAllowed) {
        r->delayLock = std::move(lock);
    }
    return 0;
}

}  // namespace

void LogindSystemPowerNotifier::Registered::takeDelayLockAgain() {
    if (delayLock || retake || !connectionOpen || !bus) {
        return;
    }
    sd_bus_slot* slot = nullptr;
    if (sd_bus_call_method_async(bus.get(), &slot, kLogind, kManagerPath, kManagerInterface,
                                 "Inhibit", onDelayLockTaken, this, "ssss", "sleep", kWho,
                                 kDelayWhy, "delay") >= 0) {
        retake.reset(slot);
    }
}

void LogindSystemPowerNotifier::Registered::prepareForSleep(bool sleeping) {
    // The callback may end the registration; nothing of it is used after.
    const Callback deliver = callback;
    if (sleeping) {
        phase = Phase::SleepAnnounced;
        announcedSleep += 1;
        const std::intptr_t argument = announcedSleep;
        if (deliver) {
            deliver(kSystemWillSleep, argument);
        }
        return;
    }
    // Powered on again, or the sleep was called off: hold the system for the
    // next sleep before anyone hears of the wake.
    phase = Phase::Awake;
    takeDelayLockAgain();
    if (deliver) {
        deliver(kSystemHasPoweredOn, 0);
    }
}

LogindSystemPowerNotifier::LogindSystemPowerNotifier(SdEventQueue& queue, std::string busAddress)
    : queue_(queue), address_(std::move(busAddress)) {}

LogindSystemPowerNotifier::~LogindSystemPowerNotifier() = default;

SystemPowerNotifier::Registration LogindSystemPowerNotifier::registerForSystemPower(
    Callback callback) {
    auto r = std::make_unique<Registered>();
    r->callback = std::move(callback);
    if (connectTo(address_, r->bus) < 0) {
        return {};
    }
    // The matches first: a sleep that starts while the lock is being taken
    // is still heard, and so is a new owner of logind's name.
    sd_bus_slot* slot = nullptr;
    if (sd_bus_add_match(r->bus.get(), &slot, kLogindOwnerMatch, onLogindOwnerChanged, r.get()) <
        0) {
        return {};
    }
    r->ownerMatch.reset(slot);
    if (sd_bus_match_signal(r->bus.get(), &slot, kLogind, kManagerPath, kManagerInterface,
                            "PrepareForSleep", onPrepareForSleep, r.get()) < 0) {
        return {};
    }
    r->match.reset(slot);
    // The owner is asked after the call that may have started logind. A
    // change announced meanwhile is read after the answer, in bus order.
    if (inhibit(r->bus.get(), "sleep", kWho, kDelayWhy, "delay", r->delayLock) < 0 ||
        logindOwner(r->bus.get(), r->logindOwner) < 0) {
        return {};
    }
    const std::uint32_t handle = nextHandle_++;
    registered_.emplace(handle, std::move(r));
    return {handle, handle, handle};
}

LogindSystemPowerNotifier::Registered* LogindSystemPowerNotifier::find(std::uint32_t handle) const {
    auto it = registered_.find(handle);
    return it == registered_.end() ? nullptr : it->second.get();
}

void LogindSystemPowerNotifier::forgetIfDone(std::uint32_t handle) {
    Registered* r = find(handle);
    if (r != nullptr && !r->bus && !r->match && !r->connectionOpen) {
        registered_.erase(handle);
    }
}

void LogindSystemPowerNotifier::setDispatchQueue(std::uint32_t port, MainQueue& /*queue*/) {
    Registered* r = find(port);
    if (r != nullptr && r->bus && sd_bus_get_event(r->bus.get()) == nullptr) {
        (void)sd_bus_attach_event(r->bus.get(), queue_.event(), SD_EVENT_PRIORITY_NORMAL);
    }
}

void LogindSystemPowerNotifier::deregister(std::uint32_t notifier) {
    if (Registered* r = find(notifier)) {
        r->match.reset();
        r->ownerMatch.reset();
        forgetIfDone(notifier);
    }
}

void LogindSystemPowerNotifier::destroyPort(std::uint32_t port) {
    if (Registered* r = find(port)) {
        r->match.reset();
        r->ownerMatch.reset();
        r->retake.reset();
        if (r->bus) {
            (void)sd_bus_detach_event(r->bus.get());
        }
        r->bus.reset();
        forgetIfDone(port);
    }
}

void LogindSystemPowerNotifier::closeConnection(std::uint32_t connection) {
    if (Registered* r = find(connection)) {
        r->retake.reset();
        r->delayLock.reset();
        r->connectionOpen = false;
        forgetIfDone(connection);
    }
}

void LogindSystemPowerNotifier::allowPowerChange(std::uint32_t connection, std::intptr_t argument) {
    Registered* r = find(connection);
    // Only the reply to the sleep that is announced now lets it go; a late
    // reply to an earlier one must not give away the lock for the next.
    if (r == nullptr || r->phase != Registered::Phase::SleepAnnounced ||
        argument != r->announcedSleep) {
        return;
    }
    r->delayLock.reset();
    r->phase = Registered::Phase::SleepAllowed;
}

bool LogindSystemPowerNotifier::holdsSleepDelay(std::uint32_t connection) const {
    const Registered* r = find(connection);
    return r != nullptr && r->delayLock.valid();
}

LogindPowerAssertions::LogindPowerAssertions(std::string busAddress)
    : address_(std::move(busAddress)) {}

int LogindPowerAssertions::createAssertion(const plist::Value& properties, std::uint32_t& id) {
    id = 0;
    const std::string* name = properties.stringAt("AssertName");
    const std::string* type = properties.stringAt("AssertType");
    if (name == nullptr || type == nullptr) {
        return -EINVAL;
    }
    // One connection per assertion: they are few, and the lock outlives the
    // connection that took it.
    SdBusPtr bus;
    int r = connectTo(address_, bus);
    if (r < 0) {
        return r;
    }
    UniqueFd lock;
    // "idle" only: it keeps an idle machine awake, as the assertion's name
    // says, and still lets a user suspend it on purpose.
    r = inhibit(bus.get(), "idle", name->c_str(), type->c_str(), "block", lock);
    if (r < 0) {
        return r;
    }
    std::lock_guard guard(mutex_);
    while (nextId_ == 0 || locks_.count(nextId_) != 0) {
        ++nextId_;
    }
    id = nextId_++;
    locks_.emplace(id, std::move(lock));
    return 0;
}

int LogindPowerAssertions::releaseAssertion(std::uint32_t id) {
    std::lock_guard guard(mutex_);
    return locks_.erase(id) != 0 ? 0 : -ENOENT;
}

}  // namespace tessary::linux_backend
