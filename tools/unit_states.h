#pragma once

#include <map>
#include <string>
#include <vector>

namespace tessary::client {

// What the service manager says of each service's units (LABEL.service, and
// LABEL.socket, LABEL.timer or LABEL.path when it has them, or the instances
// serving its connections): "running", "waiting for a connection", "waiting
// for its timer", "waiting for a path", "failed" or "stopped"; "invalid" for
// a label that can name no unit, whose job therefore never runs. Asked
// read-only, of systemd on the system bus, or on its private socket for root
// when the bus has no systemd; only the invalid labels when neither answers.
std::map<std::string, std::string> unitStates(const std::vector<std::string>& labels);

}  // namespace tessary::client
