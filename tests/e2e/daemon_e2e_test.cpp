// The built daemon at work, reached through the client library, in the
// sandbox that daemon-sandbox.sh makes: a real systemd runs the jobs. What a
// user sees of the services (switching, overrides, dynamic services, polkit's
// answer for administrators and others) runs on the booted machine of
// tests/machine; here, what only a sandbox can set up.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

#include "client/tessary_client.h"
#include "support/process.h"
#include "support/value_printer.h"

namespace tessary {
namespace {

using namespace std::chrono_literals;
using plist::Dictionary;
using plist::Value;
namespace fs = std::filesystem;
using testing::eventually;

client::Reply ask(const std::string& command, Dictionary arguments = {}) {
    client::Request request{command, client::makeAuthorizationForm().value(), std::nullopt};
    if (!arguments.empty()) {
        request.arguments = std::move(arguments);
    }
    auto reply = client::sendRequest("/run/tessaryd/com.orvane.tessaryd", request, 20s);
    EXPECT_TRUE(reply.ok()) << (reply.ok() ? "" : reply.error().description);
    return reply.ok() ? reply.value() : client::Reply{};
}

std::string unitState(const std::string& label) {
    return testing::commandOutput("systemctl --user is-active " + label + ".service");
}

Value definitionOf(const std::string& label, Dictionary extra = {}) {
    extra.emplace("Label", Value(label));
    extra.emplace("ProgramArguments", Value(plist::stringArray({"/bin/sleep", "1000"})));
    return Value(std::move(extra));
}

// A load during which the service manager cannot be reached keeps a
// transient dynamic service, running and switched on, as it was.
TEST(DaemonEndToEnd, ATransientServiceSurvivesALoadWithoutTheManager) {
    const std::string label = "com.example.transient";
    const Value service(label);
    EXPECT_EQ(ask("create", {{"serviceDictionary",
                              definitionOf(label, {{"KeepAlive", Value::boolean(true)},
                                                   {"Transient", Value::boolean(true)}})}})
                  .returnCode,
              0);
    EXPECT_EQ(ask("enable", {{"service", service}}).returnCode, 0);
    EXPECT_TRUE(eventually([&] { return unitState(label) == "active"; }));

    // The manager's socket goes, and a re-execution closes the daemon's
    // connection, as in tests/e2e/faults.sh.
    ASSERT_EQ(std::system("umount /run/systemd/private && systemctl --user daemon-reexec"), 0);
    EXPECT_EQ(ask("restoreServices").returnCode, 0);
    ASSERT_EQ(std::system("mount --bind \"$XDG_RUNTIME_DIR/systemd/private\" /run/systemd/private"),
              0);

    const Value enabled = *ask("list").result->find("enabledServices");
    EXPECT_NE(std::find(enabled.array()->begin(), enabled.array()->end(), service),
              enabled.array()->end());
    EXPECT_EQ(unitState(label), "active");
    EXPECT_NE(testing::readFile("/run/tessaryd.syslog")
                  .find("WARNING: Unable to learn whether " + label + " is loaded; keeping it"),
              std::string::npos);
    EXPECT_EQ(ask("destroy", {{"service", service}}).returnCode, 0);
    EXPECT_TRUE(eventually([&] { return unitState(label) != "active"; }));
}

// Labels that must never become paths or directives. "create" takes any
// label; each job is refused where it would reach the service manager,
// nothing is written outside the unit directory, and the daemon stays up.
TEST(DaemonEndToEnd, HostileLabelsAreRefusedCleanly) {
    const std::vector<std::string> hostile = {
        "../../../tmp/tessary-escape",
        "com.example/slash",
        "..",
        "com.example\nExecStartPre=/bin/touch /tmp/tessary-escape2",
        std::string(10000, 'a'),
        "com.example bad name",
        ""};
    for (const std::string& label : hostile) {
        const Value service(label);
        EXPECT_EQ(ask("create", {{"serviceDictionary",
                                  definitionOf(label, {{"RunAtLoad", Value::boolean(true)}})}})
                      .returnCode,
                  0);
        EXPECT_EQ(ask("enable", {{"service", service}}).returnCode, 0);
        EXPECT_EQ(ask("programArguments",
                      {{"service", service},
                       {"programArguments", Value(plist::stringArray({"/bin/true"}))}})
                      .returnCode,
                  0);
        EXPECT_EQ(ask("destroy", {{"service", service}}).returnCode, 0);
    }
    EXPECT_FALSE(fs::exists("/tmp/tessary-escape.service"));
    EXPECT_FALSE(fs::exists("/tmp/tessary-escape"));
    EXPECT_FALSE(fs::exists("/tmp/tessary-escape2"));
    for (const auto& entry : fs::directory_iterator("/run/systemd/system")) {
        const std::string name = entry.path().filename().string();
        EXPECT_EQ(name.find("tessary-escape"), std::string::npos) << name;
        EXPECT_EQ(name.find("aaaaaaaaaa"), std::string::npos) << name;
    }
}

}  // namespace
}  // namespace tessary
