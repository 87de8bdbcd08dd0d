// Jobs whose program is /bin/sh run under bash, which keeps shopt and nullglob
// in its POSIX mode, with the job's arguments untouched. That this makes the
// uninstall clean-up job behave is tested against a real systemd in
// cleanup_jobs_test.cpp.
#include <gtest/gtest.h>

#include "platform/linux/systemd/unit_translation.h"
#include "systemd/unit_text.h"

namespace tessary::linux_backend {
namespace {

using plist::Dictionary;
using plist::Value;

testing::CommandLine execStart(Dictionary job) {
    job["Label"] = Value("com.example.shell");
    auto t = translateJob(Value(job), {});
    EXPECT_TRUE(t.ok()) << (t.ok() ? "" : t.error().description);
    if (!t.ok()) {
        return {};
    }
    const testing::UnitText unit = testing::UnitText::parse(t.value().units.at(0).text);
    const std::optional<std::string> execLine = unit.one("Service.ExecStart");
    EXPECT_TRUE(execLine.has_value());
    auto cmd = testing::parseExecStart(execLine.value_or(""));
    EXPECT_TRUE(cmd.has_value());
    return cmd.value_or(testing::CommandLine{});
}

TEST(ShellJobs, BinShRunsUnderBashWithArgvKept) {
    const std::string script = "shopt -s nullglob; echo \"$0\" \"$1\"";
    auto cmd = execStart(
        {{"ProgramArguments", plist::stringArray({"/bin/sh", "-c", script, "zero", "one"})}});
    EXPECT_EQ(cmd.path, "/bin/bash");
    EXPECT_EQ(cmd.argv, (std::vector<std::string>{"/bin/sh", "-c", script, "zero", "one"}));

    // Program names the shell; argv[0] is whatever the job says.
    cmd = execStart({{"Program", Value("/bin/sh")},
                     {"ProgramArguments", plist::stringArray({"cleanup", "-c", "true"})}});
    EXPECT_EQ(cmd.path, "/bin/bash");
    EXPECT_EQ(cmd.argv, (std::vector<std::string>{"cleanup", "-c", "true"}));

    // Only that exact path: other shells and other programs are left alone.
    for (const char* program : {"/bin/dash", "/usr/bin/sh", "/bin/sh2", "/bin/bash"}) {
        cmd = execStart({{"ProgramArguments", plist::stringArray({program, "-c", "true"})}});
        EXPECT_EQ(cmd.path, program);
    }
}

}  // namespace
}  // namespace tessary::linux_backend
