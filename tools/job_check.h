#pragma once

#include <optional>
#include <string>

#include "platform/linux/systemd/unit_translation.h"
#include "plist/value.h"

namespace tessary::client {

// What the daemon's backend translates jobs with on this machine: the helper
// directory, the service manager's default limits (asked of systemd on the
// system bus, or on its private socket for root) and the services database.
linux_backend::TranslationOptions hostTranslationOptions();

// `tessaryctl check`: a service definition read against systemd on the spot,
// as the daemon would submit it, without asking the daemon. Prints the units
// it becomes and every key mapped approximately, ignored or refused, with the
// reason (as text, or one JSON object); 0 when it would run, 1 when refused.
int printJobCheck(const plist::Value& definition, bool json);

// Why the daemon's backend would refuse to submit the definition on this
// machine, as `check` finds it ("Job LABEL: KEY: why"); nothing when it runs.
std::optional<std::string> jobRefusal(const plist::Value& definition);

}  // namespace tessary::client
