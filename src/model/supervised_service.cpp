#include "model/supervised_service.h"

namespace tessary {

namespace {

// Components that list each other in a ring would make the nested search
// endless; no definition fills component lists, so a bound that only a ring
// can reach is enough.
constexpr int kMaxComponentDepth = 64;

plist::Value sleepAssertionProperties(const std::string& name) {
    return plist::Value(plist::Dictionary{
        {"AssertType", plist::Value("PreventUserIdleSystemSleep")},
        {"AssertLevel", plist::Value::integer(255)},
        {"AssertName", plist::Value(name)},
    });
}

}  // namespace

std::atomic<int> TYSupervisedService::withComponents_{0};

TYSupervisedService::TYSupervisedService(ServiceOwner& supervisor, const plist::Value& dictionary,
                                         std::vector<ServicePtr> components)
    : supervisor_(supervisor), components_(std::move(components)), dictionary_(dictionary) {
    if (!components_.empty()) {
        ++withComponents_;
    }
}

TYSupervisedService::~TYSupervisedService() {
    if (!components_.empty()) {
        --withComponents_;
    }
}

std::shared_ptr<TYSupervisedService> TYSupervisedService::make(ServiceOwner& supervisor,
                                                               const plist::Value& dictionary,
                                                               std::vector<ServicePtr> components) {
    auto service =
        std::make_shared<TYSupervisedService>(supervisor, dictionary, std::move(components));
    service->setJobs({std::make_shared<TYSupervisedJob>(*service, dictionary)});
    return service;
}

std::string TYSupervisedService::label() const {
    const plist::Value d = dictionary();
    const std::string* l = d.stringAt("Label");
    return l != nullptr ? *l : std::string();
}

JobPtr TYSupervisedService::jobWithLabel(std::string_view label) const {
    for (const JobPtr& job : jobs()) {
        if (job->label() == label) {
            return job;
        }
    }
    return nullptr;
}

bool TYSupervisedService::hasComponentService(const TYSupervisedService& service) const {
    return hasComponentServiceAtDepth(service, 0);
}

// The first level looks for `service` itself; every deeper level asks whether
// a component lists itself. Kept exactly so.
bool TYSupervisedService::hasComponentServiceAtDepth(const TYSupervisedService& service,
                                                     int depth) const {
    if (depth > kMaxComponentDepth) {
        return false;
    }
    for (const ServicePtr& c : components_) {
        if (c.get() == &service) {
            return true;
        }
    }
    for (const ServicePtr& c : components_) {
        if (c->hasComponentServiceAtDepth(*c, depth + 1)) {
            return true;
        }
    }
    return false;
}

// A service is needed when an enabled one lists itself among its components
// (at any depth); one without components never does. That a service with
// components exists is counted as it is made, so a pass over many services
// does not walk the whole list for each.
bool TYSupervisedService::needed() const {
    if (withComponents_ == 0) {
        return false;
    }
    const ServiceList all = supervisor_.services();
    if (!all) {
        return false;
    }
    for (const ServicePtr& s : *all) {
        if (s->on() && s->hasComponentService(*s)) {
            return true;
        }
    }
    return false;
}

bool TYSupervisedService::loadable() const {
    if (!runPrerequisiteScript()) {
        return false;
    }
    if (unloadOnSleep() && supervisor_.drowsy()) {
        return false;
    }
    for (const ServicePtr& c : components_) {
        if (!c->loadable()) {
            return false;
        }
    }
    return true;
}

Answer TYSupervisedService::loaded() const {
    for (const JobPtr& job : jobs()) {
        if (const Answer a = job->loaded(); a != Answer::Yes) {
            return a;
        }
    }
    for (const ServicePtr& c : components_) {
        if (const Answer a = c->loaded(); a != Answer::Yes) {
            return a;
        }
    }
    return Answer::Yes;
}

// A service whose state the manager did not tell is neither started here nor
// stopped in `stop`: the next synchronisation asks again. Acting on a guess
// would submit a job that may be running, or remove one that may be another's
// to keep, and either call meets the same silent manager.
bool TYSupervisedService::startable() const {
    return on() && loaded() == Answer::No && loadable();
}

bool TYSupervisedService::started() const {
    return on() && loaded() == Answer::Yes;
}

bool TYSupervisedService::stopable() const {
    if (!loadable()) {
        return true;
    }
    if (on()) {
        return false;
    }
    return !needed();
}

bool TYSupervisedService::migratable() const {
    return false;
}

Answer TYSupervisedService::stale() const {
    Answer stale = Answer::No;
    for (const JobPtr& job : jobs()) {
        if (!job->transient()) {
            continue;
        }
        const Answer loaded = job->loaded();
        if (loaded == Answer::No) {
            return Answer::Yes;
        }
        if (loaded == Answer::Unknown) {
            stale = Answer::Unknown;
        }
    }
    return stale;
}

bool TYSupervisedService::preventsSleep() const {
    for (const JobPtr& job : jobs()) {
        if (job->preventsSleep()) {
            return !env().preferences.preventsSleepIsDisabled();
        }
    }
    return false;
}

bool TYSupervisedService::unloadOnSleep() const {
    for (const JobPtr& job : jobs()) {
        if (job->unloadOnSleep()) {
            return true;
        }
    }
    return false;
}

void TYSupervisedService::setOn(bool on) {
    on_ = on;
    if (on && preventsSleep()) {
        if (denySleepAssertion_ == 0) {
            // The result is not examined: an id left at 0 is tried again at
            // the next switch-on.
            std::uint32_t id = 0;
            (void)env().powerAssertions.createAssertion(sleepAssertionProperties(label()), id);
            denySleepAssertion_ = id;
        }
        return;
    }
    releaseSleepAssertion();
}

void TYSupervisedService::releaseSleepAssertion() {
    if (denySleepAssertion_ != 0) {
        (void)env().powerAssertions.releaseAssertion(denySleepAssertion_);
        denySleepAssertion_ = 0;
    }
}

void TYSupervisedService::start() {
    for (const ServicePtr& c : components_) {
        c->start();
    }
    (void)runPrestartScript();
    for (const JobPtr& job : jobs()) {
        job->submit();
    }
}

// Unlike start, stop leaves the components alone.
void TYSupervisedService::stop() {
    for (const JobPtr& job : jobs()) {
        if (job->loaded() == Answer::Yes) {
            job->remove();
        }
    }
    (void)runPoststopScript();
}

void TYSupervisedService::migrate() {
    for (const JobPtr& job : jobs()) {
        job->remove();
    }
}

void TYSupervisedService::reset() {
    if (started()) {
        stop();
    }
    const std::string name = label();
    TYSupervisorPreferences& prefs = env().preferences;
    prefs.removeProgramArgumentsForService(name);
    prefs.removeSocketsForService(name);
    prefs.removeStartCalendarIntervalsForService(name);
    setJobs({std::make_shared<TYSupervisedJob>(*this, dictionary())});
    if (startable()) {
        start();
    }
}

bool TYSupervisedService::runPrerequisiteScript() const {
    return true;
}
bool TYSupervisedService::runPrestartScript() const {
    return true;
}
bool TYSupervisedService::runPoststopScript() const {
    return true;
}

}  // namespace tessary
