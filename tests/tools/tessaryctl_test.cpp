// tessaryctl against a stand-in daemon on the real request channel: what it
// sends, and what it makes of the answers.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <regex>
#include <set>

#include "backends/event_loop.h"
#include "doubles/recording_system_log.h"
#include "platform/linux/ipc/peer_identity.h"
#include "platform/linux/ipc/unix_message_service.h"
#include "plist/codec.h"
#include "support/process.h"

namespace tessary {
namespace {

using namespace std::chrono_literals;
using plist::Value;
using Strings = std::vector<std::string>;

plist::Dictionary success(const Value& result) {
    return {{"returnCodeInteger", Value::integer(0)},
            {"replyData", Value::data(plist::encode(result, plist::Format::Binary).value())}};
}

TEST(Tessaryctl, UsageErrorsAndNoDaemon) {
    testing::TempDir dir;
    const std::string none = dir / "none";
    for (const Strings& args : std::vector<Strings>{{"frobnicate"},
                                                    {"enable", "a", "b"},
                                                    {"list", "--job", "j"},
                                                    {"--timeout", "-1", "status"},
                                                    {"promote", "--"},
                                                    {"--json", "promote", "--", "true"}}) {
        Strings argv{TESSARYCTL, "--socket", none};
        argv.insert(argv.end(), args.begin(), args.end());
        const auto run = testing::runProcess(argv);
        EXPECT_EQ(run.exitCode, 64) << ::testing::PrintToString(args);
        EXPECT_TRUE(run.output.ends_with("\nTry 'tessaryctl --help'.\n"))
            << ::testing::PrintToString(args) << run.output;
    }
    EXPECT_EQ(testing::runProcess({TESSARYCTL, "--socket", none, "status"}).exitCode, 2);

    // check asks nothing of the daemon: its verdict is the exit status.
    for (const auto& [program, status] :
         std::vector<std::pair<std::string, int>>{{"/bin/true", 0}, {"+/bin/true", 1}}) {
        testing::writeFile(dir / "job.plist",
                           "<plist version=\"1.0\"><dict><key>Label</key><string>a.b</string>"
                           "<key>Program</key><string>" +
                               program + "</string></dict></plist>");
        const auto run = testing::runProcess(
            {TESSARYCTL, "--socket", none, "check", "--file", dir / "job.plist"});
        EXPECT_EQ(run.exitCode, status) << run.output;
        EXPECT_NE(run.output.find(status == 0 ? "ExecStart=@\"/bin/true\"" : "refused: Program"),
                  std::string::npos)
            << run.output;
    }
}

// A stand-in daemon: records each request, and whether `marker` existed when
// it came ("+" behind the command), and answers with the reply set for its
// command, else success with an empty result; commands in `silent` get none.
class TessaryctlTest : public ::testing::Test {
  protected:
    void SetUp() override {
        listener = service.createListener("com.orvane.tessaryd");
        ASSERT_NE(listener, nullptr);
        listener->setEventHandler([this](const ListenerEvent& e) {
            ASSERT_NE(e.connection, nullptr) << e.description;
            connections.push_back(e.connection);
            MessageConnection* c = e.connection.get();
            c->setEventHandler([this, c](const PeerEvent& pe) {
                if (pe.kind != PeerEvent::Kind::Message) {
                    return;
                }
                requests.emplace_back(pe.message->fields);
                const std::string command = *requests.back().stringAt("commandString");
                commands.push_back(command + (std::filesystem::exists(marker) ? "+" : ""));
                if (silent.count(command) == 0) {
                    auto it = replies.find(command);
                    c->sendReply(*pe.message,
                                 it != replies.end() ? it->second : success(plist::Dictionary{}));
                }
            });
            c->activate();
        });
        listener->activate();
    }

    testing::ProcessRun run(Strings args) {
        args.insert(args.begin(), {TESSARYCTL, "--socket", path});
        return testing::runProcess(args, [this] { testing::runFor(queue, 1ms); });
    }

