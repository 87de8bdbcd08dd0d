#include <fcntl.h>
#include <gtest/gtest.h>
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

extern char** environ;

namespace tessary {
namespace {

using namespace std::chrono_literals;
using plist::Value;

struct CtlRun {
    pid_t pid = -1;
    int exitCode = -1;
    std::string out;
    std::string err;
};

// Starts tessaryctl with its output going to files in `dir`.
CtlRun startCtl(const testing::TempDir& dir, const std::vector<std::string>& args) {
    std::vector<std::string> all{TESSARYCTL};
    all.insert(all.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& a : all) {
        argv.push_back(a.data());
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    const std::string out = dir / "out";
    const std::string err = dir / "err";
    posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    CtlRun run;
    if (posix_spawn(&run.pid, argv[0], &actions, nullptr, argv.data(), environ) != 0) {
        run.pid = -1;
    }
    posix_spawn_file_actions_destroy(&actions);
    return run;
}

void collect(const testing::TempDir& dir, CtlRun& run, int status) {
    run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    run.out = testing::readFile(dir / "out");
    run.err = testing::readFile(dir / "err");
}

CtlRun runCtl(const std::vector<std::string>& args) {
    testing::TempDir dir;
    CtlRun run = startCtl(dir, args);
    int status = 0;
    ::waitpid(run.pid, &status, 0);
    collect(dir, run, status);
    return run;
}

std::vector<std::string> words(const std::string& line) {
    std::vector<std::string> out;
    std::istringstream in(line);
    for (std::string w; in >> w;) {
        out.push_back(w);
    }
    return out;
}

TEST(Tessaryctl, UsageErrorsExit64) {
    for (const char* line :
         {"", "frobnicate", "enable", "enable a b", "list extra", "list --job j",
          "status --file /dev/null", "create", "enable a -- x", "program-arguments a --",
          "--timeout soon status", "--timeout -1 status", "--bogus status", "status --socket",
          "sockets a --file /nonexistent/file.plist"}) {
        const CtlRun run = runCtl(words(line));
        EXPECT_EQ(run.exitCode, 64) << line;
        EXPECT_NE(run.err.find("usage"), std::string::npos) << line;
    }
    EXPECT_EQ(runCtl({"--help"}).exitCode, 0);
}

TEST(Tessaryctl, NoDaemonExits2) {
    testing::TempDir dir;
    EXPECT_EQ(runCtl({"--socket", dir / "none", "status"}).exitCode, 2);
    // A socket file that nobody listens on.
    UniqueFd bound(::socket(AF_UNIX, SOCK_SEQPACKET, 0));
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::strncpy(a.sun_path, (dir / "sock").c_str(), sizeof a.sun_path - 1);
    ASSERT_EQ(::bind(bound.get(), reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    EXPECT_EQ(runCtl({"--socket", dir / "sock", "status"}).exitCode, 2);
}

// tessaryctl against a stand-in daemon on the real request channel: what it
// sends, and what it makes of the answers. A command without a set reply
// gets its arguments back as its result.
class TessaryctlTest : public ::testing::Test {
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
                if (pe.kind == PeerEvent::Kind::Message) {
                    answer(*c, *pe.message);
                }
            });
            c->activate();
        });
        listener->activate();
    }

    void answer(MessageConnection& c, const KeyedMessage& message) {
        requests.emplace_back(message.fields);
        auto it = replies.find(*requests.back().stringAt("commandString"));
        if (it == replies.end()) {
            c.sendReply(message, success(arguments(requests.size() - 1)));
        } else if (it->second) {
            c.sendReply(message, *it->second);
        }
    }

    static plist::Dictionary success(const Value& result) {
        return {{"returnCodeInteger", Value::integer(0)},
                {"replyData", Value::data(plist::encode(result, plist::Format::Binary).value())}};
    }

    CtlRun run(std::vector<std::string> args) {
        args.insert(args.begin(), {"--socket", path});
        CtlRun r = startCtl(dir, args);
        int status = 0;
        EXPECT_TRUE(testing::runUntil(
            queue, [&] { return ::waitpid(r.pid, &status, WNOHANG) == r.pid; }, 15s));
        collect(dir, r, status);
        return r;
    }

