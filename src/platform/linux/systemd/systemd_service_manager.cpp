#include "platform/linux/systemd/systemd_service_manager.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <thread>
#include <vector>

#include "base/unique_fd.h"
#include "platform/linux/sd_handles.h"
#include "platform/linux/systemd/sd_bus_values.h"
#include "platform/linux/systemd/unit_translation.h"

namespace tessary::linux_backend {

namespace {

constexpr const char* kDestination = "org.freedesktop.systemd1";
constexpr const char* kManagerPath = "/org/freedesktop/systemd1";
constexpr const char* kManagerInterface = "org.freedesktop.systemd1.Manager";
constexpr const char* kUnitInterface = "org.freedesktop.systemd1.Unit";
constexpr const char* kServiceInterface = "org.freedesktop.systemd1.Service";
constexpr const char* kDomain = "SystemdServiceManager";

// The manager's own sentence when it sent one, else the errno text; the
// domain is the D-Bus error name, so that a caller can tell them apart.
Error busFailure(const std::string& what, int r, const SdBusError& error) {
    std::string text = what + ": ";
    std::string domain = "NSPOSIXErrorDomain";
    if (error.isSet()) {
        text += error.message() != nullptr ? error.message() : error.name();
        domain = error.name();
    } else {
        text += std::strerror(-r);
    }
    return Error{std::move(domain), -r, std::move(text)};
}

// Whether a call failed because the connection went, not because of what it
// asked.
bool connectionLost(const Error& error) {
    return error.domain == "NSPOSIXErrorDomain" &&
           (error.code == ECONNRESET || error.code == ENOTCONN || error.code == EPIPE);
}

// Exit statuses systemd itself uses when it cannot set up or execute a
// process; the ones a job is likely to hit.
const char* setupStatusName(int status) {
    switch (status) {
        case 200:
            return "CHDIR";
        case 203:
            return "EXEC";
        case 208:
            return "STDIN";
        case 209:
            return "STDOUT";
        case 210:
            return "CHROOT";
        case 216:
            return "GROUP";
        case 217:
            return "USER";
        case 222:
            return "STDERR";
        default:
            return nullptr;
    }
}

int openManagerBus(const std::string& address, SdBusPtr& out) {
    return openBus(address, false, {}, out);
}

Error unreachable(const std::string& address, int r) {
    return Error::posix(-r, "Unable to connect to the service manager at " + address);
}

struct UnitState {
    std::string path;
    std::string loadState;
    std::string activeState;
    // Loaded, or still running from a file that is gone. A unit that failed
    // and has no file left is only a record of that failure.
    bool present() const {
        return loadState == "loaded" || (activeState != "inactive" && activeState != "failed");
    }
};

// Results of finished jobs ("done", "failed", ...) by job path.
using JobResults = std::map<std::string, std::string>;

// Records a JobRemoved signal into the JobResults at `userdata`.
int recordJobRemoved(sd_bus_message* m, void* userdata, sd_bus_error* /*error*/) {
    uint32_t id = 0;
    const char* job = nullptr;
    const char* unit = nullptr;
    const char* result = nullptr;
    if (sd_bus_message_read(m, "uoss", &id, &job, &unit, &result) >= 0) {
        static_cast<JobResults*>(userdata)->insert_or_assign(job, result);
    }
    return 0;
}

}  // namespace

// A connection to the manager that the threads other than the kept
// connection's use together (see the class comment in the header). Each
// thread sends its own calls; whichever of the waiting threads finds nobody
// reading reads for all of them, and the others wait to be told. Every use
// of the sd-bus objects, building and reading messages included, happens
// under the one lock.
class SharedManagerConnection {
  public:
    using Build = std::function<int(sd_bus_message*)>;
    using Parse = std::function<void(sd_bus_message*)>;

    static Result<std::shared_ptr<SharedManagerConnection>> open(const std::string& address) {
        auto connection = std::make_shared<SharedManagerConnection>();
        if (const int r = openManagerBus(address, connection->bus_); r < 0) {
            return unreachable(address, r);
        }
        connection->wake_.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
        if (!connection->wake_) {
            return Error::posix(errno, "Unable to make an event descriptor");
        }
        // Every job's end is recorded from the start, so that none can slip
        // by between a call that makes a job and the wait for it; the manager
        // sends JobRemoved to its private connections without a Subscribe.
        sd_bus_slot* raw = nullptr;
        if (const int r = sd_bus_match_signal(connection->bus_.get(), &raw, nullptr, kManagerPath,
                                              kManagerInterface, "JobRemoved", &recordJobRemoved,
                                              &connection->finished_);
            r < 0) {
            return Error::posix(-r, "Unable to watch the service manager's jobs");
        }
        connection->match_.reset(raw);
        return connection;
    }

    // Whether it can still be handed to an operation.
    bool usable() {
        std::lock_guard lock(mutex_);
        return failure_ == 0 && sd_bus_is_open(bus_.get()) > 0;
    }

    // As sd_bus_call: >= 0 once `parse` has read the answer; else the negative
    // errno, with `error` set when the manager answered with one.
    int call(const char* path, const char* interface, const char* member, sd_bus_error* error,
             const Build& build, const Parse& parse) {
        std::unique_lock lock(mutex_);
        if (failure_ < 0) {
            return failure_;
        }
        Pending pending{parse, error, bus_.get()};
        sd_bus_message* rawCall = nullptr;
        int r = sd_bus_message_new_method_call(bus_.get(), &rawCall, kDestination, path, interface,
                                               member);
        SdBusMessagePtr message(rawCall);
        if (r >= 0 && build) {
            r = build(rawCall);
        }
        sd_bus_slot* rawSlot = nullptr;
        if (r >= 0) {
            r = sd_bus_call_async(bus_.get(), &rawSlot, rawCall, &onReply, &pending, 0);
        }
        SdBusSlotPtr slot(rawSlot);
        message.reset();
        if (r < 0) {
            return r;
        }
        wakeReader();
        r = waitUntil(lock, [&] { return pending.done; });
        slot.reset();
        return pending.done ? pending.r : r;
    }

