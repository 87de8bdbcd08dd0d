// tessary-install on a temporary root (without a service manager: --no-start,
// and an uninstall that finds none) and tessaryd-generator into a temporary
// directory. The package test runs both against a real systemd.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "support/process.h"

namespace tessary {
namespace {

namespace fs = std::filesystem;
using testing::readFile;
using testing::TempDir;
using testing::writeFile;

unsigned modeOf(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : 0;
}

std::vector<std::string> entriesOf(const std::string& directory) {
    std::vector<std::string> names;
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(directory, ec)) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

constexpr const char* kInstalledDaemon = "/Library/PrivilegedHelperTools/com.orvane.tessaryd";
constexpr const char* kJobDefinition = "/Library/LaunchDaemons/com.orvane.tessaryd.plist";
constexpr const char* kPolkitAction = "/usr/share/polkit-1/actions/com.orvane.tessaryd.policy";
constexpr const char* kDaemonCopy = "/Contents/Library/LaunchServices/com.orvane.tessaryd";

TEST(GeneratorTest, MakesTheDaemonsUnitFromAUsableJobDefinitionFileOnly) {
    TempDir root;
    const std::string out = root / "generator";
    fs::create_directory(out);

    // Not installed, or demoted: a boot like any other.
    testing::ProcessRun r = testing::runProcess({TESSARYD_GENERATOR, "--root", root.path(), out});
    EXPECT_EQ(r.exitCode, 0) << r.output;
    EXPECT_TRUE(entriesOf(out).empty());

    writeFile(root / kJobDefinition, "<plist><dict><key>Label</key>");
    r = testing::runProcess({TESSARYD_GENERATOR, "--root", root.path(), out});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_NE(r.output.find(kJobDefinition), std::string::npos) << r.output;
    EXPECT_TRUE(entriesOf(out).empty());

    writeFile(root / kJobDefinition, readFile(JOB_PLIST));
    r = testing::runProcess(
        {TESSARYD_GENERATOR, "--root", root.path(), out, out + ".early", out + ".late"});
    ASSERT_EQ(r.exitCode, 0) << r.output;
    EXPECT_EQ(entriesOf(out),
              (std::vector<std::string>{"com.orvane.tessaryd.service", "multi-user.target.wants"}));
    const std::string unit = readFile(out + "/com.orvane.tessaryd.service");
    EXPECT_NE(unit.find("\nExecStart=@\"/Library/PrivilegedHelperTools/com.orvane.tessaryd\" "
                        "\"/Library/PrivilegedHelperTools/com.orvane.tessaryd\"\n"),
              std::string::npos)
        << unit;
    EXPECT_NE(unit.find("\nRestart=always\n"), std::string::npos) << unit;
    EXPECT_EQ(fs::canonical(out + "/multi-user.target.wants/com.orvane.tessaryd.service"),
              fs::canonical(out + "/com.orvane.tessaryd.service"));
}

class InstallTest : public ::testing::Test {
  protected:
    void SetUp() override {
        fs::create_directories(root / "Applications");
        fs::copy(APP_BUNDLE, root / "Applications/Tessary.app", fs::copy_options::recursive);
    }

    testing::ProcessRun tessaryInstall(std::vector<std::string> args) {
        args.insert(args.begin(), {TESSARY_INSTALL, "--root", root.path()});
        return testing::runProcess(args);
    }

    TempDir root;
};

TEST_F(InstallTest, PutsTheDaemonItsJobDefinitionAndThePolkitActionInPlace) {
    const testing::ProcessRun r = tessaryInstall({"--no-start"});
    ASSERT_EQ(r.exitCode, 0) << r.output;

    EXPECT_EQ(readFile(root / kInstalledDaemon),
              readFile(root / "Applications/Tessary.app" + kDaemonCopy));
    EXPECT_EQ(modeOf(root / kInstalledDaemon), 0755U);
    // Exactly the list the executable carries, as the package's source has it.
    EXPECT_EQ(readFile(root / kJobDefinition), readFile(JOB_PLIST));
    EXPECT_EQ(modeOf(root / kJobDefinition), 0644U);
    EXPECT_EQ(readFile(root / kPolkitAction), readFile(POLICY));
    EXPECT_EQ(entriesOf(root / "Library/PrivilegedHelperTools"),
              std::vector<std::string>{"com.orvane.tessaryd"});

    // Again, over an older daemon and with the package's own polkit action:
    // the daemon is replaced, the action left alone.
    writeFile(root / kInstalledDaemon, "older daemon");
    writeFile(root / kPolkitAction, "the package's action");
    ASSERT_EQ(tessaryInstall({"--no-start"}).exitCode, 0);
    EXPECT_EQ(readFile(root / kInstalledDaemon),
              readFile(root / "Applications/Tessary.app" + kDaemonCopy));
    EXPECT_EQ(readFile(root / kPolkitAction), "the package's action");
}

TEST_F(InstallTest, UninstallRemovesTheDaemonsFilesAndKeepsThePreferences) {
    ASSERT_EQ(tessaryInstall({"--no-start"}).exitCode, 0);
    // What the daemon adds when it runs.
    writeFile(root / "Library/Application Support/Orvane/Tessary/AppIcon.icns", "icon");
    writeFile(root / "Library/Tessary/Setup/com.orvane.tessaryd.plist", "preferences");

    const testing::ProcessRun r = tessaryInstall({"--uninstall"});
    ASSERT_EQ(r.exitCode, 0) << r.output;

    EXPECT_EQ(entriesOf(root / "Library"), std::vector<std::string>{"Tessary"});
    EXPECT_EQ(readFile(root / "Library/Tessary/Setup/com.orvane.tessaryd.plist"), "preferences");
    EXPECT_TRUE(fs::exists(root / kPolkitAction));  // the package's to remove
    EXPECT_TRUE(fs::exists(root / "Applications/Tessary.app"));
}

TEST_F(InstallTest, RefusesADaemonWithoutAJobDefinitionAndWritesNothing) {
    const std::string bundle = root / "Applications/Tessary.app";
    fs::copy_file("/bin/true", bundle + kDaemonCopy, fs::copy_options::overwrite_existing);
    const testing::ProcessRun r = tessaryInstall({"--no-start"});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_NE(r.output.find("No job definition in"), std::string::npos) << r.output;
    EXPECT_EQ(std::count(r.output.begin(), r.output.end(), '\n'), 1) << r.output;
    EXPECT_FALSE(fs::exists(root / "Library"));
}

}  // namespace
}  // namespace tessary