    // The decoded arguments of request `n`, an empty dictionary for none.
    Value arguments(std::size_t n) const {
        const Value* data = requests.at(n).find("argumentsData");
        return data ? plist::decode(std::span<const std::uint8_t>(*data->data())).value() : Value();
    }

    void writePlist(const std::string& name, const Value& v, plist::Format format) {
        auto bytes = plist::encode(v, format).value();
        testing::writeFile(dir / name, std::string(bytes.begin(), bytes.end()));
    }

    testing::TempDir dir;
    std::string path = dir / "sock";
    linux_backend::SdEventQueue queue;
    linux_backend::UnixMessageService service{queue, path};
    std::unique_ptr<MessageListener> listener;
    std::vector<std::shared_ptr<MessageConnection>> connections;
    std::vector<Value> requests;
    std::map<std::string, std::optional<plist::Dictionary>> replies;  // none: no reply
};

TEST_F(TessaryctlTest, ListSendsItsOwnFormAndShowsTheServices) {
    replies["list"] = success(plist::Dictionary{{"enabledServices", plist::stringArray({"a", "c"})},
                                                {"disabledServices", plist::stringArray({"b"})}});
    const CtlRun r = run({"list"});
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.out, "enabled   a\nenabled   c\ndisabled  b\n");
    ASSERT_EQ(requests.size(), 1U);
    EXPECT_EQ(*requests[0].stringAt("commandString"), "list");
    EXPECT_EQ(requests[0].find("argumentsData"), nullptr);
    // The form passed the channel's check: it names the tessaryctl process.
    const Value* form = requests[0].find(linux_backend::UnixMessageService::kFormKey);
    ASSERT_NE(form, nullptr);
    auto identity = linux_backend::decodeExternalForm(*form->data());
    ASSERT_TRUE(identity);
    EXPECT_EQ(identity->pid, static_cast<std::uint32_t>(r.pid));

    EXPECT_EQ(run({"--json", "list"}).out,
              "{\"disabledServices\":[\"b\"],\"enabledServices\":[\"a\",\"c\"]}\n");
}

TEST_F(TessaryctlTest, ArgumentsAndPropertyListFilesBecomeArguments) {
    CtlRun r = run({"program-arguments", "s", "--job", "j", "--", "/bin/echo", "two words"});
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(arguments(0),
              Value(plist::Dictionary{
                  {"service", Value("s")},
                  {"job", Value("j")},
                  {"programArguments", plist::stringArray({"/bin/echo", "two words"})}}));
    EXPECT_EQ(r.out, "/bin/echo\ntwo words\n");

    const Value sockets(plist::Dictionary{{"Listener", Value(plist::Dictionary{})}});
    writePlist("sockets.plist", sockets, plist::Format::Xml);
    r = run({"sockets", "s", "--file", dir / "sockets.plist"});
    EXPECT_EQ(arguments(1),
              Value(plist::Dictionary{{"service", Value("s")}, {"sockets", sockets}}));
    EXPECT_EQ(plist::decode(r.out).value(), sockets);  // shown as a property list

    // One calendar entry, in binary form, is sent as a list of one.
    const Value entry(plist::Dictionary{{"Hour", Value::integer(3)}});
    writePlist("cal.plist", entry, plist::Format::Binary);
    EXPECT_EQ(run({"start-calendar-intervals", "s", "--file", dir / "cal.plist"}).exitCode, 0);
    EXPECT_EQ(*arguments(2).find("startCalendarIntervals"), Value(plist::Array{entry}));
}

TEST_F(TessaryctlTest, ExitStatusFollowsTheAnswer) {
    replies["enable"] = plist::Dictionary{{"returnCodeInteger", Value::integer(1)}};
    replies["disable"] = std::nullopt;
    EXPECT_EQ(run({"enable", "a"}).exitCode, 1);
    EXPECT_EQ(run({"reset", "a"}).exitCode, 0);
    const CtlRun silent = run({"--timeout", "0.2", "disable", "a"});
    EXPECT_EQ(silent.exitCode, 2);
    EXPECT_NE(silent.err.find("no reply"), std::string::npos) << silent.err;
}

}  // namespace
}  // namespace tessary
