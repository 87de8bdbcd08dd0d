#pragma once

#include "platform/backup_exclusion_service.h"
#include "platform/file_events.h"
#include "platform/power_assertion_service.h"
#include "platform/process_exit_watch.h"
#include "platform/running_applications.h"
#include "platform/system_power_notifier.h"
#include "platform/user_notice_service.h"

namespace tessary::linux_backend {

// What the daemon gets on a machine without the facility behind a role: each
// answers the way the role's callers treat a missing facility, and none
// pretends to have done anything.

// No sleep-preventing assertions: the id stays 0 and creation reports failure.
class NoPowerAssertions final : public PowerAssertionService {
  public:
    int createAssertion(const plist::Value& /*properties*/, std::uint32_t& id) override {
        id = 0;
        return -1;
    }
    int releaseAssertion(std::uint32_t /*id*/) override { return -1; }
};

// Registration is refused; the power watcher logs its warning and the
// daemon never becomes drowsy.
class NoSystemPowerNotifier final : public SystemPowerNotifier {
  public:
    Registration registerForSystemPower(Callback /*callback*/) override { return {}; }
    void setDispatchQueue(std::uint32_t /*port*/, MainQueue& /*queue*/) override {}
    void deregister(std::uint32_t /*notifier*/) override {}
    void destroyPort(std::uint32_t /*port*/) override {}
    void closeConnection(std::uint32_t /*connection*/) override {}
    void allowPowerChange(std::uint32_t /*connection*/, std::intptr_t /*argument*/) override {}
};

// No console user to tell: a non-zero code, which the caller logs.
class NoUserNotices final : public UserNoticeService {
  public:
    int displayNotice(const UserNotice& /*notice*/) override { return 1; }
};

// Linux keeps no system-wide list of paths excluded from backups.
class NoBackupExclusion final : public BackupExclusionService {
  public:
    int setExcluded(std::string_view /*path*/, bool /*exclude*/, bool /*byPath*/) override {
        return 1;
    }
};

// No console session known: no running applications.
class NoRunningApplications final : public RunningApplications {
  public:
    std::optional<std::vector<RunningApplication>> runningApplications() override {
        return std::nullopt;
    }
    std::optional<RunningApplication> frontmostApplication() override { return std::nullopt; }
    std::optional<RunningApplication> menuBarOwningApplication() override { return std::nullopt; }
    OperatingSystemVersion operatingSystemVersion() override { return {}; }
};

// Linux has no file-coordination service; nothing ever registers a writer.
class NoFileCoordination final : public FileCoordination {
  public:
    void addFilePresenter(FilePresenter& /*presenter*/, const std::string& /*path*/) override {}
};

}  // namespace tessary::linux_backend
