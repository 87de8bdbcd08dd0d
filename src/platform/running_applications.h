#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tessary {

struct RunningApplication {
    std::int32_t pid = 0;
    std::string bundleIdentifier;
};

struct OperatingSystemVersion {
    int major = 0;
    int minor = 0;
    int patch = 0;
};

// The applications of the user logged in at the console.
class RunningApplications {
  public:
    virtual ~RunningApplications() = default;
    virtual std::optional<std::vector<RunningApplication>> runningApplications() = 0;
    virtual std::optional<RunningApplication> frontmostApplication() = 0;
    virtual std::optional<RunningApplication> menuBarOwningApplication() = 0;
    virtual OperatingSystemVersion operatingSystemVersion() = 0;
};

}  // namespace tessary
