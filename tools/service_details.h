#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/file_operations.h"
#include "platform/paths.h"
#include "plist/value.h"
#include "prefs/preferences.h"

namespace tessary::client {

// A service as a front end shows it whole, read beside the daemon from the
// files it loads: the definition it was built from (the first built-in
// definition of the label, else the stored description of a service created
// at run time), whether it was created at run time, and for each setting the
// daemon lets a user override (program arguments, sockets, calendar start
// times) the definition's value and the override kept for its job.
//
// A dictionary: "service", "job" (the label), "dynamic" (boolean),
// "definition" (the definition as XML property-list text), and
// "programArguments", "sockets", "startCalendarIntervals", each a dictionary
// with "definition" and "override" where there is one. Program arguments are
// arrays of strings; sockets and calendar start times are XML text, the form
// a person reads and edits them in. Nothing when no definition carries the
// label.
std::optional<plist::Value> serviceDetails(const Paths& paths, FileOperations& files,
                                           const TYSupervisorPreferences& preferences,
                                           std::string_view label);

}  // namespace tessary::client
