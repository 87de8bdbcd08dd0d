#pragma once

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

#include "platform/system_log.h"

namespace tessary::testing {

// Keeps every line exactly as written, with its level. Safe to write from the
// stop-all workers.
class RecordingSystemLog final : public SystemLog {
  public:
    struct Line {
        LogLevel level;
        std::string text;
    };

    void write(LogLevel level, std::string_view line) override {
        std::lock_guard lock(mutex_);
        lines_.push_back({level, std::string(line)});
    }

    std::vector<Line> entries() const {
        std::lock_guard lock(mutex_);
        return lines_;
    }
    std::vector<std::string> lines() const {
        std::lock_guard lock(mutex_);
        std::vector<std::string> out;
        for (const auto& l : lines_) {
            out.push_back(l.text);
        }
        return out;
    }
    // How many lines begin with `prefix`.
    std::size_t countStartingWith(const std::string& prefix) const {
        std::lock_guard lock(mutex_);
        return static_cast<std::size_t>(
            std::count_if(lines_.begin(), lines_.end(),
                          [&](const Line& l) { return l.text.starts_with(prefix); }));
    }
    bool empty() const {
        std::lock_guard lock(mutex_);
        return lines_.empty();
    }
    void clear() {
        std::lock_guard lock(mutex_);
        lines_.clear();
    }

  private:
    mutable std::mutex mutex_;
    std::vector<Line> lines_;
};

}  // namespace tessary::testing
