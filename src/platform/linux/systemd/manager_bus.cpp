#include "platform/linux/systemd/manager_bus.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>

#include "platform/linux/systemd/sd_bus_values.h"
#include "platform/linux/systemd/shared_manager_connection.h"

namespace tessary::linux_backend {

namespace {

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

}  // namespace

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

int openManagerBus(const std::string& address, SdBusPtr& out) {
    return openBus(address, false, {}, out);
}

Error unreachable(const std::string& address, int r) {
    return Error::posix(-r, "Unable to connect to the service manager at " + address);
}

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

Result<std::string> ManagerBus::loadUnit(const std::string& unit) {
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

Result<std::vector<UnitState>> ManagerBus::unitStates(const std::vector<std::string>& units) {
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

Result<std::vector<UnitState>> ManagerBus::unitStatesInMemory(
    const std::vector<std::string>& units) {
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
    auto listed = unitsMatching(patterns);
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

Result<UnitState> ManagerBus::unitState(const std::string& unit) {
    auto states = unitStates({unit});
    if (!states) {
        return states.error();
    }
    return states.value().front();
}

Result<std::vector<std::pair<std::string, UnitState>>> ManagerBus::unitsMatching(
    const std::vector<std::string>& patterns) {
    return listUnits("ListUnitsByPatterns", patterns, true);
}

Result<std::string> ManagerBus::stringProperty(const std::string& path, const char* interface,
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

Result<std::vector<std::string>> ManagerBus::stringsProperty(const std::string& path,
                                                             const char* interface,
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

Result<ResourceLimit> ManagerBus::defaultLimit(std::string_view directive) {
    const std::string hard = "Default" + std::string(directive);
    auto h = trivialProperty<std::uint64_t>(kManagerPath, kManagerInterface, hard.c_str(), 't');
    if (!h) {
        return h.error();
    }
    auto s = trivialProperty<std::uint64_t>(kManagerPath, kManagerInterface,
                                            (hard + "Soft").c_str(), 't');
    if (!s) {
        return s.error();
    }
    return ResourceLimit{s.value(), h.value()};
}

std::string ManagerBus::loadError(const std::string& path) {
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

Result<std::string> ManagerBus::enqueue(const char* method, const std::string& unit) {
    SdBusError error;
    std::string job;
    int q = 0;
    const int r = call(
        kManagerPath, kManagerInterface, method, error,
        [&](sd_bus_message* m) { return sd_bus_message_append(m, "ss", unit.c_str(), "replace"); },
        [&](sd_bus_message* reply) { q = readString(reply, "o", job); });
    if (r < 0) {
        return busFailure(std::string(method) + " " + unit, r, error);
    }
    if (q < 0) {
        return Error::posix(-q, std::string("Unexpected reply to ") + method + " " + unit);
    }
    return job;
}

Status ManagerBus::managerCall(const char* method, const std::string& unit) {
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

Status ManagerBus::watchJobs() {
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

Result<std::map<std::string, std::string>> ManagerBus::waitForJobs(
    const std::vector<std::string>& jobs) {
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

std::string ManagerBus::describe(const std::vector<std::string>& units) {
    return units.size() == 1 ? units.front() : "units";
}

int ManagerBus::call(const char* path, const char* interface, const char* member, SdBusError& error,
                     const CallBuild& build, const CallParse& parse) {
    if (shared_) {
        return shared_->call(path, interface, member, error.get(), build, parse);
    }
    sd_bus_message* rawCall = nullptr;
    int r = sd_bus_message_new_method_call(bus_, &rawCall, kDestination, path, interface, member);
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

int ManagerBus::getProperty(const std::string& path, const char* interface, const char* name,
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

int ManagerBus::readString(sd_bus_message* m, const char* type, std::string& out) {
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

Result<std::vector<std::pair<std::string, UnitState>>> ManagerBus::listUnits(
    const char* method, const std::vector<std::string>& names, bool statesFirst) {
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
            // Field by field: a pass reads every unit the manager holds, and
            // a read by signature would parse the signature again for each.
            for (;;) {
                int e = sd_bus_message_enter_container(reply, 'r', "ssssssouso");
                if (e <= 0) {
                    q = e < 0 ? -EBADMSG : 0;
                    return;
                }
                const char* fields[10] = {};
                std::uint32_t jobId = 0;
                constexpr std::string_view kTypes = "ssssssouso";
                for (std::size_t i = 0; e >= 0 && i < kTypes.size(); ++i) {
                    e = sd_bus_message_read_basic(reply, kTypes[i],
                                                  kTypes[i] == 'u'
                                                      ? static_cast<void*>(&jobId)
                                                      : static_cast<void*>(&fields[i]));
                }
                if (e < 0 || sd_bus_message_exit_container(reply) < 0) {
                    q = -EBADMSG;
                    return;
                }
                units.emplace_back(fields[0], UnitState{fields[6], fields[2], fields[3]});
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

}  // namespace tessary::linux_backend
