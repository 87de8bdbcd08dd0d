#pragma once

#include <atomic>
#include <optional>
#include <string>

#include "model/guarded.h"
#include "model/model_environment.h"
#include "plist/value.h"

namespace tessary {

// One job handed to the service manager on behalf of a service: the job
// dictionary as it is submitted, with the three flags the daemon interprets
// taken out of it and the stored overrides applied.
class TYSupervisedJob {
  public:
    static constexpr const char* kInstallPathPrefixVariable = "TESSARY_INSTALL_PATH_PREFIX";

    // `service` owns the job and outlives it. `dictionary` is the service's
    // definition as it was given.
    TYSupervisedJob(TYSupervisedService& service, const plist::Value& dictionary);

    TYSupervisedService& service() const { return service_; }
    plist::Value dictionary() const { return dictionary_.get(); }

    bool transient() const { return transient_; }
    void setTransient(bool v) { transient_ = v; }
    bool preventsSleep() const { return preventsSleep_; }
    void setPreventsSleep(bool v) { preventsSleep_ = v; }
    bool unloadOnSleep() const { return unloadOnSleep_; }
    void setUnloadOnSleep(bool v) { unloadOnSleep_ = v; }

    // "Label", or empty when the dictionary has none.
    std::string label() const { return label_; }
    // "ProgramArguments", else a one-element array of "Program", else none:
    // a job with none is a placeholder that is never submitted or removed and
    // always counts as loaded.
    std::optional<plist::Value> programArguments() const;
    std::optional<plist::Value> sockets() const;
    // Always an array: empty, the one calendar dictionary, or the list.
    plist::Value startCalendarIntervals() const;

    // Each persists the override, changes the dictionary, and reloads the job
    // when the service manager holds it.
    void setProgramArguments(const plist::Value& arguments);
    void setSockets(const plist::Value& sockets);
    void setStartCalendarIntervals(const std::optional<plist::Value>& intervals);

    // Asks the service manager every time.
    Answer loaded() const;
    void submit() const;
    void remove() const;

    // Removes the daemon's own job; the outcome is ignored.
    static void removeSupervisorJob(ModelEnvironment& env);

  private:
    // Changes only the overridden keys, never "Label".
    void setDictionary(plist::Value dictionary);
    ModelEnvironment& env() const;
    std::string serviceLabel() const;
    void replaceKey(const char* key, const std::optional<plist::Value>& value);
    void reloadIfLoaded();

    TYSupervisedService& service_;
    Guarded<plist::Value> dictionary_;
    // Read by every decision pass for every service: kept beside the
    // dictionary rather than looked up in it each time.
    std::string label_;
    std::atomic<bool> hasProgram_{false};
    std::atomic<bool> transient_{false};
    std::atomic<bool> preventsSleep_{false};
    std::atomic<bool> unloadOnSleep_{false};
};

}  // namespace tessary
