#pragma once

#include <map>
#include <vector>

#include "platform/backup_exclusion_service.h"
#include "platform/bundle_info.h"
#include "platform/product_info.h"
#include "platform/running_applications.h"
#include "platform/user_notice_service.h"

namespace tessary::testing {

class FakeUserNotices final : public UserNoticeService {
  public:
    int displayNotice(const UserNotice& notice) override {
        shown.push_back(notice);
        return result;
    }
    std::vector<UserNotice> shown;
    int result = 0;
};

class FakeBackupExclusion final : public BackupExclusionService {
  public:
    int setExcluded(std::string_view /*path*/, bool /*exclude*/, bool /*byPath*/) override {
        return 0;
    }
};

class FakeProductInfo final : public ProductInfo {
  public:
    std::optional<std::string> tessaryVersion() override { return installed; }
    std::optional<std::string> minimumTessaryVersion() override { return minimum; }
    std::optional<std::string> installed;
    std::optional<std::string> minimum;
};

// Information dictionaries by path, as a test sets them up.
class FakeBundleInfo final : public BundleInfo {
  public:
    std::optional<plist::Value> infoDictionary(std::string_view path) override {
        auto it = dictionaries.find(std::string(path));
        return it == dictionaries.end() ? std::nullopt : std::optional<plist::Value>(it->second);
    }
    std::optional<std::string> mainExecutablePath(std::string_view bundlePath) override {
        auto it = executables.find(std::string(bundlePath));
        return it == executables.end() ? std::nullopt : std::optional<std::string>(it->second);
    }
    std::map<std::string, plist::Value> dictionaries;
    std::map<std::string, std::string> executables;
};

class FakeRunningApplications final : public RunningApplications {
  public:
    std::optional<std::vector<RunningApplication>> runningApplications() override { return apps; }
    std::optional<RunningApplication> frontmostApplication() override { return frontmost; }
    std::optional<RunningApplication> menuBarOwningApplication() override { return std::nullopt; }
    OperatingSystemVersion operatingSystemVersion() override { return version; }

    std::optional<std::vector<RunningApplication>> apps;
    std::optional<RunningApplication> frontmost;
    OperatingSystemVersion version{10, 12, 0};
};

}  // namespace tessary::testing
