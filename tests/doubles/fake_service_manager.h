#pragma once

#include <algorithm>
#include <chrono>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include "platform/service_manager_client.h"

namespace tessary::testing {

// A service manager that holds jobs: which labels are loaded, the dictionary
// each was submitted with, and how often it was asked what. It can be told to
// refuse a submit, or to take its time removing. Safe to call from several
// threads at once, as the stop of all services does.
class FakeServiceManager final : public ServiceManagerClient {
  public:
    Status submitJob(const plist::Value& job, const AuthorizationRef& /*authorization*/) override {
        std::lock_guard lock(mutex_);
        ++asked_.submitCalls;
        const std::string* label = job.stringAt("Label");
        const std::string name = label != nullptr ? *label : "";
        asked_.submitted.push_back(name);
        if (auto it = submitFailures_.find(name); it != submitFailures_.end()) {
            return Error{"ServiceManager", 1, it->second};
        }
        if (loaded_.count(name) != 0) {
            return Error{"ServiceManager", 17, "Job already loaded: " + name};
        }
        loaded_.emplace(name, job);
        return {};
    }

    Status removeJob(std::string_view label, const AuthorizationRef& /*authorization*/,
                     bool wait) override {
        std::chrono::milliseconds delay{0};
        {
            std::lock_guard lock(mutex_);
            ++asked_.removeCalls;
            asked_.removed.emplace_back(label);
            asked_.lastRemoveWaited = wait;
            if (auto it = removeDelays_.find(std::string(label)); it != removeDelays_.end()) {
                delay = it->second;
            }
            asked_.mostRemovesInFlight = std::max(asked_.mostRemovesInFlight, ++removesInFlight_);
        }
        std::this_thread::sleep_for(delay);
        std::lock_guard lock(mutex_);
        --removesInFlight_;
        if (loaded_.erase(std::string(label)) == 0) {
            return Error{"ServiceManager", 3, "No such job: " + std::string(label)};
        }
        return {};
    }

    Answer jobIsEnabled(std::string_view label) override {
        std::lock_guard lock(mutex_);
        ++asked_.loadedQueries;
        if (unanswered_.count(std::string(label)) != 0) {
            return Answer::Unknown;
        }
        return loaded_.count(std::string(label)) != 0 ? Answer::Yes : Answer::No;
    }

    // Test controls.
    void load(const std::string& label, plist::Value job = plist::Value()) {
        std::lock_guard lock(mutex_);
        loaded_.insert_or_assign(label, std::move(job));
    }
    void failSubmit(const std::string& label, std::string text) {
        std::lock_guard lock(mutex_);
        submitFailures_[label] = std::move(text);
    }
    // Questions about `label` get no answer.
    void leaveUnanswered(const std::string& label) {
        std::lock_guard lock(mutex_);
        unanswered_.insert(label);
    }
    void setRemoveDelay(const std::string& label, std::chrono::milliseconds d) {
        std::lock_guard lock(mutex_);
        removeDelays_[label] = d;
    }

    bool isLoaded(const std::string& label) const {
        std::lock_guard lock(mutex_);
        return loaded_.count(label) != 0;
    }
    std::optional<plist::Value> jobFor(const std::string& label) const {
        std::lock_guard lock(mutex_);
        auto it = loaded_.find(label);
        return it == loaded_.end() ? std::nullopt : std::optional<plist::Value>(it->second);
    }
    std::set<std::string> loadedLabels() const {
        std::lock_guard lock(mutex_);
        std::set<std::string> out;
        for (const auto& [k, v] : loaded_) {
            out.insert(k);
        }
        return out;
    }
    // What it was asked since it was made or last reset: the labels
    // submitted and removed, how often it was asked whether a job is loaded,
    // the most removals under way at one time, and whether the last removal
    // waited for the stop.
    struct Asked {
        std::vector<std::string> submitted, removed;
        int submitCalls = 0, removeCalls = 0, loadedQueries = 0, mostRemovesInFlight = 0;
        bool lastRemoveWaited = false;
    };
    Asked asked() const {
        std::lock_guard lock(mutex_);
        return asked_;
    }
    void resetCounters() {
        std::lock_guard lock(mutex_);
        asked_ = {};
    }

  private:
    mutable std::mutex mutex_;
    std::map<std::string, plist::Value> loaded_;
    std::map<std::string, std::string> submitFailures_;
    std::set<std::string> unanswered_;
    std::map<std::string, std::chrono::milliseconds> removeDelays_;
    Asked asked_;
    int removesInFlight_ = 0;
};

}  // namespace tessary::testing
