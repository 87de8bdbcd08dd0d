// tessary-install on a temporary root (without a service manager: --no-start)
// and tessaryd-generator into a temporary directory, for what the package
// test (which runs both against a real systemd, through an install, a boot
// from the generator's unit and a removal) does not reach: a reinstall over
// the package's own polkit action, and the refusals.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>

#include "support/process.h"

namespace tessary {
namespace {

namespace fs = std::filesystem;
using testing::readFile;
using testing::TempDir;
using testing::writeFile;

constexpr const char* kInstalledDaemon = "/Library/PrivilegedHelperTools/com.orvane.tessaryd";
constexpr const char* kJobDefinition = "/Library/LaunchDaemons/com.orvane.tessaryd.plist";
constexpr const char* kPolkitAction = "/usr/share/polkit-1/actions/com.orvane.tessaryd.policy";
constexpr const char* kDaemonCopy = "/Contents/Library/LaunchServices/com.orvane.tessaryd";

TEST(GeneratorTest, MakesNothingFromAMissingOrUnusableJobDefinition) {
    TempDir root;
    const std::string out = root / "generator";
    fs::create_directory(out);
    // Not installed, or demoted: a boot like any other.
    testing::ProcessRun r = testing::runProcess({TESSARYD_GENERATOR, "--root", root.path(), out});
    EXPECT_EQ(r.exitCode, 0) << r.output;
    writeFile(root / kJobDefinition, "<plist><dict><key>Label</key>");
    r = testing::runProcess({TESSARYD_GENERATOR, "--root", root.path(), out});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_NE(r.output.find(kJobDefinition), std::string::npos) << r.output;
    EXPECT_TRUE(fs::is_empty(out));
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

TEST_F(InstallTest, ReplacesTheDaemonAndLeavesThePackagesPolkitAction) {
    writeFile(root / kInstalledDaemon, "older daemon");
    writeFile(root / kPolkitAction, "the package's action");
    const testing::ProcessRun r = tessaryInstall({"--no-start"});
    ASSERT_EQ(r.exitCode, 0) << r.output;
    EXPECT_EQ(readFile(root / kInstalledDaemon),
              readFile(root / "Applications/Tessary.app" + kDaemonCopy));
    // Exactly the list the executable carries, as the package's source has it.
    EXPECT_EQ(readFile(root / kJobDefinition), readFile(JOB_PLIST));
    EXPECT_EQ(readFile(root / kPolkitAction), "the package's action");
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
