#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <random>
#include <thread>

#include "plist/codec.h"
#include "support/temp_dir.h"

namespace tessary {
namespace {

// A writer killed at any instant leaves the previous whole file or the new
// whole file, never a torn one.
TEST(PreferencesDurability, KilledWriterAlwaysLeavesAWholeState) {
    testing::TempDir root;
    const std::string setup = root / "Library/Tessary/Setup";
    std::filesystem::create_directories(setup);
    const std::string file = setup + "/com.orvane.tessaryd.plist";
    std::mt19937 rng(std::random_device{}());
    int kills = 0;
    for (int round = 0; round < 40; ++round) {
        const pid_t pid = ::fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            ::execl(PREFS_WRITER, PREFS_WRITER, root.path().c_str(), nullptr);
            ::_exit(127);
        }
        std::this_thread::sleep_for(std::chrono::microseconds(2000 + rng() % 30000));
        ASSERT_EQ(::kill(pid, SIGKILL), 0);
        int status = 0;
        ASSERT_EQ(::waitpid(pid, &status, 0), pid);
        ASSERT_TRUE(WIFSIGNALED(status)) << "writer ended by itself with " << status;
        ++kills;

        if (!std::filesystem::exists(file)) {
            continue;  // killed before its first rename
        }
        auto decoded = plist::decode(std::string_view(testing::readFile(file)));
        ASSERT_TRUE(decoded.ok()) << decoded.error().description;
        const std::string* version = decoded.value().stringAt("version");
        ASSERT_NE(version, nullptr);
        const long i = std::stol(*version);
        const auto* labels = decoded.value().find("enabledServices")->array();
        ASSERT_NE(labels, nullptr);
        ASSERT_EQ(static_cast<long>(labels->size()), i % 50 + 1);
        EXPECT_EQ(*labels->back().string(), "com.example.service" + std::to_string(i % 50));
    }
    EXPECT_EQ(kills, 40);
}

}  // namespace
}  // namespace tessary