    testing::TempDir dir;
    std::string path = dir / "sock";
    std::string marker = dir / "marker";
    linux_backend::SdEventQueue queue;
    testing::RecordingSystemLog log;
    linux_backend::UnixMessageService service{queue, log, path};
    std::unique_ptr<MessageListener> listener;
    std::vector<std::shared_ptr<MessageConnection>> connections;
    std::vector<Value> requests;
    Strings commands;
    std::map<std::string, plist::Dictionary> replies;
    std::set<std::string> silent;
};

TEST_F(TessaryctlTest, OneRequestCommandsAndTheirOutput) {
    replies["list"] = success(plist::Dictionary{{"enabledServices", plist::stringArray({"a", "c"})},
                                                {"disabledServices", plist::stringArray({"b"})}});
    replies["enable"] = {{"returnCodeInteger", Value::integer(1)}};
    replies["restoreServices"] =
        success(plist::Dictionary{{"previouslyEnabledServices", plist::stringArray({"a", "b"})}});
    silent.insert("disable");

    const auto list = run({"list"});
    EXPECT_EQ(list.exitCode, 0) << list.output;
    // Each switch, what the service manager says of the service (none runs
    // here), the label.
    EXPECT_TRUE(std::regex_match(list.output, std::regex("enabled   [a-z ]{24}  a\n"
                                                         "enabled   [a-z ]{24}  c\n"
                                                         "disabled  [a-z ]{24}  b\n")))
        << list.output;
    EXPECT_EQ(requests[0].find("argumentsData"), nullptr);

    // A refusal that the list does not explain ("a" is listed) names the
    // command; without the list, it says what a refusal can mean.
    const auto refused = run({"enable", "a"});
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_EQ(refused.output,
              "tessaryctl: the daemon refused \"enable\"; its journal may say why: journalctl -t "
              "com.orvane.tessaryd\n");
    const auto unanswered = run({"--timeout", "0.2", "disable", "a"});
    EXPECT_EQ(unanswered.exitCode, 2);
    EXPECT_NE(unanswered.output.find("no reply"), std::string::npos) << unanswered.output;
    silent = {"list"};
    EXPECT_EQ(run({"--timeout", "0.2", "enable", "a"}).output,
              "tessaryctl: the daemon refused \"enable\": not allowed, or no such service\n");
    silent.clear();

    // A status that is not "configured" says what it means and what sets
    // the machine up; --json carries the word alone.
    replies["status"] = success(plist::Dictionary{{"status", Value("unconfigured")}});
    const auto status = run({"status"});
    EXPECT_TRUE(status.output.starts_with("unconfigured\n")) << status.output;
    EXPECT_NE(status.output.find("tessaryctl promote -- true"), std::string::npos);
    EXPECT_EQ(run({"--json", "status"}).output, "{\"status\":\"unconfigured\"}\n");

    EXPECT_EQ(run({"--json", "restore-services"}).output,
              "{\"previouslyEnabledServices\":[\"a\",\"b\"]}\n");
    EXPECT_EQ(run({"demote"}).output, "");
    // A refusal is followed by the list, which tells what the client can
    // learn of it.
    EXPECT_EQ(commands, (Strings{"list", "enable", "list", "disable", "enable", "list", "status",
                                 "status", "restoreServices", "demote"}));
}

// "--file -" takes the property list from standard input, as a program
// driving tessaryctl hands it; what is not one is a usage error.
TEST_F(TessaryctlTest, APropertyListFromStandardInput) {
    const std::string input = dir / "input";
    const auto fromInput = [&](const std::string& text) {
        testing::writeFile(input, text);
        return testing::runProcess(
            {TESSARYCTL, "--socket", path, "create", "--file", "-"},
            [this] { testing::runFor(queue, 1ms); },
            [&] { return ::dup2(::open(input.c_str(), O_RDONLY), STDIN_FILENO) == STDIN_FILENO; });
    };
    EXPECT_EQ(fromInput("<plist><dict><key>Label</key><string>a.b</string><key>Program</key>"
                        "<string>/bin/true</string></dict></plist>")
                  .exitCode,
              0);
    ASSERT_EQ(commands, Strings{"create"});
    auto args = plist::decode(*requests[0].find("argumentsData")->data());
    ASSERT_TRUE(args);
    EXPECT_EQ(args.value().find("serviceDictionary")->find("Label")->description(), "a.b");
    EXPECT_EQ(fromInput("<plist><dict>").exitCode, 64);
    EXPECT_EQ(commands.size(), 1U);
}

// The daemon watches the process that began the promotion, so that must be
// tessaryctl itself, alive until the end is sent after COMMAND; a failed
// COMMAND or a refused begin leaves the promotion unended.
TEST_F(TessaryctlTest, PromoteBeginsRunsTheCommandAndEnds) {
    auto r = run({"promote", "--", "/bin/sh", "-c", "echo $PPID > " + marker});
    EXPECT_EQ(r.exitCode, 0) << r.output;
    EXPECT_EQ(commands, (Strings{"beginPromotion", "endPromotion+"}));
    EXPECT_EQ(testing::readFile(marker), std::to_string(r.pid) + "\n");  // COMMAND's parent
    std::filesystem::remove(marker);

    commands.clear();
    r = run({"promote", "--", "/bin/sh", "-c", "exit 3"});
    EXPECT_EQ(r.exitCode, 3);
    EXPECT_NE(r.output.find("not ended"), std::string::npos) << r.output;
    EXPECT_EQ(run({"promote", "--", dir / "no-such-command"}).exitCode, 127);
    replies["beginPromotion"] = {{"returnCodeInteger", Value::integer(1)}};
    EXPECT_EQ(run({"promote", "--", "/bin/sh", "-c", "touch " + marker}).exitCode, 1);
    EXPECT_FALSE(std::filesystem::exists(marker));
    EXPECT_EQ(commands, (Strings{"beginPromotion", "beginPromotion", "beginPromotion", "list"}));
}

}  // namespace
}  // namespace tessary