    // Waits until every job in `jobs` has ended; their results by job path.
    Result<JobResults> waitForJobs(const std::vector<std::string>& jobs) {
        std::unique_lock lock(mutex_);
        const int r = waitUntil(lock, [&] {
            return std::all_of(jobs.begin(), jobs.end(),
                               [&](const std::string& job) { return finished_.count(job) != 0; });
        });
        if (r < 0) {
            return Error::posix(-r, "Lost the service manager while waiting for its jobs");
        }
        JobResults results;
        for (const auto& job : jobs) {
            results.insert(finished_.extract(job));
        }
        return results;
    }

  private:
    struct Pending {
        const Parse& parse;
        sd_bus_error* error;
        sd_bus* bus;
        bool done = false;
        int r = 0;
    };

    static int onReply(sd_bus_message* m, void* userdata, sd_bus_error* /*error*/) {
        auto* pending = static_cast<Pending*>(userdata);
        if (const sd_bus_error* e = sd_bus_message_get_error(m); e != nullptr) {
            if (sd_bus_is_open(pending->bus) <= 0) {
                // The answer sd-bus makes up for a call the closed connection
                // took with it: told as sd_bus_call tells a lost connection.
                pending->r = -ECONNRESET;
            } else {
                pending->r = sd_bus_error_copy(pending->error, e);
                if (pending->r >= 0) {
                    pending->r = -EIO;
                }
            }
        } else {
            pending->parse(m);
            pending->r = 1;
        }
        pending->done = true;
        return 0;
    }

    // A reader waiting in poll learns of what was just sent: a new call may
    // have left bytes to write or brought a nearer time limit.
    void wakeReader() {
        if (reading_) {
            const std::uint64_t one = 1;
            (void)!::write(wake_.get(), &one, sizeof one);
        }
    }

    // Until `done` holds: reads for every waiting thread when no other does,
    // else waits to be told that something was read. 0, or the negative errno
    // that ended the connection.
    template <class Done>
    int waitUntil(std::unique_lock<std::mutex>& lock, Done done) {
        while (!done()) {
            if (failure_ < 0) {
                return failure_;
            }
            if (reading_) {
                changed_.wait(lock);
                continue;
            }
            reading_ = true;
            while (!done() && failure_ == 0) {
                int r = 0;
                bool processed = false;
                while ((r = sd_bus_process(bus_.get(), nullptr)) > 0) {
                    processed = true;
                }
                if (processed) {
                    changed_.notify_all();
                }
                if (r >= 0 && !done()) {
                    r = poll(lock);
                }
                if (r < 0) {
                    failure_ = r;
                }
            }
            // Another waiting thread takes over the reading.
            reading_ = false;
            changed_.notify_all();
        }
        return 0;
    }

    // Waits, without the lock, until the connection has something to do or a
    // sender woke it.
    int poll(std::unique_lock<std::mutex>& lock) {
        const int fd = sd_bus_get_fd(bus_.get());
        const int events = sd_bus_get_events(bus_.get());
        std::uint64_t until = UINT64_MAX;
        int r = sd_bus_get_timeout(bus_.get(), &until);
        if (fd < 0 || events < 0 || r < 0) {
            return fd < 0 ? fd : events < 0 ? events : r;
        }
        timespec wait{};
        timespec* timeout = nullptr;
        if (until != UINT64_MAX) {
            timespec now{};
            ::clock_gettime(CLOCK_MONOTONIC, &now);
            const std::uint64_t nowUsec = static_cast<std::uint64_t>(now.tv_sec) * 1000000U +
                                          static_cast<std::uint64_t>(now.tv_nsec) / 1000U;
            const std::uint64_t left = until > nowUsec ? until - nowUsec : 0;
            wait.tv_sec = static_cast<time_t>(left / 1000000U);
            wait.tv_nsec = static_cast<long>((left % 1000000U) * 1000U);
            timeout = &wait;
        }
        pollfd fds[2] = {{fd, static_cast<short>(events), 0}, {wake_.get(), POLLIN, 0}};
        lock.unlock();
        r = ::ppoll(fds, 2, timeout, nullptr);
        const int err = errno;
        lock.lock();
        if (r < 0) {
            return err == EINTR ? 0 : -err;
        }
        if ((fds[1].revents & POLLIN) != 0) {
            std::uint64_t count = 0;
            (void)!::read(wake_.get(), &count, sizeof count);
        }
        return 0;
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    SdBusPtr bus_;
    UniqueFd wake_;
    JobResults finished_;
    bool reading_ = false;
    int failure_ = 0;     // the negative errno that ended the connection
    SdBusSlotPtr match_;  // declared last: released first
};

namespace {

// A connection to the manager as one operation on one thread uses it: the
// manager's kept one, borrowed, or the one the other threads share.
class ManagerBus {
  public:
    static ManagerBus borrow(sd_bus* kept) { return ManagerBus(kept, nullptr); }
    static ManagerBus share(std::shared_ptr<SharedManagerConnection> shared) {
        return ManagerBus(nullptr, std::move(shared));
    }

    // The unit's object, loading it from its file if the manager does not
    // have it yet.
    Result<std::string> loadUnit(const std::string& unit) {
        SdBusError error;
        std::string path;
        int q = 0;
        const int r = call(
            kManagerPath, kManagerInterface, "LoadUnit", error,
            [&](sd_bus_message* m) { return sd_bus_message_append(m, "s", unit.c_str()); },
            [&](sd_bus_message* reply) { q = readString(reply, "o", path); });
        if (r < 0) {
            return busFailure("Unable to load " + unit, r, error);
        }
        if (q < 0) {
            return Error::posix(-q, "Unexpected reply loading " + unit);
        }
        return path;
    }

