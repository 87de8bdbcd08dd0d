#pragma once

#include "plist/value.h"

namespace tessary {

// The daemon's own information dictionary and job definition. The same two
// lists are linked into the executable (sections ".tessary_info" and
// ".tessary_job") so that an installed copy can be read from disk.
inline constexpr const char* kDaemonLabel = "com.orvane.tessaryd";
// The project's version, set by the build (see src/CMakeLists.txt).
inline constexpr const char* kDaemonVersion = TESSARY_DAEMON_VERSION;

plist::Value daemonInfoDictionary();
plist::Value daemonJobDefinition();

}  // namespace tessary
