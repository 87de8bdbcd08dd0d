#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <cstring>
#include <sstream>

#include "backends/event_loop.h"
#include "base/unique_fd.h"
#include "platform/linux/peer_identity.h"
#include "platform/linux/unix_message_service.h"
#include "plist/codec.h"
#include "support/temp_dir.h"
#include "support/value_printer.h"

extern char** environ;

namespace tessary {
namespace {

using namespace std::chrono_literals;
using plist::Value;

struct CtlRun {
    pid_t pid = -1;
    int exitCode = -1;
    std::string out;  // and errors
};

// Runs tessaryctl with `line` split at blanks, turning `queue` (when given)
// until it exits.
CtlRun runCtl(const std::string& line, linux_backend::SdEventQueue* queue = nullptr) {
    std::vector<std::string> args{TESSARYCTL};
    std::istringstream in(line);
    for (std::string w; in >> w;) {
        args.push_back(w);
    }
    std::vector<char*> argv;
    for (auto& a : args) {
        argv.push_back(a.data());
    }
    argv.push_back(nullptr);
    testing::TempDir dir;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, (dir / "out").c_str(), O_WRONLY | O_CREAT, 0600);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    CtlRun run;
    int status = 0;
    if (posix_spawn(&run.pid, argv[0], &actions, nullptr, argv.data(), environ) == 0) {
        auto exited = [&] { return ::waitpid(run.pid, &status, WNOHANG) == run.pid; };
        if (queue == nullptr) {
            ::waitpid(run.pid, &status, 0);
        } else if (!testing::runUntil(*queue, exited, 15s)) {
            ::kill(run.pid, SIGKILL);
            ::waitpid(run.pid, &status, 0);
        }
        run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    posix_spawn_file_actions_destroy(&actions);
    run.out = testing::readFile(dir / "out");
    return run;
}

TEST(Tessaryctl, ExitCodesWithoutADaemon) {
    for (const char* line :
         {"", "frobnicate", "enable", "enable a b", "list extra", "list --job j",
          "status --file /dev/null", "create", "enable a -- x", "program-arguments a --",
          "--timeout soon status", "--timeout -1 status", "--bogus status", "status --socket",
          "sockets a --file /nonexistent/file.plist"}) {
        const CtlRun run = runCtl(line);
        EXPECT_EQ(run.exitCode, 64) << line;
        EXPECT_NE(run.out.find("usage"), std::string::npos) << line;
    }
    EXPECT_EQ(runCtl("--help").exitCode, 0);

    testing::TempDir dir;
    EXPECT_EQ(runCtl("--socket " + dir / "none" + " status").exitCode, 2);
    // A socket file that nobody listens on.
    UniqueFd bound(::socket(AF_UNIX, SOCK_SEQPACKET, 0));
    sockaddr_un a{AF_UNIX, {}};
    std::strncpy(a.sun_path, (dir / "sock").c_str(), sizeof a.sun_path - 1);
    ASSERT_EQ(::bind(bound.get(), reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    EXPECT_EQ(runCtl("--socket " + dir / "sock" + " status").exitCode, 2);
}

// tessaryctl against a stand-in daemon on the real request channel: what it
// sends, and what it makes of the answers.
TEST(Tessaryctl, RoundTripsWithAStandInDaemon) {
    testing::TempDir dir;
    linux_backend::SdEventQueue queue;
    linux_backend::UnixMessageService service{queue, dir / "sock"};
    std::vector<std::shared_ptr<MessageConnection>> connections;
    std::vector<Value> requests;
    const Value services(plist::Dictionary{{"enabledServices", plist::stringArray({"a", "c"})},
                                           {"disabledServices", plist::stringArray({"b"})}});
    // Any other command gets no reply.
    const std::map<std::string, plist::Dictionary> replies = {
        {"list",
         {{"returnCodeInteger", Value::integer(0)},
          {"replyData", Value::data(plist::encode(services, plist::Format::Binary).value())}}},
        {"enable", {{"returnCodeInteger", Value::integer(1)}}}};
    auto listener = service.createListener("com.orvane.tessaryd");
    ASSERT_NE(listener, nullptr);
    listener->setEventHandler([&](const ListenerEvent& e) {
        ASSERT_NE(e.connection, nullptr) << e.description;
        connections.push_back(e.connection);
        MessageConnection* c = e.connection.get();
        c->setEventHandler([&, c](const PeerEvent& pe) {
            if (pe.kind != PeerEvent::Kind::Message) {
                return;
            }
            requests.emplace_back(pe.message->fields);
            if (auto it = replies.find(*requests.back().stringAt("commandString"));
                it != replies.end()) {
                c->sendReply(*pe.message, it->second);
            }
        });
        c->activate();
    });
    listener->activate();
    auto run = [&](const std::string& line) {
        return runCtl("--socket " + dir / "sock" + " " + line, &queue);
    };

    const CtlRun list = run("list");
    EXPECT_EQ(list.exitCode, 0) << list.out;
    EXPECT_EQ(list.out, "enabled   a\nenabled   c\ndisabled  b\n");
    ASSERT_EQ(requests.size(), 1U);
    EXPECT_EQ(requests[0].find("argumentsData"), nullptr);
    // The form passed the channel's check: it names the tessaryctl process.
    const Value* form = requests[0].find(linux_backend::UnixMessageService::kFormKey);
    ASSERT_NE(form, nullptr);
    auto identity = linux_backend::decodeExternalForm(*form->data());
    ASSERT_TRUE(identity);
    EXPECT_EQ(identity->pid, static_cast<std::uint32_t>(list.pid));
    EXPECT_EQ(run("enable a").exitCode, 1);
    const CtlRun silent = run("--timeout 0.2 disable a");
    EXPECT_EQ(silent.exitCode, 2);
    EXPECT_NE(silent.out.find("no reply"), std::string::npos) << silent.out;
}

}  // namespace
}  // namespace tessary
