#pragma once

#include <cerrno>
#include <map>
#include <memory>
#include <set>
#include <vector>

#include "platform/file_events.h"
#include "platform/process_exit_watch.h"

namespace tessary::testing {

// Process exits that a test announces.
class FakeProcessExitWatch final : public ProcessExitWatch {
  public:
    Result<QueueSourcePtr> watchExit(std::int32_t pid, std::function<void()> exited) override {
        if (gone.count(pid) != 0) {
            return Error::posix(ESRCH, "pidfd_open");
        }
        if (failing) {
            return Error::posix(EMFILE, "pidfd_open");
        }
        auto w = std::make_unique<Watch>(this, pid);
        watchers_.insert({pid, {w.get(), std::move(exited)}});
        return QueueSourcePtr(std::move(w));
    }
    std::set<std::int32_t> gone;  // processes that exited before they were watched
    bool failing = false;         // every watch fails for want of descriptors
    // Calls every live watch of `pid`.
    void exit(std::int32_t pid) {
        std::vector<std::function<void()>> due;
        for (auto [it, end] = watchers_.equal_range(pid); it != end; ++it) {
            due.push_back(it->second.second);
        }
        for (auto& f : due) {
            f();
        }
    }
    std::size_t watchCount(std::int32_t pid) const { return watchers_.count(pid); }

  private:
    struct Watch final : QueueSource {
        Watch(FakeProcessExitWatch* o, std::int32_t p) : owner(o), pid(p) {}
        ~Watch() override {
            for (auto [it, end] = owner->watchers_.equal_range(pid); it != end; ++it) {
                if (it->second.first == this) {
                    owner->watchers_.erase(it);
                    break;
                }
            }
        }
        Watch(const Watch&) = delete;
        Watch& operator=(const Watch&) = delete;
        FakeProcessExitWatch* owner;
        std::int32_t pid;
    };
    std::multimap<std::int32_t, std::pair<Watch*, std::function<void()>>> watchers_;
};

// File events that a test raises on a watched path.
class FakeFileEvents final : public FileEvents {
  public:
    std::unique_ptr<FileEventSource> watch(const std::string& path, std::uint32_t mask,
                                           std::function<void(std::uint32_t)> event) override {
        if (refuse) {
            return nullptr;
        }
        auto s = std::make_unique<Source>(this);
        s->path = path;
        s->mask = mask;
        s->event = std::move(event);
        sources_.push_back(s.get());
        return s;
    }
    void raise(const std::string& path, std::uint32_t event) {
        for (Source* s : sources_) {
            if (s->path == path && s->resumed && (s->mask & event) != 0) {
                s->event(event);
            }
        }
    }
    bool refuse = false;

  private:
    struct Source final : FileEventSource {
        explicit Source(FakeFileEvents* o) : owner(o) {}
        ~Source() override { std::erase(owner->sources_, this); }
        Source(const Source&) = delete;
        Source& operator=(const Source&) = delete;
        void resume() override { resumed = true; }
        FakeFileEvents* owner;
        std::string path;
        std::uint32_t mask = 0;
        bool resumed = false;
        std::function<void(std::uint32_t)> event;
    };
    std::vector<Source*> sources_;
};

class FakeFileCoordination final : public FileCoordination {
  public:
    void addFilePresenter(FilePresenter& presenter, const std::string& path) override {
        presenters.emplace_back(&presenter, path);
    }
    std::vector<std::pair<FilePresenter*, std::string>> presenters;
};

}  // namespace tessary::testing
