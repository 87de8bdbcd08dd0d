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
        ++submitCalls_;
        const std::string* label = job.stringAt("Label");
        const std::string name = label != nullptr ? *label : "";
        submitted_.push_back(name);
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
            ++removeCalls_;
            removed_.emplace_back(label);
            lastRemoveWaited_ = wait;
            if (auto it = removeDelays_.find(std::string(label)); it != removeDelays_.end()) {
                delay = it->second;
            }
            mostRemovesInFlight_ = std::max(mostRemovesInFlight_, ++removesInFlight_);
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
        ++loadedQueries_;
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
    std::vector<std::string> submitted() const {
        std::lock_guard lock(mutex_);
        return submitted_;
    }
    std::vector<std::string> removed() const {
        std::lock_guard lock(mutex_);
        return removed_;
    }
    int submitCalls() const {
        std::lock_guard lock(mutex_);
        return submitCalls_;
    }
    int removeCalls() const {
        std::lock_guard lock(mutex_);
        return removeCalls_;
    }
    int loadedQueries() const {
        std::lock_guard lock(mutex_);
        return loadedQueries_;
    }
    // The most removals that were under way at one time.
    int mostRemovesInFlight() const {
        std::lock_guard lock(mutex_);
        return mostRemovesInFlight_;
    }
    bool lastRemoveWaited() const {
        std::lock_guard lock(mutex_);
        return lastRemoveWaited_;
    }
    void resetCounters() {
        std::lock_guard lock(mutex_);
        submitCalls_ = removeCalls_ = loadedQueries_ = 0;
        submitted_.clear();
        removed_.clear();
    }

  private:
    mutable std::mutex mutex_;
    std::map<std::string, plist::Value> loaded_;
    std::map<std::string, std::string> submitFailures_;
    std::set<std::string> unanswered_;
    std::map<std::string, std::chrono::milliseconds> removeDelays_;
    std::vector<std::string> submitted_;
    std::vector<std::string> removed_;
    int submitCalls_ = 0;
    int removeCalls_ = 0;
    int loadedQueries_ = 0;
    int removesInFlight_ = 0;
    int mostRemovesInFlight_ = 0;
    bool lastRemoveWaited_ = false;
};

}  // namespace tessary::testing
