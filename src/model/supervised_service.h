#pragma once

#include <atomic>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include "model/guarded.h"
#include "model/model_environment.h"
#include "model/supervised_job.h"
#include "plist/value.h"

namespace tessary {

using JobPtr = std::shared_ptr<TYSupervisedJob>;

// A service's jobs, shared: a copy, which every predicate of a pass takes,
// costs a reference count rather than a new list.
class JobList {
  public:
    JobList() = default;
    JobList(std::initializer_list<JobPtr> jobs)
        : jobs_(std::make_shared<const std::vector<JobPtr>>(jobs)) {}
    std::vector<JobPtr>::const_iterator begin() const { return all().begin(); }
    std::vector<JobPtr>::const_iterator end() const { return all().end(); }
    const JobPtr& front() const { return all().front(); }

  private:
    const std::vector<JobPtr>& all() const {
        static const std::vector<JobPtr> none;
        return jobs_ ? *jobs_ : none;
    }
    std::shared_ptr<const std::vector<JobPtr>> jobs_;
};

// One background service as the daemon supervises it: its definition, its
// one job, the user's switch, and predicates computed afresh on every call.
// Several predicates reach the service manager through the jobs' `loaded`, so
// the order in which each is evaluated, and where it stops, is part of its
// behaviour: it decides how often the service manager is asked.
class TYSupervisedService : public std::enable_shared_from_this<TYSupervisedService> {
  public:
    // Services are always held by shared pointers: workers of the stop of
    // all services keep them alive while the list may be replaced.
    // `components` is empty for every service the daemon makes; the nesting
    // rules below apply to whatever it holds.
    static std::shared_ptr<TYSupervisedService> make(ServiceOwner& supervisor,
                                                     const plist::Value& dictionary,
                                                     std::vector<ServicePtr> components = {});

    ServiceOwner& supervisor() const { return supervisor_; }
    plist::Value dictionary() const { return dictionary_.get(); }
    void setDictionary(plist::Value d) { dictionary_.set(std::move(d)); }
    JobList jobs() const { return jobs_.get(); }
    void setJobs(JobList jobs) { jobs_.set(std::move(jobs)); }
    const std::vector<ServicePtr>& services() const { return components_; }
    std::string prerequisiteScriptPath() const { return prerequisiteScriptPath_.get(); }
    void setPrerequisiteScriptPath(std::string p) { prerequisiteScriptPath_.set(std::move(p)); }
    std::string prestartScriptPath() const { return prestartScriptPath_.get(); }
    void setPrestartScriptPath(std::string p) { prestartScriptPath_.set(std::move(p)); }
    std::string poststopScriptPath() const { return poststopScriptPath_.get(); }
    void setPoststopScriptPath(std::string p) { poststopScriptPath_.set(std::move(p)); }

    std::string label() const;
    JobPtr jobWithLabel(std::string_view label) const;
    bool hasComponentService(const TYSupervisedService& service) const;

    bool on() const { return on_; }
    std::uint32_t denySleepAssertion() const { return denySleepAssertion_; }

    bool needed() const;
    bool loadable() const;
    // The first answer that is not Yes decides, so that no question is asked
    // past it.
    Answer loaded() const;
    bool startable() const;
    bool started() const;
    bool stopable() const;
    bool migratable() const;
    // Yes when some transient job is known not to be loaded; Unknown when
    // none is, but the manager did not say for some.
    Answer stale() const;
    bool preventsSleep() const;
    bool unloadOnSleep() const;

    // Switches the service and takes or releases its own sleep assertion.
    void setOn(bool on);
    // Gives back the sleep assertion without touching the switch: for a
    // service that is being dropped from the list.
    void releaseSleepAssertion();
    void start();
    void stop();
    void migrate();
    void reset();

    // The points where a service's scripts would run; each succeeds.
    bool runPrerequisiteScript() const;
    bool runPrestartScript() const;
    bool runPoststopScript() const;

    TYSupervisedService(ServiceOwner& supervisor, const plist::Value& dictionary,
                        std::vector<ServicePtr> components);
    ~TYSupervisedService();
    TYSupervisedService(const TYSupervisedService&) = delete;
    TYSupervisedService& operator=(const TYSupervisedService&) = delete;

  private:
    bool hasComponentServiceAtDepth(const TYSupervisedService& service, int depth) const;
    ModelEnvironment& env() const { return supervisor_.environment(); }

    // How many services in the process have components: while none has,
    // no service is needed, and `needed` need not walk the list.
    static std::atomic<int> withComponents_;

    bool on_ = false;  // main thread only
    std::uint32_t denySleepAssertion_ = 0;
    ServiceOwner& supervisor_;
    Guarded<JobList> jobs_;
    const std::vector<ServicePtr> components_;
    Guarded<plist::Value> dictionary_;
    Guarded<std::string> prerequisiteScriptPath_;
    Guarded<std::string> prestartScriptPath_;
    Guarded<std::string> poststopScriptPath_;
};

}  // namespace tessary