    // The manager's view of each of `units`, which it loads from their files
    // first if it does not have them: one call for all of them, where LoadUnit
    // and two properties take three for each.
    Result<std::vector<UnitState>> unitStates(const std::vector<std::string>& units) {
        auto listed = listUnits("ListUnitsByNames", units);
        if (!listed) {
            return listed.error();
        }
        if (listed.value().size() != units.size()) {
            return Error::posix(EBADMSG, "Unexpected reply to load " + describe(units));
        }
        std::vector<UnitState> states;
        states.reserve(units.size());
        for (auto& [name, state] : listed.value()) {
            states.push_back(std::move(state));
        }
        return states;
    }

    // The manager's view of each of `units` as it has them in memory, loading
    // none: one it does not have comes back as neither loaded nor running,
    // with no object path. Asked by name, a unit the manager does not have
    // makes it look for the unit's file in every unit directory, and, once
    // one of them has changed since it last looked (as every removal changes
    // ours), read them all again first; a stop of many jobs at once would
    // keep the manager busy with that while the stops wait to be queued.
    Result<std::vector<UnitState>> unitStatesInMemory(const std::vector<std::string>& units) {
        // Exact names as patterns; the answer is matched by name below, so a
        // wildcard that stands for a character patterns give a meaning to can
        // only widen it.
        std::vector<std::string> patterns;
        patterns.reserve(units.size());
        for (std::string unit : units) {
            std::replace_if(
                unit.begin(), unit.end(),
                [](char c) { return c == '*' || c == '?' || c == '[' || c == '\\'; }, '?');
            patterns.push_back(std::move(unit));
        }
        auto listed = listUnits("ListUnitsByPatterns", patterns, true);
        if (!listed) {
            return listed.error();
        }
        std::vector<UnitState> states(units.size(), UnitState{{}, {}, "inactive"});
        for (std::size_t i = 0; i < units.size(); ++i) {
            for (auto& [name, state] : listed.value()) {
                if (name == units[i]) {
                    states[i] = std::move(state);
                    break;
                }
            }
        }
        return states;
    }

    Result<UnitState> unitState(const std::string& unit) {
        auto states = unitStates({unit});
        if (!states) {
            return states.error();
        }
        return states.value().front();
    }

    Result<std::string> stringProperty(const std::string& path, const char* interface,
                                       const char* name) {
        SdBusError error;
        std::string value;
        int q = 0;
        const int r = getProperty(path, interface, name, "s", error,
                                  [&](sd_bus_message* m) { q = readString(m, "s", value); });
        if (r < 0) {
            return busFailure(std::string("Unable to read ") + name + " of " + path, r, error);
        }
        if (q < 0) {
            return Error::posix(-q, std::string("Unexpected value of ") + name + " of " + path);
        }
        return value;
    }

    Result<std::vector<std::string>> stringsProperty(const std::string& path, const char* interface,
                                                     const char* name) {
        SdBusError error;
        std::vector<std::string> value;
        int q = 0;
        const int r = getProperty(path, interface, name, "as", error, [&](sd_bus_message* m) {
            MallocStringVector strv;
            q = sd_bus_message_read_strv(m, strv.out());
            value = strv.strings();
        });
        if (r < 0) {
            return busFailure(std::string("Unable to read ") + name + " of " + path, r, error);
        }
        if (q < 0) {
            return Error::posix(-q, std::string("Unexpected value of ") + name + " of " + path);
        }
        return value;
    }

    template <class T>
    Result<T> trivialProperty(const std::string& path, const char* interface, const char* name,
                              char type) {
        SdBusError error;
        T value{};
        int q = 0;
        const char contents[2] = {type, '\0'};
        const int r = getProperty(path, interface, name, contents, error, [&](sd_bus_message* m) {
            q = sd_bus_message_read_basic(m, type, &value);
        });
        if (r < 0) {
            return busFailure(std::string("Unable to read ") + name + " of " + path, r, error);
        }
        if (q <= 0) {
            return Error::posix(q < 0 ? -q : EBADMSG,
                                std::string("Unexpected value of ") + name + " of " + path);
        }
        return value;
    }

    // The manager's reason for a unit that did not load, as "(ss)".
    std::string loadError(const std::string& path) {
        SdBusError error;
        std::string name;
        std::string message;
        int q = -EBADMSG;
        const int r =
            getProperty(path, kUnitInterface, "LoadError", "(ss)", error, [&](sd_bus_message* m) {
                const char* n = nullptr;
                const char* text = nullptr;
                q = sd_bus_message_read(m, "(ss)", &n, &text);
                name = n != nullptr ? n : "";
                message = text != nullptr ? text : "";
            });
        if (r < 0 || q < 0) {
            return "no reason given";
        }
        return !message.empty() ? message : name;
    }

    // Queues a start or stop job and returns its object path.
    Result<std::string> enqueue(const char* method, const std::string& unit) {
        SdBusError error;
        std::string job;
        int q = 0;
        const int r = call(
            kManagerPath, kManagerInterface, method, error,
            [&](sd_bus_message* m) {
                return sd_bus_message_append(m, "ss", unit.c_str(), "replace");
            },
            [&](sd_bus_message* reply) { q = readString(reply, "o", job); });
        if (r < 0) {
            return busFailure(std::string(method) + " " + unit, r, error);
        }
        if (q < 0) {
            return Error::posix(-q, std::string("Unexpected reply to ") + method + " " + unit);
        }
        return job;
    }

    Status managerCall(const char* method, const std::string& unit = {}) {
        SdBusError error;
        const int r = call(
            kManagerPath, kManagerInterface, method, error,
            [&](sd_bus_message* m) {
                return unit.empty() ? 0 : sd_bus_message_append(m, "s", unit.c_str());
            },
            [](sd_bus_message* /*reply*/) {});
        if (r < 0) {
            return busFailure(unit.empty() ? std::string(method) : method + (" " + unit), r, error);
        }
        return {};
    }

