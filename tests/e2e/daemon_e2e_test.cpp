// The built daemon at work, reached through the client library, in the
// sandbox that daemon-sandbox.sh makes: a real systemd runs the jobs and a
// real polkitd decides the rights.
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

#include "client/tessary_client.h"
#include "plist/codec.h"
#include "support/hostile_clients.h"
#include "support/value_printer.h"

namespace tessary {
namespace {

using namespace std::chrono_literals;
using plist::Array;
using plist::Dictionary;
using plist::Value;
using testing::RawConnection;
namespace fs = std::filesystem;

constexpr const char* kSocket = "/run/com.orvane.tessaryd";

client::Reply ask(const std::string& command, Dictionary arguments = {}, bool withForm = true) {
    client::Request request;
    request.command = command;
    if (withForm) {
        request.authorizationForm = client::makeAuthorizationForm().value();
    }
    if (!arguments.empty()) {
        request.arguments = std::move(arguments);
    }
    auto reply = client::sendRequest(kSocket, request, 20s);
    EXPECT_TRUE(reply.ok()) << (reply.ok() ? "" : reply.error().description);
    return reply.ok() ? reply.value() : client::Reply{};
}

std::string readAll(const std::string& path) {
    std::ifstream in(path);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// Waits up to ten seconds for `condition`.
bool eventually(const std::function<bool()>& condition) {
    for (int i = 0; i < 200; ++i) {
        if (condition()) {
            return true;
        }
        std::this_thread::sleep_for(50ms);
    }
    return condition();
}

std::string unitState(const std::string& label) {
    const std::string cmd = "systemctl --user is-active " + label + ".service 2>/dev/null";
    FILE* p = ::popen(cmd.c_str(), "r");
    char buf[64] = {};
    const std::size_t n = std::fread(buf, 1, sizeof buf - 1, p);
    ::pclose(p);
    std::string s(buf, n);
    while (!s.empty() && s.back() == '\n') {
        s.pop_back();
    }
    return s;
}

Value labels(std::initializer_list<const char*> l) {
    Array a;
    for (const char* s : l) {
        a.emplace_back(s);
    }
    return Value(std::move(a));
}

TEST(DaemonEndToEnd, StatusListAndTheLifeOfAService) {
    const auto status = ask("status", {}, false);
    EXPECT_EQ(status.returnCode, 0);
    EXPECT_EQ(status.result.value(), Value(Dictionary{{"status", Value("unconfigured")}}));

    auto list = ask("list");
    ASSERT_EQ(list.returnCode, 0);
    EXPECT_EQ(*list.result->find("enabledServices"), Value(Array{}));
    EXPECT_EQ(list.result->find("disabledServices")->array()->size(), 3U);

    // Enabled: the job really runs under systemd, with its arguments intact.
    ::unlink("/run/e2e-probe.args");
    EXPECT_EQ(ask("enable", {{"service", Value("com.example.probe")}}).returnCode, 0);
    EXPECT_TRUE(eventually([] { return readAll("/run/e2e-probe.args") == "a b\n$HOME %n\n"; }))
        << readAll("/run/e2e-probe.args");
    EXPECT_EQ(unitState("com.example.probe"), "active");

    // An override of a loaded job reloads it with the new arguments.
    const Value script = Value("printf \"%s\\n\" \"$@\" > /run/e2e-$0.args; exec sleep 1000");
    const Value args(Array{Value("/bin/sh"), Value("-c"), script, Value("probe"), Value("x")});
    auto set = ask("programArguments",
                   {{"service", Value("com.example.probe")}, {"programArguments", args}});
    EXPECT_EQ(set.returnCode, 0);
    EXPECT_TRUE(eventually([] { return readAll("/run/e2e-probe.args") == "x\n"; }));
    EXPECT_EQ(unitState("com.example.probe"), "active");

    EXPECT_EQ(ask("disable", {{"service", Value("com.example.probe")}}).returnCode, 0);
    EXPECT_NE(unitState("com.example.probe"), "active");

    // Reset drops the override; the service stays off.
    EXPECT_EQ(ask("reset", {{"service", Value("com.example.probe")}}).returnCode, 0);
    auto get = ask("programArguments", {{"service", Value("com.example.probe")}});
    EXPECT_EQ((*get.result->find("programArguments")->array())[4], Value("a b"));
    list = ask("list");
    EXPECT_EQ(*list.result->find("enabledServices"), Value(Array{}));

    EXPECT_EQ(ask("enable", {{"service", Value("nobody.here")}}).returnCode, 1);
}

TEST(DaemonEndToEnd, DynamicServicesComeAndGo) {
    const Value definition(Dictionary{
        {"Label", Value("com.example.dynamic")},
        {"ProgramArguments", labels({"/bin/sleep", "1000"})},
        {"KeepAlive", Value::boolean(true)},
    });
    auto created = ask("create", {{"serviceDictionary", definition}});
    EXPECT_EQ(created.returnCode, 0);
    EXPECT_EQ(ask("create", {{"serviceDictionary", definition}}).returnCode, 1);
    EXPECT_EQ(ask("enable", {{"service", Value("com.example.dynamic")}}).returnCode, 0);
    EXPECT_TRUE(eventually([] { return unitState("com.example.dynamic") == "active"; }));
    EXPECT_EQ(ask("destroy", {{"service", Value("com.example.dynamic")}}).returnCode, 0);
    EXPECT_NE(unitState("com.example.dynamic"), "active");
    const auto list = ask("list");
    for (const char* key : {"enabledServices", "disabledServices"}) {
        for (const Value& l : *list.result->find(key)->array()) {
            EXPECT_NE(l, Value("com.example.dynamic"));
        }
    }
}

bool listed(const char* key, const std::string& label) {
    const auto list = ask("list");
    const Array* labels = list.result ? list.result->find(key)->array() : nullptr;
    return labels != nullptr &&
           std::find(labels->begin(), labels->end(), Value(label)) != labels->end();
}

int shell(const std::string& command) {
    return std::system(command.c_str());
}

// A unit of another's with a dynamic service's label runs on whatever the
// daemon does with the service, and the one start it refuses says why.
TEST(DaemonEndToEnd, AUnitOfAnothersWithTheSameLabelIsLeftAlone) {
    const std::string label = "com.example.elsewhere";
    ASSERT_EQ(shell("systemd-run --user --quiet --unit=" + label + ".service /bin/sleep 1000"), 0);
    const Value service(label);
    const Value definition(Dictionary{{"Label", service},
                                      {"ProgramArguments", labels({"/bin/sleep", "1000"})},
                                      {"KeepAlive", Value::boolean(true)}});
    EXPECT_EQ(ask("create", {{"serviceDictionary", definition}}).returnCode, 0);
    EXPECT_EQ(ask("enable", {{"service", service}}).returnCode, 0);
    EXPECT_TRUE(listed("enabledServices", label));
    EXPECT_EQ(ask("disable", {{"service", service}}).returnCode, 0);
    EXPECT_EQ(ask("destroy", {{"service", service}}).returnCode, 0);
    EXPECT_EQ(unitState(label), "active");
    EXPECT_FALSE(fs::exists("/run/systemd/system/" + label + ".service"));

    const std::string log = readAll("/run/tessaryd.syslog");
    const std::string refusal = "ERROR: LodgeJob: Job " + label +
                                " would shadow another unit: the service manager has " + label +
                                ".service from '";
    const auto first = log.find(refusal);
    EXPECT_NE(first, std::string::npos) << log;
    EXPECT_EQ(log.find(refusal, first + 1), std::string::npos) << log;
    (void)shell("systemctl --user stop " + label + ".service");
}

// A load during which the service manager cannot be reached keeps a
// transient dynamic service, running and switched on, as it was.
TEST(DaemonEndToEnd, ATransientServiceSurvivesALoadWithoutTheManager) {
    const std::string label = "com.example.transient";
    const Value service(label);
    const Value definition(Dictionary{{"Label", service},
                                      {"ProgramArguments", labels({"/bin/sleep", "1000"})},
                                      {"KeepAlive", Value::boolean(true)},
                                      {"Transient", Value::boolean(true)}});
    EXPECT_EQ(ask("create", {{"serviceDictionary", definition}}).returnCode, 0);
    EXPECT_EQ(ask("enable", {{"service", service}}).returnCode, 0);
    EXPECT_TRUE(eventually([&] { return unitState(label) == "active"; }));

    // The manager's socket goes, and a re-execution closes the daemon's
    // connection, as in tests/e2e/faults.sh.
    ASSERT_EQ(shell("umount /run/systemd/private && systemctl --user daemon-reexec"), 0);
    EXPECT_EQ(ask("restoreServices").returnCode, 0);
    ASSERT_EQ(shell("mount --bind \"$XDG_RUNTIME_DIR/systemd/private\" /run/systemd/private"), 0);

    EXPECT_TRUE(listed("enabledServices", label));
    EXPECT_EQ(unitState(label), "active");
    EXPECT_NE(readAll("/run/tessaryd.syslog")
                  .find("WARNING: Unable to learn whether " + label + " is loaded; keeping it"),
              std::string::npos);
    EXPECT_EQ(ask("destroy", {{"service", service}}).returnCode, 0);
    EXPECT_TRUE(eventually([&] { return unitState(label) != "active"; }));
}

// Labels that must never become paths or directives: every refusal is clean,
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
        const Value definition(Dictionary{{"Label", Value(label)},
                                          {"ProgramArguments", labels({"/bin/sleep", "1000"})},
                                          {"RunAtLoad", Value::boolean(true)}});
        const auto created = ask("create", {{"serviceDictionary", definition}});
        if (created.returnCode == 0) {
            EXPECT_EQ(ask("enable", {{"service", Value(label)}}).returnCode, 0);
            EXPECT_EQ(ask("programArguments",
                          {{"service", Value(label)}, {"programArguments", labels({"/bin/true"})}})
                          .returnCode,
                      0);
            EXPECT_EQ(ask("destroy", {{"service", Value(label)}}).returnCode, 0);
        }
        ASSERT_EQ(ask("status", {}, false).returnCode, 0) << "the daemon stopped answering";
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

// Runs `body` in a child with all ids set to `uid`/`gid`; its exit status.
int asUser(uid_t uid, gid_t gid, const std::function<int()>& body) {
    const pid_t pid = ::fork();
    if (pid == 0) {
        if (::setgroups(0, nullptr) != 0 || ::setresgid(gid, gid, gid) != 0 ||
            ::setresuid(uid, uid, uid) != 0) {
            ::_exit(90);
        }
        ::_exit(body());
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 99;
}

// Who asks, and with what authorization form.
enum class Caller {
    NoForm,       // root, without a form
    ShortForm,    // root, a 31-byte form
    LongForm,     // root, a 33-byte form
    OthersForm,   // root, a form that names another process (pid 1): it cannot be imported
    Refused,      // nobody (65534): polkit says no
    RuleAllowed,  // daemon (1): a polkit rule says yes
    Root,         // root with its own form
};

bool mayRun(Caller c) {
    return c == Caller::RuleAllowed || c == Caller::Root;
}

plist::Bytes datagram(Caller caller, const std::string& command, const Dictionary& arguments) {
    Dictionary fields{{"commandString", Value(command)}};
    const AuthorizationExternalForm own = client::makeAuthorizationForm().value();
    plist::Bytes form(own.begin(), own.end());
    if (caller == Caller::ShortForm) {
        form.pop_back();
    } else if (caller == Caller::LongForm) {
        form.push_back(0);
    } else if (caller == Caller::OthersForm) {
        const std::uint32_t initPid = 1;
        std::memcpy(form.data() + 8, &initPid, sizeof initPid);
    }
    if (caller != Caller::NoForm) {
        fields.emplace("authorizationExternalFormData", Value::data(std::move(form)));
    }
    if (!arguments.empty()) {
        fields.emplace("argumentsData",
                       Value::data(plist::encode(Value(arguments), plist::Format::Binary).value()));
    }
    return plist::encode(Value(std::move(fields)), plist::Format::Binary).value();
}

// Every admin command, each with arguments it succeeds with when it runs.
// Those that would end or demote this daemon run for the callers with the
// right only in the lifecycle tests.
struct AdminCommand {
    const char* name;
    Dictionary arguments;
    bool harmless;
};

std::vector<AdminCommand> adminCommands() {
    const Value service("com.example.idle");
    const Value matrix("com.example.matrix");
    return {
        {"list", {}, true},
        {"enable", {{"service", service}}, true},
        {"disable", {{"service", service}}, true},
        {"reset", {{"service", service}}, true},
        {"programArguments", {{"service", service}}, true},
        {"sockets", {{"service", service}}, true},
        {"startCalendarIntervals", {{"service", service}}, true},
        {"create",
         {{"serviceDictionary",
           Value(Dictionary{{"Label", matrix}, {"ProgramArguments", labels({"/bin/true"})}})}},
         true},
        {"destroy", {{"service", matrix}}, true},
        {"restoreServices", {}, true},
        {"endPromotion", {}, false},
        {"beginPromotion", {}, false},
        {"demote", {}, false},
    };
}

// Sends every admin command as `caller`, each followed by a "status" on the
// same connection; the number of answers that were not what `caller` is owed.
int matrixMismatches(Caller caller) {
    int mismatches = 0;
    auto expect = [&mismatches](bool ok, const std::string& what) {
        if (!ok) {
            std::fprintf(stderr, "authorization matrix: %s\n", what.c_str());
            ++mismatches;
        }
    };
    RawConnection connection(kSocket);
    expect(connection.connected(), "cannot connect");
    const plist::Bytes status = datagram(Caller::NoForm, "status", {});
    for (const AdminCommand& command : adminCommands()) {
        if (mayRun(caller) && !command.harmless) {
            continue;
        }
        const std::string name = command.name;
        expect(connection.send(datagram(caller, name, command.arguments)), name + ": not sent");
        expect(connection.send(status), name + ": status not sent");
        std::optional<client::Reply> first;
        if (auto bytes = connection.receive(20s); bytes && !bytes->empty()) {
            auto reply = client::decodeReply(*bytes);
            first = reply.ok() ? std::optional(reply.value()) : std::nullopt;
        }
        expect(first.has_value(), name + ": no answer at all");
        if (!first) {
            return mismatches;
        }
        const bool isStatus = first->result && first->result->find("status") != nullptr;
        switch (caller) {
            case Caller::ShortForm:
            case Caller::LongForm:
                // Dropped unanswered: the status is the first answer.
                expect(isStatus, name + ": a malformed request was answered");
                continue;
            case Caller::NoForm:
            case Caller::OthersForm:
            case Caller::Refused:
                expect(!isStatus && first->returnCode == 1 && !first->result,
                       name + ": not refused");
                break;
            case Caller::RuleAllowed:
            case Caller::Root:
                expect(!isStatus && first->returnCode == 0, name + ": did not run");
                break;
        }
        auto second = connection.receive(20s);
        expect(second && !second->empty() && client::decodeReply(*second).value().returnCode == 0,
               name + ": status after it refused");
    }
    return mismatches;
}

TEST(DaemonEndToEnd, OnlyHoldersOfTheRightRunAdminCommandsAndStatusRunsForAll) {
    const std::string prefsBefore = readAll("/Library/Tessary/Setup/com.orvane.tessaryd.plist");
    for (Caller caller :
         {Caller::NoForm, Caller::ShortForm, Caller::LongForm, Caller::OthersForm}) {
        EXPECT_EQ(matrixMismatches(caller), 0) << static_cast<int>(caller);
    }
    EXPECT_EQ(asUser(65534, 65534, [] { return matrixMismatches(Caller::Refused); }), 0);
    // Nothing of what was refused happened: no switch, no new service, no
    // promotion, no demotion.
    EXPECT_EQ(readAll("/Library/Tessary/Setup/com.orvane.tessaryd.plist"), prefsBefore);
    EXPECT_EQ(ask("status", {}, false).returnCode, 0);

    EXPECT_EQ(asUser(1, 1, [] { return matrixMismatches(Caller::RuleAllowed); }), 0);
    EXPECT_EQ(matrixMismatches(Caller::Root), 0);
}

TEST(DaemonEndToEnd, GarbageClosesOnlyItsOwnConnection) {
    RawConnection bystander(kSocket);
    RawConnection vandal(kSocket);
    ASSERT_TRUE(vandal.send(std::string("not a plist")));
    auto end = vandal.receive(5s);
    ASSERT_TRUE(end.has_value());
    EXPECT_TRUE(end->empty());  // hung up
    ASSERT_TRUE(
        bystander.send(client::encodeRequest({"status", std::nullopt, std::nullopt}).value()));
    auto reply = bystander.receive(5s);
    ASSERT_TRUE(reply && !reply->empty());
    EXPECT_EQ(client::decodeReply(*reply).value().returnCode, 0);
}

// tessaryctl as an administrator sees it: what runs beside each switch, and,
// for a user who is not root, polkit asked first: a user polkit refuses is
// told so and nothing is sent; a user it allows goes on.
TEST(DaemonEndToEnd, TessaryctlShowsWhatRunsAndAsksPolkitFirst) {
    auto tessaryctl = [](std::vector<std::string> args) {
        args.insert(args.begin(), std::string(TESSARYCTL) + " --no-ask-password");
        std::string command;
        for (const std::string& a : args) {
            command += a + " ";
        }
        std::string out;
        FILE* p = ::popen((command + "2>&1 </dev/null").c_str(), "r");
        char buf[512];
        for (std::size_t n = 0; (n = std::fread(buf, 1, sizeof buf, p)) > 0;) {
            out.append(buf, n);
        }
        const int status = ::pclose(p);
        return std::make_pair(WIFEXITED(status) ? WEXITSTATUS(status) : -1, out);
    };
    ASSERT_EQ(ask("enable", {{"service", Value("com.example.probe")}}).returnCode, 0);
    ASSERT_TRUE(eventually([] { return unitState("com.example.probe") == "active"; }));
    const auto [listed, list] = tessaryctl({"list"});
    EXPECT_EQ(listed, 0) << list;
    EXPECT_NE(list.find("enabled   running                   com.example.probe\n"),
              std::string::npos)
        << list;
    EXPECT_NE(list.find("disabled  stopped                   com.example.idle\n"),
              std::string::npos)
        << list;
    const auto [asJson, json] = tessaryctl({"--json", "list"});
    EXPECT_NE(json.find("\"states\":{"), std::string::npos) << json;
    EXPECT_NE(json.find("\"com.example.probe\":\"running\""), std::string::npos) << json;

    const std::string prefsBefore = readAll("/Library/Tessary/Setup/com.orvane.tessaryd.plist");
    EXPECT_EQ(asUser(65534, 65534,
                     [&] {
                         const auto [code, out] = tessaryctl({"disable", "com.example.probe"});
                         const bool told = out.find(
                                               "not authorized: run as root or authenticate "
                                               "as an administrator") != std::string::npos;
                         return code == 1 && told ? 0 : 1;
                     }),
              0);
    EXPECT_EQ(readAll("/Library/Tessary/Setup/com.orvane.tessaryd.plist"), prefsBefore);
    EXPECT_EQ(asUser(1, 1, [&] { return tessaryctl({"disable", "com.example.probe"}).first; }), 0);
    EXPECT_TRUE(eventually([] { return unitState("com.example.probe") != "active"; }));
}

}  // namespace
}  // namespace tessary
