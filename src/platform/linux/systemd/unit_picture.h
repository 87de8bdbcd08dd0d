#pragma once

// Whether the backend's jobs are loaded, answered without a round trip per
// job. A decision pass (the synchronisation of every service, which asks of
// each whether its job is loaded) would otherwise cost the manager a lookup
// and a property read per service, growing with the number of services. A
// pass is one turn of the main loop: a request, a start-up, a sleep or wake
// runs within one. So the picture is taken with one question at the first
// question of a turn:
// every service and socket unit the manager has in memory, with its load and
// active state, and the files of the unit directory. The backend's own
// submits and removals during the pass update it; the next pass takes it
// anew, so that a change made by anyone else before a pass is seen by the
// whole pass, as a question at that moment would see it.
//
// Each answer is the one a question by name would give: a unit the manager
// does not have in memory and that has no file in the unit directory can
// only be another's or nobody's (No); one with a file there that the manager
// has not loaded is still asked by name, which loads it, as before; a unit
// the manager has is the job's when its file is the backend's. Whose file
// it is is remembered, by unit, until the manager reloads (signal Reloading)
// or drops or makes the unit anew (UnitRemoved, UnitNew): only then can a
// unit come from another file. The manager sends its signals to every
// private connection; the kept connection reads them before each pass.
//
// Most questions of a pass (a service that is off, whose units are neither
// in memory nor files) are answered by one lookup of the job's label, so
// that a pass over many services costs little more than its one question.
//
// The picture is the main loop's: other threads (the stop of all) ask the
// manager about the units it holds, and by name those with a file in the
// unit directory, and their changes make the main loop take it anew.

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "base/error.h"
#include "platform/linux/sd_handles.h"
#include "platform/linux/systemd/manager_bus.h"
#include "platform/linux/systemd/systemd_service_manager.h"
#include "platform/linux/systemd/unit_loading.h"

namespace tessary::linux_backend {

class UnitPicture {
  public:
    explicit UnitPicture(const SystemdServiceManagerOptions& options) : options_(options) {}
    UnitPicture(const UnitPicture&) = delete;
    UnitPicture& operator=(const UnitPicture&) = delete;

    // Follows the manager's signals on `kept`, the kept connection; a new
    // connection starts with nothing known.
    Status follow(sd_bus* kept);
    // Lets go of the connection's signals before it is closed.
    void unfollow();

    // Takes the picture unless it is the one of this pass (the main loop's
    // `iteration`).
    Status takeUnlessCurrent(ManagerBus& bus, sd_bus* kept, std::uint64_t iteration);
    // Whether the picture is the one of this pass.
    bool current(std::uint64_t iteration) const { return !stale_ && iteration == iteration_; }
    // Whose `unit` is, as a question by name would say.
    Result<Origin> originOf(ManagerBus& bus, const std::string& unit);
    // Whether the job `label` is loaded (its service or its socket is the
    // backend's), when the picture tells it without a question to the
    // manager.
    std::optional<Answer> jobAnswer(std::string_view label);

    // The backend's own change of `unit`, made on the main loop's thread.
    void changed(const std::string& unit, Origin origin);
    // A change the picture cannot follow: the next question takes it anew.
    // Safe from any thread.
    void forget() { stale_ = true; }

  private:
    static int onUnitChanged(sd_bus_message* m, void* userdata, sd_bus_error* error);
    static int onReloading(sd_bus_message* m, void* userdata, sd_bus_error* error);

    // Looked up by name once or twice per service in every pass: hashed, and
    // by string_view, without making a string.
    struct NameHash {
        using is_transparent = void;
        std::size_t operator()(std::string_view name) const {
            return std::hash<std::string_view>{}(name);
        }
    };
    template <class T>
    using ByName = std::unordered_map<std::string, T, NameHash, std::equal_to<>>;
    // What the picture holds of one unit name.
    struct Unit {
        std::optional<UnitState> inMemory;
        bool file = false;  // a file of that name in the unit directory
        // Decided this pass: by the backend's own change, or by what the
        // manager was asked. An answer from the picture alone is not kept:
        // it comes out the same again until the next picture.
        std::optional<Origin> decided;
    };

    using Entry = ByName<Unit>::value_type;
    // A job's two units, by its label: a pass asks about one job at a time.
    struct Job {
        Entry* service = nullptr;
        Entry* socket = nullptr;
    };

    // Whose the unit of `entry` is, when the picture tells it alone.
    // A unit the manager has not loaded but could from a file: only a
    // question by name says what it would be.
    bool asksByName(const Entry& entry) const;
    std::optional<Origin> knownOrigin(Entry& entry);
    Entry& entryFor(const std::string& unit);

    const SystemdServiceManagerOptions& options_;
    std::atomic<bool> stale_{true};
    std::uint64_t iteration_ = 0;
    ByName<Unit> units_;
    ByName<Job> jobs_;  // the entries of units_ that name a job's units
    // Whose each running unit's file is (the backend's or another's), told
    // by its FragmentPath, until the manager reloads, drops or makes the
    // unit anew.
    ByName<Origin> fragments_;
    SdBusSlotPtr unitNew_;
    SdBusSlotPtr unitRemoved_;
    SdBusSlotPtr reloading_;
};

}  // namespace tessary::linux_backend