    // From here on every finished job is recorded. Installed before the call
    // that makes a job, so that its end cannot slip by; the manager sends
    // JobRemoved to its private connections without a Subscribe. The shared
    // connection records them from its start.
    Status watchJobs() {
        if (shared_) {
            return {};
        }
        sd_bus_slot* raw = nullptr;
        const int r = sd_bus_match_signal(bus_, &raw, nullptr, kManagerPath, kManagerInterface,
                                          "JobRemoved", &recordJobRemoved, finished_.get());
        if (r < 0) {
            return Error::posix(-r, "Unable to watch the service manager's jobs");
        }
        match_.reset(raw);
        return {};
    }

    // Waits until every job in `jobs` has ended; their results ("done",
    // "failed", ...) by job path.
    Result<std::map<std::string, std::string>> waitForJobs(const std::vector<std::string>& jobs) {
        if (shared_) {
            return shared_->waitForJobs(jobs);
        }
        for (;;) {
            std::map<std::string, std::string> results;
            for (const auto& job : jobs) {
                if (auto it = finished_->find(job); it != finished_->end()) {
                    results.insert(*it);
                }
            }
            if (results.size() == jobs.size()) {
                return results;
            }
            int r = sd_bus_process(bus_, nullptr);
            if (r > 0) {
                continue;
            }
            if (r == 0) {
                r = sd_bus_wait(bus_, UINT64_MAX);
            }
            if (r < 0 && r != -EINTR) {
                return Error::posix(-r, "Lost the service manager while waiting for its jobs");
            }
        }
    }

  private:
    ManagerBus(sd_bus* bus, std::shared_ptr<SharedManagerConnection> shared)
        : bus_(bus), shared_(std::move(shared)), finished_(new JobResults) {}

    static std::string describe(const std::vector<std::string>& units) {
        return units.size() == 1 ? units.front() : "units";
    }

    // One method call of the manager's, as sd_bus_call reports it: `build`
    // adds the arguments, `parse` reads the answer (only when there is one).
    int call(const char* path, const char* interface, const char* member, SdBusError& error,
             const SharedManagerConnection::Build& build,
             const SharedManagerConnection::Parse& parse) {
        if (shared_) {
            return shared_->call(path, interface, member, error.get(), build, parse);
        }
        sd_bus_message* rawCall = nullptr;
        int r =
            sd_bus_message_new_method_call(bus_, &rawCall, kDestination, path, interface, member);
        SdBusMessagePtr message(rawCall);
        if (r >= 0) {
            r = build(rawCall);
        }
        sd_bus_message* rawReply = nullptr;
        if (r >= 0) {
            r = sd_bus_call(bus_, rawCall, 0, error.get(), &rawReply);
        }
        SdBusMessagePtr reply(rawReply);
        if (r >= 0) {
            parse(rawReply);
        }
        return r;
    }

    // Properties.Get of one property, whose value `read` reads once it is
    // entered as a variant holding `contents`.
    int getProperty(const std::string& path, const char* interface, const char* name,
                    const char* contents, SdBusError& error,
                    const std::function<void(sd_bus_message*)>& read) {
        return call(
            path.c_str(), "org.freedesktop.DBus.Properties", "Get", error,
            [&](sd_bus_message* m) { return sd_bus_message_append(m, "ss", interface, name); },
            [&](sd_bus_message* reply) {
                if (sd_bus_message_enter_container(reply, 'v', contents) > 0) {
                    read(reply);
                } else {
                    read(nullptr);
                }
            });
    }

    // Reads one string of type `type` ("s", "o") into `out`.
    static int readString(sd_bus_message* m, const char* type, std::string& out) {
        if (m == nullptr) {
            return -EBADMSG;
        }
        const char* value = nullptr;
        const int r = sd_bus_message_read(m, type, &value);
        if (r > 0 && value != nullptr) {
            out = value;
        }
        return r > 0 ? 0 : r < 0 ? r : -EBADMSG;
    }

    // The units a ListUnits method answers for `names`, each with its name,
    // in the order of the answer. `statesFirst`: the method takes a list of
    // active states (left empty: any) before the names.
    Result<std::vector<std::pair<std::string, UnitState>>> listUnits(
        const char* method, const std::vector<std::string>& names, bool statesFirst = false) {
        const std::string what = (statesFirst ? "look up " : "load ") + describe(names);
        std::vector<const char*> strv;
        strv.reserve(names.size() + 1);
        for (const auto& name : names) {
            strv.push_back(name.c_str());
        }
        strv.push_back(nullptr);
        SdBusError error;
        std::vector<std::pair<std::string, UnitState>> units;
        int q = 0;
        const int r = call(
            kManagerPath, kManagerInterface, method, error,
            [&](sd_bus_message* m) {
                const char* anyState[] = {nullptr};
                const int a =
                    statesFirst ? sd_bus_message_append_strv(m, const_cast<char**>(anyState)) : 0;
                return a < 0 ? a : sd_bus_message_append_strv(m, const_cast<char**>(strv.data()));
            },
            [&](sd_bus_message* reply) {
                if (sd_bus_message_enter_container(reply, 'a', "(ssssssouso)") <= 0) {
                    q = -EBADMSG;
                    return;
                }
                for (;;) {
                    const char* strings[6] = {};
                    const char* path = nullptr;
                    std::uint32_t jobId = 0;
                    const char* jobType = nullptr;
                    const char* jobPath = nullptr;
                    const int e = sd_bus_message_read(
                        reply, "(ssssssouso)", &strings[0], &strings[1], &strings[2], &strings[3],
                        &strings[4], &strings[5], &path, &jobId, &jobType, &jobPath);
                    if (e <= 0) {
                        q = e < 0 ? -EBADMSG : 0;
                        return;
                    }
                    units.emplace_back(strings[0], UnitState{path, strings[2], strings[3]});
                }
            });
        if (r < 0) {
            return busFailure("Unable to " + what, r, error);
        }
        if (q < 0) {
            return Error::posix(EBADMSG, "Unexpected reply to " + what);
        }
        return units;
    }

