#pragma once

#include <string>
#include <string_view>

namespace tessary {

// Every fixed path of the daemon, made from one root directory: "/" in the
// daemon, a temporary directory in tests. The constants are the paths as the
// system knows them; the accessors are where they are on this root.
class Paths {
  public:
    static constexpr std::string_view kPreferencesFile =
        "/Library/Tessary/Setup/com.orvane.tessaryd.plist";
    static constexpr std::string_view kSetupDirectory = "/Library/Tessary/Setup";
    static constexpr std::string_view kLegacyPreferencesFile =
        "/Library/Preferences/com.orvane.tessaryd.plist";
    static constexpr std::string_view kLibraryDirectory = "/Library";
    static constexpr std::string_view kSetupDoneMarker = "/var/db/.TessarySetupDone";
    static constexpr std::string_view kAppBundle = "/Applications/Tessary.app";
    static constexpr std::string_view kAppResources =
        "/Applications/Tessary.app/Contents/Resources";
    static constexpr std::string_view kInstallPathPrefix =
        "/Applications/Tessary.app/Contents/TessaryRoot";
    static constexpr std::string_view kBuiltInDefinitions =
        "/Applications/Tessary.app/Contents/TessaryRoot/System/Library/LaunchDaemons";
    static constexpr std::string_view kInstalledDaemon =
        "/Library/PrivilegedHelperTools/com.orvane.tessaryd";
    static constexpr std::string_view kAppDaemonCopy =
        "/Applications/Tessary.app/Contents/Library/LaunchServices/com.orvane.tessaryd";
    static constexpr std::string_view kDaemonJobDefinition =
        "/Library/LaunchDaemons/com.orvane.tessaryd.plist";
    static constexpr std::string_view kSupportDirectory =
        "/Library/Application Support/Orvane/Tessary";
    static constexpr std::string_view kUninstallExtras = "/Library/Tessary/.UninstallExtras";
    static constexpr std::string_view kAppIconName = "AppIcon.icns";
    // Linux facilities.
    // The request socket sits in a directory of its own: the daemon's
    // sandbox keeps /run read-only and lets it write only there.
    static constexpr std::string_view kRequestSocket = "/run/tessaryd/com.orvane.tessaryd";
    static constexpr std::string_view kSystemdPrivateSocket = "/run/systemd/private";
    static constexpr std::string_view kSystemdUnitDirectory = "/run/systemd/system";
    // The project's helper commands (jobtool, syslog), which the clean-up jobs
    // call by name: first on the search path of every job, as systemd sees it.
    static constexpr std::string_view kHelperBinDirectory = "/usr/lib/tessary/bin";
    // Where the system manager's generators write; the daemon's unit is made
    // there at boot.
    static constexpr std::string_view kSystemdGeneratorDirectory = "/run/systemd/generator";

    explicit Paths(std::string root = "/");

    const std::string& root() const { return root_; }
    // `absolute` as it lies under this root.
    std::string resolve(std::string_view absolute) const;

    std::string preferencesFile() const { return resolve(kPreferencesFile); }
    std::string setupDirectory() const { return resolve(kSetupDirectory); }
    std::string legacyPreferencesFile() const { return resolve(kLegacyPreferencesFile); }
    std::string libraryDirectory() const { return resolve(kLibraryDirectory); }
    std::string setupDoneMarker() const { return resolve(kSetupDoneMarker); }
    std::string appBundle() const { return resolve(kAppBundle); }
    std::string appResources() const { return resolve(kAppResources); }
    std::string builtInDefinitions() const { return resolve(kBuiltInDefinitions); }
    std::string installedDaemon() const { return resolve(kInstalledDaemon); }
    std::string appDaemonCopy() const { return resolve(kAppDaemonCopy); }
    std::string daemonJobDefinition() const { return resolve(kDaemonJobDefinition); }
    std::string supportDirectory() const { return resolve(kSupportDirectory); }
    std::string uninstallExtras() const { return resolve(kUninstallExtras); }
    std::string requestSocket() const { return resolve(kRequestSocket); }
    std::string systemdPrivateSocket() const { return resolve(kSystemdPrivateSocket); }
    std::string systemdUnitDirectory() const { return resolve(kSystemdUnitDirectory); }
    std::string systemdGeneratorDirectory() const { return resolve(kSystemdGeneratorDirectory); }

  private:
    std::string root_;
};

}  // namespace tessary
