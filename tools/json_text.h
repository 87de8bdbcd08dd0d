#pragma once

#include <string>
#include <string_view>

#include "plist/value.h"

namespace tessary::client {

// `s` as a JSON string, quotes included.
void appendJsonString(std::string& out, std::string_view s);

// JSON for a property list: data as base64 text, dates as ISO 8601 text.
void appendJson(std::string& out, const plist::Value& v);

}  // namespace tessary::client
