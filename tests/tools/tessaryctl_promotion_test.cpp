// tessaryctl's promotion commands against a stand-in daemon on the real
// request channel.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>

#include <filesystem>
#include <map>

#include "backends/event_loop.h"
#include "platform/linux/unix_message_service.h"
#include "plist/codec.h"
#include "support/temp_dir.h"

extern char** environ;

namespace tessary {
namespace {

using namespace std::chrono_literals;
using plist::Value;

struct CtlRun {
    int exitCode = -1;
    std::string out;
    std::string err;
};

// Starts tessaryctl with ARGS, its output going to the files `out` and `err`.
pid_t startCtl(std::vector<std::string> args, const std::string& out, const std::string& err) {
    args.insert(args.begin(), TESSARYCTL);
    std::vector<char*> argv;
    for (auto& a : args) {
        argv.push_back(a.data());
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    pid_t pid = -1;
    if (posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ) != 0) {
        pid = -1;
    }
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

// A stand-in daemon: records each request and whether `marker` existed when
// it came, and answers it with the reply set for its command, else success
// with an empty result.
class TessaryctlPromotionTest : public ::testing::Test {
  protected:
    void SetUp() override {
        listener = service.createListener("com.orvane.tessaryd");
        ASSERT_NE(listener, nullptr);
        listener->setEventHandler([this](const ListenerEvent& e) {
            if (!e.connection) {
                return;
            }
            connections.push_back(e.connection);
            MessageConnection* c = e.connection.get();
            c->setEventHandler([this, c](const PeerEvent& pe) {
                if (pe.kind != PeerEvent::Kind::Message) {
                    return;
                }
                const Value request(pe.message->fields);
                const std::string command = *request.stringAt("commandString");
                commands.push_back(command + (std::filesystem::exists(marker) ? "+" : ""));
                auto it = replies.find(command);
                c->sendReply(*pe.message,
                             it != replies.end() ? it->second : success(plist::Dictionary{}));
            });
            c->activate();
        });
        listener->activate();
    }

    static plist::Dictionary success(const Value& result) {
        return {{"returnCodeInteger", Value::integer(0)},
                {"replyData", Value::data(plist::encode(result, plist::Format::Binary).value())}};
    }

    CtlRun run(std::vector<std::string> args, pid_t* pidOut = nullptr) {
        args.insert(args.begin(), {"--socket", path});
        const std::string out = dir / "out";
        const std::string err = dir / "err";
        const pid_t pid = startCtl(args, out, err);
        CtlRun r;
        if (pid < 0) {
            ADD_FAILURE() << "cannot start tessaryctl";
            return r;
        }
        int status = 0;
        EXPECT_TRUE(testing::runUntil(
            queue, [&] { return ::waitpid(pid, &status, WNOHANG) == pid; }, 15s));
        r.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        r.out = testing::readFile(out);
        r.err = testing::readFile(err);
        if (pidOut != nullptr) {
            *pidOut = pid;
        }
        return r;
    }

    testing::TempDir dir;
    std::string path = dir / "sock";
    std::string marker = dir / "marker";
    linux_backend::SdEventQueue queue;
    linux_backend::UnixMessageService service{queue, path};
    std::unique_ptr<MessageListener> listener;
    std::vector<std::shared_ptr<MessageConnection>> connections;
    std::vector<std::string> commands;  // "+" behind: the marker existed
    std::map<std::string, plist::Dictionary> replies;
};

TEST_F(TessaryctlPromotionTest, UsageErrorsExit64) {
    for (const std::vector<std::string>& line :
         std::vector<std::vector<std::string>>{{"promote"},
                                               {"promote", "--"},
                                               {"promote", "x", "--", "true"},
                                               {"--json", "promote", "--", "true"},
                                               {"demote", "x"},
                                               {"restore-services", "--job", "j"},
                                               {"begin-promotion", "--", "x"}}) {
        EXPECT_EQ(run(line).exitCode, 64) << line.front();
    }
    EXPECT_TRUE(commands.empty());
}

TEST_F(TessaryctlPromotionTest, OneRequestCommandsAndTheirOutput) {
    replies["restoreServices"] =
        success(plist::Dictionary{{"previouslyEnabledServices", plist::stringArray({"a", "b"})}});
    EXPECT_EQ(run({"restore-services"}).out, "a\nb\n");
    EXPECT_EQ(run({"--json", "restore-services"}).out,
              "{\"previouslyEnabledServices\":[\"a\",\"b\"]}\n");
    for (const char* name : {"begin-promotion", "end-promotion", "demote"}) {
        const CtlRun r = run({name});
        EXPECT_EQ(r.exitCode, 0) << name << r.err;
        EXPECT_EQ(r.out, "");
    }
    EXPECT_EQ(commands, (std::vector<std::string>{"restoreServices", "restoreServices",
                                                  "beginPromotion", "endPromotion", "demote"}));
}

// The daemon watches the process that began the promotion, so that must be
// tessaryctl itself, alive until the end is sent after COMMAND.
TEST_F(TessaryctlPromotionTest, PromoteBeginsRunsTheCommandAndEnds) {
    const std::string script = "echo $PPID > " + marker;
    pid_t pid = -1;
    const CtlRun r = run({"promote", "--", "/bin/sh", "-c", script}, &pid);
    EXPECT_EQ(r.exitCode, 0) << r.err;
    // Begun before COMMAND ran, ended after.
    EXPECT_EQ(commands, (std::vector<std::string>{"beginPromotion", "endPromotion+"}));
    EXPECT_EQ(testing::readFile(marker), std::to_string(pid) + "\n");  // COMMAND's parent
}

TEST_F(TessaryctlPromotionTest, AFailedCommandLeavesThePromotionUnended) {
    CtlRun r = run({"promote", "--", "/bin/sh", "-c", "exit 3"});
    EXPECT_EQ(r.exitCode, 3);
    EXPECT_NE(r.err.find("not ended"), std::string::npos) << r.err;
    r = run({"promote", "--", dir / "no-such-command"});
    EXPECT_EQ(r.exitCode, 127);
    EXPECT_EQ(commands, (std::vector<std::string>{"beginPromotion", "beginPromotion"}));

    // A refused begin runs nothing.
    commands.clear();
    replies["beginPromotion"] = plist::Dictionary{{"returnCodeInteger", Value::integer(1)}};
    r = run({"promote", "--", "/bin/sh", "-c", "touch " + marker});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_FALSE(std::filesystem::exists(marker));
    EXPECT_EQ(commands, std::vector<std::string>{"beginPromotion"});
}

}  // namespace
}  // namespace tessary
