#include "daemon/daemon_info.h"

#include "platform/paths.h"

namespace tessary {

using plist::Array;
using plist::Dictionary;
using plist::Value;

plist::Value daemonInfoDictionary() {
    return Value(Dictionary{
        {"CFBundleIdentifier", Value(kDaemonLabel)},
        {"CFBundleName", Value("tessaryd")},
        {"CFBundleVersion", Value(kDaemonVersion)},
        {"CFBundleInfoDictionaryVersion", Value("6.0")},
        // The clients allowed to install the daemon: the app, signed by its
        // maker. Linux checks nothing of it; it is carried for the app.
        {"SMAuthorizedClients",
         Value(Array{Value("identifier \"com.orvane.Tessary.v4\" and anchor platform generic and "
                           "(certificate leaf[maker.distribution] or "
                           "certificate leaf[maker.development])")})},
    });
}

plist::Value daemonJobDefinition() {
    return Value(Dictionary{
        {"Label", Value(kDaemonLabel)},
        {"ProgramArguments", Value(Array{Value(Paths::kInstalledDaemon)})},
        {"MachServices", Value(Dictionary{{kDaemonLabel, Value::boolean(true)}})},
        {"OnDemand", Value::boolean(false)},
    });
}

}  // namespace tessary
