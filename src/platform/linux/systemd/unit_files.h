#pragma once

// The unit files of the backend's jobs: written and deleted in the unit
// directory, and told apart from every other unit the manager has.

#include <string>
#include <string_view>

#include "base/error.h"
#include "platform/linux/systemd/systemd_service_manager.h"
#include "platform/linux/systemd/unit_translation.h"

namespace tessary::linux_backend {

// Writes a unit file so that the manager sees the old file or the new one,
// never a part.
Status writeUnitFile(const std::string& directory, const UnitFile& unit);
Status removeUnitFile(const std::string& directory, const std::string& name);
bool unitFileExists(const std::string& directory, const std::string& name);

// Whether `unit` is one of the units the generator makes for the one job
// it knows (the daemon's own).
bool generatedUnit(const SystemdServiceManagerOptions& options, std::string_view unit);
// Whether the manager's file for `unit`, `fragment`, is one of the backend's.
bool ownFragment(const SystemdServiceManagerOptions& options, const std::string& unit,
                 const std::string& fragment);
bool inGeneratorDirectory(const SystemdServiceManagerOptions& options, const std::string& unit,
                          const std::string& fragment);

// The instance by which the manager is asked about the template
// `templateUnit` ("NAME@.service"): "NAME@tessaryd-probe.service", which
// loads from the template's file and is dropped again by the manager.
std::string templateProbe(const std::string& templateUnit);

}  // namespace tessary::linux_backend