    sd_bus* bus_;                                      // the kept connection, when borrowed
    std::shared_ptr<SharedManagerConnection> shared_;  // else the shared one
    std::unique_ptr<JobResults> finished_;             // stays put when the connection is moved
    SdBusSlotPtr match_;                               // declared last: released first
};

// The kept connection on the thread that made the manager, else the one
// the other threads share.
Result<ManagerBus> managerBus(
    const Result<sd_bus*>& kept,
    const std::function<Result<std::shared_ptr<SharedManagerConnection>>()>& shared) {
    if (!kept) {
        return kept.error();
    }
    if (kept.value() != nullptr) {
        return ManagerBus::borrow(kept.value());
    }
    auto connection = shared();
    if (!connection) {
        return connection.error();
    }
    return ManagerBus::share(std::move(connection.value()));
}

Result<UnitState> unitState(ManagerBus& bus, const std::string& unit) {
    return bus.unitState(unit);
}

// Why a start job did not end in "done", with what the manager knows of the
// unit's end.
std::string startFailure(ManagerBus& bus, const std::string& unit, const std::string& path,
                         const std::string& jobResult) {
    std::string text = "Job for " + unit + " failed (job result: " + jobResult;
    if (auto result = bus.stringProperty(path, kUnitInterface, "ActiveState")) {
        text += "; state: " + result.value();
    }
    const bool isService = unit.size() > 8 && unit.ends_with(".service");
    const char* interface = isService                   ? kServiceInterface
                            : unit.ends_with(".socket") ? "org.freedesktop.systemd1.Socket"
                                                        : "org.freedesktop.systemd1.Timer";
    if (auto result = bus.stringProperty(path, interface, "Result"); result.ok()) {
        text += "; unit result: " + result.value();
    }
    if (isService) {
        auto code = bus.trivialProperty<int32_t>(path, kServiceInterface, "ExecMainCode", 'i');
        auto status = bus.trivialProperty<int32_t>(path, kServiceInterface, "ExecMainStatus", 'i');
        if (code.ok() && status.ok() && code.value() != 0) {
            if (code.value() == 1) {  // CLD_EXITED
                text += "; main process exited with status " + std::to_string(status.value());
                if (const char* name = setupStatusName(status.value())) {
                    text += std::string("/") + name;
                }
            } else {
                text += "; main process killed by signal " + std::to_string(status.value());
            }
        }
    }
    return text + ")";
}

// Writes a unit file so that the manager sees the old file or the new one,
// never a part: a hidden temporary file beside it (the manager skips hidden
// files), flushed, renamed over it.
Status writeUnitFile(const std::string& directory, const UnitFile& unit) {
    const std::string target = directory + "/" + unit.name;
    std::string temp = directory + "/." + unit.name + ".XXXXXX";
    UniqueFd fd(::mkostemp(temp.data(), O_CLOEXEC));
    if (!fd) {
        return Error::posix(errno, "Unable to write the unit file '" + target + "'");
    }
    const char* data = unit.text.data();
    std::size_t left = unit.text.size();
    int err = 0;
    while (left > 0 && err == 0) {
        const ssize_t n = ::write(fd.get(), data, left);
        if (n < 0) {
            err = errno == EINTR ? 0 : errno;
            continue;
        }
        data += n;
        left -= static_cast<std::size_t>(n);
    }
    if (err == 0 && (::fchmod(fd.get(), 0644) != 0 || ::fsync(fd.get()) != 0)) {
        err = errno;
    }
    if (::close(fd.release()) != 0 && err == 0) {
        err = errno;
    }
    if (err == 0 && ::rename(temp.c_str(), target.c_str()) != 0) {
        err = errno;
    }
    if (err != 0) {
        ::unlink(temp.c_str());
        return Error::posix(err, "Unable to write the unit file '" + target + "'");
    }
    return {};
}

Status removeUnitFile(const std::string& directory, const std::string& name) {
    const std::string path = directory + "/" + name;
    if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
        return Error::posix(errno, "Unable to delete the unit file '" + path + "'");
    }
    return {};
}

bool unitFileExists(const std::string& directory, const std::string& name) {
    struct stat st {};
    return ::lstat((directory + "/" + name).c_str(), &st) == 0;
}

// One directory whatever path names it: the manager may see a unit directory
// through another path than ours (a bind mount).
bool sameDirectory(const std::string& a, const std::string& b) {
    if (a == b) {
        return true;
    }
    struct stat sa {};
    struct stat sb {};
    return ::stat(a.c_str(), &sa) == 0 && ::stat(b.c_str(), &sb) == 0 && sa.st_dev == sb.st_dev &&
           sa.st_ino == sb.st_ino;
}

// The directory of a unit's file when the file is named for the unit, as the
// files the backend and the generator write are; else empty.
std::string directoryOf(const std::string& unit, const std::string& fragment) {
    const auto slash = fragment.rfind('/');
    if (slash == std::string::npos || slash == 0 ||
        fragment.compare(slash + 1, std::string::npos, unit) != 0) {
        return {};
    }
    return fragment.substr(0, slash);
}

bool generatedUnit(const SystemdServiceManagerOptions& options, const std::string& unit) {
    const std::string& label = options.generatedLabel;
    return !label.empty() && unit.size() > label.size() && unit.starts_with(label) &&
           (unit[label.size()] == '.' || unit[label.size()] == '-');
}

// Whether the manager's file for `unit` is one of the backend's.
bool ownFragment(const SystemdServiceManagerOptions& options, const std::string& unit,
                 const std::string& fragment) {
    // The daemon's own unit runs on without a file once the generators have
    // run again after its definition was removed (a demotion's Reload): it
    // is still the one the generator made, and still to be stopped.
    if (fragment.empty()) {
        return generatedUnit(options, unit);
    }
    const std::string directory = directoryOf(unit, fragment);
    if (directory.empty()) {
        return false;
    }
    return sameDirectory(directory, options.unitDirectory) ||
           (generatedUnit(options, unit) && sameDirectory(directory, options.generatorDirectory));
}

bool inGeneratorDirectory(const SystemdServiceManagerOptions& options, const std::string& unit,
                          const std::string& fragment) {
    const std::string directory = directoryOf(unit, fragment);
    return !directory.empty() && sameDirectory(directory, options.generatorDirectory);
}

// The manager's view of `units` without making it look for files of those
// it does not have (see unitStatesInMemory), except that each unit for which
// `byName` holds and that the manager does not have loaded is asked by name,
// which loads it from its file if there is one.
template <class ByName>
Result<std::vector<UnitState>> statesLoadingOnly(ManagerBus& bus,
                                                 const std::vector<std::string>& units,
                                                 ByName byName) {
    auto states = bus.unitStatesInMemory(units);
    if (!states) {
        return states;
    }
    for (std::size_t i = 0; i < units.size(); ++i) {
        if (states.value()[i].loadState != "loaded" && byName(units[i])) {
            auto state = bus.unitState(units[i]);
            if (!state) {
                return state.error();
            }
            states.value()[i] = std::move(state.value());
        }
    }
    return states;
}

enum class Origin {
    None,     // neither loaded nor running, or from a file of ours that did not load
    Own,      // loaded or running from a file of ours, even one that is gone
    Foreign,  // from anywhere else, or running with no file at all
};

struct UnitOrigin {
    Origin origin = Origin::None;
    std::string fragment;
};

// Whose `unit` is. With `anyFile`, a unit that did not load from a file
// elsewhere (masked, a bad setting) is another's too: a file of ours of that
// name would shadow it or be shadowed. The manager's FragmentPath is asked
// only when there is something to tell.
Result<UnitOrigin> originOf(ManagerBus& bus, const SystemdServiceManagerOptions& options,
                            const std::string& unit, const UnitState& state, bool anyFile) {
    const bool present = state.present();
    if (!present && (!anyFile || state.loadState == "not-found")) {
        return UnitOrigin{};
    }
    auto fragment = bus.stringProperty(state.path, kUnitInterface, "FragmentPath");
    if (!fragment) {
        return fragment.error();
    }
    if (ownFragment(options, unit, fragment.value())) {
        return UnitOrigin{present ? Origin::Own : Origin::None, fragment.value()};
    }
    return UnitOrigin{Origin::Foreign, fragment.value()};
}

std::string foreignUnit(const std::string& unit, const UnitOrigin& origin) {
    return origin.fragment.empty() ? unit + ", which runs without a unit file"
                                   : unit + " from '" + origin.fragment + "'";
}

// Makes sure the manager no longer has any of `units` (the job's own, their
// stops finished and their files gone) loaded. The manager drops a stopped
// unit without a file by itself; one that something still refers to stays in
// its memory, loaded from its deleted file (NeedDaemonReload), and a unit
// made by the generator stays until the generator runs again: those two, and
// only those, need a Reload. A unit of that name that the manager now has
// from a file elsewhere is not the job's.
Status ensureUnloaded(ManagerBus& bus, const SystemdServiceManagerOptions& options,
                      const std::vector<std::string>& units) {
    for (int attempt = 0; attempt < 2; ++attempt) {
        bool reload = false;
        // A unit the manager does not have is not loaded; only the
        // generator's file, which stays, could bring one back.
        auto states = units.empty() ? Result<std::vector<UnitState>>(std::vector<UnitState>{})
                                    : statesLoadingOnly(bus, units, [&](const std::string& unit) {
                                          return generatedUnit(options, unit);
                                      });
        if (!states) {
            return states.error();
        }
        for (std::size_t i = 0; i < units.size(); ++i) {
            const std::string& unit = units[i];
            const UnitState& state = states.value()[i];
            if (state.loadState != "loaded") {
                continue;
            }
            auto fragment = bus.stringProperty(state.path, kUnitInterface, "FragmentPath");
            if (fragment.ok() && !ownFragment(options, unit, fragment.value())) {
                continue;
            }
            auto stale =
                bus.trivialProperty<int>(state.path, kUnitInterface, "NeedDaemonReload", 'b');
            const bool generated =
                fragment.ok() && inGeneratorDirectory(options, unit, fragment.value());
            if (((stale.ok() && stale.value() != 0) || generated) && attempt == 0) {
                reload = true;
                continue;
            }
            return Error{kDomain, EBUSY,
                         "The service manager still has " + unit + " loaded after removal" +
                             (fragment.ok() ? " (from '" + fragment.value() + "')" : "")};
        }
        if (!reload) {
            return {};
        }
        if (Status s = bus.managerCall("Reload"); !s) {
            return s;
        }
    }
    return {};
}

// Loads freshly written units. A new file loads by itself; one that replaces
// a file the manager had read needs a Reload, which the manager asks for
// through NeedDaemonReload. Fails with the manager's reason when a unit does
// not load.
Status loadUnits(ManagerBus& bus, const std::vector<std::string>& units) {
    for (int attempt = 0; attempt < 2; ++attempt) {
        bool reload = false;
        for (const auto& unit : units) {
            auto path = bus.loadUnit(unit);
            if (!path) {
                return path.error();
            }
            auto stale =
                bus.trivialProperty<int>(path.value(), kUnitInterface, "NeedDaemonReload", 'b');
            if (!stale) {
                return stale.error();
            }
            if (stale.value() != 0 && attempt == 0) {
                reload = true;
                continue;
            }
            auto load = bus.stringProperty(path.value(), kUnitInterface, "LoadState");
            if (!load) {
                return load.error();
            }
            if (load.value() != "loaded") {
                return Error{kDomain, EINVAL,
                             "The service manager did not load " + unit + " (" + load.value() +
                                 "): " + bus.loadError(path.value())};
            }
        }
        if (!reload) {
            return {};
        }
        if (Status s = bus.managerCall("Reload"); !s) {
            return s;
        }
    }
    return {};
}

Error notAuthorized(std::string_view what) {
    return Error{kDomain, EPERM,
                 "Not authorized to " + std::string(what) +
                     " system jobs: the authorization could not be obtained"};
}

}  // namespace

// Operations on one label run one at a time; different labels never wait
// for each other.
class SystemdServiceManager::LabelGuard {
  public:
    LabelGuard(SystemdServiceManager& manager, std::string label)
        : manager_(manager), label_(std::move(label)) {
        std::unique_lock lock(manager_.busyMutex_);
        manager_.busyChanged_.wait(lock, [&] { return manager_.busyLabels_.count(label_) == 0; });
        manager_.busyLabels_.insert(label_);
    }
    ~LabelGuard() {
        {
            std::lock_guard lock(manager_.busyMutex_);
            manager_.busyLabels_.erase(label_);
        }
        manager_.busyChanged_.notify_all();
    }
    LabelGuard(const LabelGuard&) = delete;
    LabelGuard& operator=(const LabelGuard&) = delete;

  private:
    SystemdServiceManager& manager_;
    std::string label_;
};

SystemdServiceManager::SystemdServiceManager(SystemdServiceManagerOptions options, SystemLog& log)
    : options_(std::move(options)), address_(busAddressFor(options_.busAddress)), log_(log) {}

Status SystemdServiceManager::submitJob(const plist::Value& job,
                                        const AuthorizationRef& authorization) {
    if (!authorization) {
        return notAuthorized("submit");
    }
    auto translated = translateJob(job, {options_.helperBinDirectory});
    if (!translated) {
        return translated.error();
    }
    const UnitTranslation& t = translated.value();
    for (const auto& key : t.ignoredKeys) {
        log_.debug("Job %@: ignoring %@, which has no systemd counterpart", t.label, key);
    }
    LabelGuard guard(*this, t.label);
    auto connected = managerBus(keptConnection(), [this] { return sharedConnection(); });
    if (!connected) {
        return connected.error();
    }
    ManagerBus& bus = connected.value();

    std::vector<std::string> names;
    for (const auto& unit : t.units) {
        auto state = unitState(bus, unit.name);
        if (!state) {
            return state.error();
        }
        auto origin = originOf(bus, options_, unit.name, state.value(), true);
        if (!origin) {
            return origin.error();
        }
        if (origin.value().origin == Origin::Own) {
            return Error{kDomain, EEXIST,
                         "Job " + t.label + " is already loaded (the service manager has " +
                             unit.name + ")"};
        }
        if (origin.value().origin == Origin::Foreign) {
            return Error{kDomain, EEXIST,
                         "Job " + t.label + " would shadow another unit: the service manager has " +
                             foreignUnit(unit.name, origin.value())};
        }
        names.push_back(unit.name);
    }

    std::vector<std::string> written;
    Status status;
    for (const auto& unit : t.units) {
        status = writeUnitFile(options_.unitDirectory, unit);
        if (!status) {
            break;
        }
        written.push_back(unit.name);
    }
    if (status) {
        status = loadUnits(bus, names);
    }
    if (!status) {
        // Nothing of the job may stay behind when it could not be loaded.
        for (const auto& name : written) {
            (void)removeUnitFile(options_.unitDirectory, name);
        }
        (void)ensureUnloaded(bus, options_, written);
        return status;
    }

    const std::vector<std::string> toStart = t.unitsToStart();
    if (toStart.empty()) {
        return {};
    }
    if (Status s = bus.watchJobs(); !s) {
        return s;
    }
    std::vector<std::pair<std::string, std::string>> jobs;  // unit, job path
    std::vector<std::string> jobPaths;
    for (const auto& unit : toStart) {
        auto queued = bus.enqueue("StartUnit", unit);
        if (!queued) {
            status = queued.error();
            break;
        }
        jobs.emplace_back(unit, queued.value());
        jobPaths.push_back(queued.value());
    }
    auto results = bus.waitForJobs(jobPaths);
    if (!results) {
        return results.error();
    }
    if (!status) {
        return status;
    }
    for (const auto& [unit, path] : jobs) {
        const std::string& result = results.value().at(path);
        if (result != "done") {
            auto unitPath = bus.loadUnit(unit);
            return Error{kDomain, EIO,
                         startFailure(bus, unit, unitPath ? unitPath.value() : "", result)};
        }
    }
    return {};
}

namespace {

// Whether this process runs inside `unit`: its cgroup path (in any
// hierarchy) ends in the unit's name.
bool callerRunsIn(const std::string& unit) {
    std::ifstream cgroups("/proc/self/cgroup");
    std::string line;
    while (std::getline(cgroups, line)) {
        const auto slash = line.rfind('/');
        if (slash != std::string::npos && line.compare(slash + 1, std::string::npos, unit) == 0) {
            return true;
        }
    }
    return false;
}

}  // namespace

Status SystemdServiceManager::removeJob(std::string_view label,
                                        const AuthorizationRef& authorization, bool wait) {
    if (!authorization) {
        return notAuthorized("remove");
    }
    if (Status s = checkJobLabel(label); !s) {
        return s;
    }
    LabelGuard guard(*this, std::string(label));
    auto connected = managerBus(keptConnection(), [this] { return sharedConnection(); });
    if (!connected) {
        return connected.error();
    }
    ManagerBus& bus = connected.value();
    const std::string service = serviceUnitName(label);

    // The job's units: its service and whatever triggers it (its sockets and
    // timer), plus the names those usually have, should the service be gone.
    // A trigger the manager does not have is neither running nor loaded, and
    // its file, if any, goes below all the same; the service (and a unit of
    // the generator's) is looked for by name, as the question whether the
    // job is loaded does.
    const std::string socket = std::string(label) + ".socket";
    const std::string timer = std::string(label) + ".timer";
    auto usual = statesLoadingOnly(bus, {service, socket, timer}, [&](const std::string& unit) {
        return unit == service || generatedUnit(options_, unit);
    });
    if (!usual) {
        return usual.error();
    }
    const UnitState serviceState = usual.value()[0];
    auto serviceOrigin = originOf(bus, options_, service, serviceState, false);
    if (!serviceOrigin) {
        return serviceOrigin.error();
    }
    const bool serviceOwn = serviceOrigin.value().origin == Origin::Own;
    std::map<std::string, UnitState> known{{socket, usual.value()[1]}, {timer, usual.value()[2]}};
    std::vector<std::string> triggers;
    if (serviceOwn && serviceState.loadState == "loaded") {
        auto by = bus.stringsProperty(serviceState.path, kUnitInterface, "TriggeredBy");
        if (!by) {
            return by.error();
        }
        triggers = by.value();
    }
    for (const std::string& name : {socket, timer}) {
        if (std::find(triggers.begin(), triggers.end(), name) == triggers.end()) {
            triggers.push_back(name);
        }
    }

    // Only the job's own units are stopped and reset; a file of the unit
    // directory is the job's to delete whoever's unit the manager has.
    std::vector<std::string> ownTriggers;
    std::vector<std::string> files;
    std::string foreign;
    auto sort = [&](const std::string& unit, const UnitOrigin& origin) {
        if (origin.origin == Origin::Foreign && foreign.empty()) {
            foreign = foreignUnit(unit, origin);
        }
        if (origin.origin == Origin::Own || unitFileExists(options_.unitDirectory, unit)) {
            files.push_back(unit);
        }
    };
    for (const auto& unit : triggers) {
        auto it = known.find(unit);
        auto state = it != known.end() ? Result<UnitState>(it->second) : unitState(bus, unit);
        if (!state) {
            return state.error();
        }
        auto origin = originOf(bus, options_, unit, state.value(), false);
        if (!origin) {
            return origin.error();
        }
        if (origin.value().origin == Origin::Own) {
            ownTriggers.push_back(unit);
        }
        sort(unit, origin.value());
    }
    sort(service, serviceOrigin.value());
    if (!serviceOwn && ownTriggers.empty() && files.empty()) {
        return Error{kDomain, ESRCH,
                     "Job " + std::string(label) + " is not loaded" +
                         (foreign.empty() ? "" : " (the service manager has " + foreign + ")")};
    }

    // A job that removes itself (the daemon's own job when it uninstalls
    // itself, a clean-up job at its end) is killed by its own stop, so its
    // files go first and nothing waits for the stop: once stopped, a unit
    // without a file is unloaded by the manager.
    if (serviceOwn && callerRunsIn(service)) {
        Status status;
        for (const auto& unit : files) {
            if (Status s = removeUnitFile(options_.unitDirectory, unit); !s && status) {
                status = s;
            }
        }
        (void)bus.managerCall("Reload");
        ownTriggers.push_back(service);
        for (const auto& unit : ownTriggers) {
            if (auto queued = bus.enqueue("StopUnit", unit); !queued && status) {
                status = queued.error();
            }
        }
        return status;
    }

    // Sockets and timers first: stopped after the service, they could start
    // it again. A unit's file goes once its stop is queued, not after the
    // stop: the manager then drops the stopped unit by itself, where a file
    // deleted after the stop would leave it loaded until a Reload. A unit
    // whose stop could not be queued keeps its file, and with it the job
    // stays loaded, to be removed again.
    Status status;
    if (wait) {
        if (Status s = bus.watchJobs(); !s) {
            return s;
        }
    }
    std::vector<std::string> stopped;
    for (const auto& round : {ownTriggers, serviceOwn ? std::vector<std::string>{service}
                                                      : std::vector<std::string>{}}) {
        std::vector<std::string> jobs;
        for (const auto& unit : round) {
            auto queued = bus.enqueue("StopUnit", unit);
            if (!queued) {
                if (status) {
                    status = queued.error();
                }
                files.erase(std::remove(files.begin(), files.end(), unit), files.end());
                continue;
            }
            jobs.push_back(queued.value());
            stopped.push_back(unit);
            if (Status s = removeUnitFile(options_.unitDirectory, unit); !s && status) {
                status = s;
            }
        }
        if (wait) {
            auto results = bus.waitForJobs(jobs);
            if (!results) {
                return results.error();
            }
        }
    }

    for (const auto& unit : files) {
        if (std::find(stopped.begin(), stopped.end(), unit) != stopped.end()) {
            (void)bus.managerCall("ResetFailedUnit", unit);  // fails when not failed
        } else if (Status s = removeUnitFile(options_.unitDirectory, unit); !s && status) {
            status = s;
        }
    }
    if (!status || !wait) {
        return status;
    }
    return ensureUnloaded(bus, options_, stopped);
}

Answer SystemdServiceManager::jobIsEnabled(std::string_view label) {
    if (!checkJobLabel(label)) {
        return Answer::No;  // no unit can have that name
    }
    const std::string service = serviceUnitName(label);
    // A question is asked again once on a new connection when the kept one
    // turns out to be gone (the manager re-executed since the last one).
    for (int attempt = 0; attempt < 2; ++attempt) {
        auto connected = managerBus(keptConnection(), [this] { return sharedConnection(); });
        if (!connected) {
            return Answer::Unknown;
        }
        auto state = connected.value().unitState(service);
        Result<UnitOrigin> origin =
            state ? originOf(connected.value(), options_, service, state.value(), false)
                  : Result<UnitOrigin>(state.error());
        if (origin) {
            return origin.value().origin == Origin::Own ? Answer::Yes : Answer::No;
        }
        if (!connectionLost(origin.error())) {
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
        kept_ = std::move(bus);
    }
    return kept_.get();
}

}  // namespace tessary::linux_backend
