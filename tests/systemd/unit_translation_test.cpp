#include "platform/linux/systemd/unit_translation.h"

#include <gtest/gtest.h>

#include "systemd/unit_text.h"

namespace tessary::linux_backend {
namespace {

using plist::Array;
using plist::Dictionary;
using plist::Value;
using testing::parseExecStart;
using testing::splitWords;
using testing::UnitText;

UnitTranslation translate(Dictionary job, TranslationOptions options = {}) {
    if (job.count("Label") == 0) {
        job["Label"] = Value("com.example.job");
    }
    auto t = translateJob(Value(job), options);
    EXPECT_TRUE(t.ok()) << t.error().description;
    return t.ok() ? t.value() : UnitTranslation{};
}

std::string translationError(Dictionary job) {
    if (job.count("Label") == 0) {
        job["Label"] = Value("com.example.job");
    }
    auto t = translateJob(Value(job), {});
    EXPECT_FALSE(t.ok());
    return t.ok() ? "" : t.error().description;
}

UnitText unitNamed(const UnitTranslation& t, const std::string& name) {
    for (const auto& u : t.units) {
        if (u.name == name) {
            return UnitText::parse(u.text);
        }
    }
    ADD_FAILURE() << "no unit " << name;
    return {};
}

Value strings(std::vector<std::string> s) {
    return Value(plist::stringArray(s));
}

// Values that would break a naive unit file: a newline starting a new
// directive, quotes, specifiers, variables, escapes, control characters.
const std::vector<std::string> kHostile = {
    "line one\nExecStartPre=/bin/sh -c 'touch /tmp/owned'",
    "say \"hi\" and 'bye'",
    "100% %n %i %%",
    "$HOME ${HOME} $$ $",
    "back\\slash \\n \\x41 trailing\\",
    "tab\there",
    std::string("bell\x07") + "del\x7f",
    "",
    ";",
    "  spaces at both ends  ",
    "unicode \xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80",
};

// Built with += rather than "V" + ...: GCC 12 warns wrongly (-Wrestrict) about
// that concatenation in optimised builds.
std::string variableName(std::size_t i) {
    std::string name = "V";
    name += std::to_string(i);
    return name;
}

TEST(UnitTranslation, HostileArgumentsAndEnvironmentReadBackExactly) {
    std::vector<std::string> argv = {"/usr/bin/env"};
    argv.insert(argv.end(), kHostile.begin(), kHostile.end());
    Dictionary env;
    for (std::size_t i = 0; i < kHostile.size(); ++i) {
        env[variableName(i)] = Value(kHostile[i]);
    }
    const auto t = translate({{"ProgramArguments", strings(argv)},
                              {"Program", Value("/opt/odd dir/100%/$x")},
                              {"EnvironmentVariables", Value(env)}});
    ASSERT_EQ(t.units.size(), 1U);
    const UnitText unit = UnitText::parse(t.units[0].text);
    EXPECT_TRUE(unit.all("!malformed").empty());
    // Nothing of the values became a directive of its own.
    EXPECT_TRUE(unit.all("Service.ExecStartPre").empty());
    ASSERT_EQ(unit.all("Service.ExecStart").size(), 1U);

    const auto cmd = parseExecStart(*unit.one("Service.ExecStart"));
    ASSERT_TRUE(cmd.has_value());
    EXPECT_EQ(cmd->path, "/opt/odd dir/100%/$x");
    EXPECT_EQ(cmd->argv, argv);

    std::map<std::string, std::string> readBack;
    for (const auto& line : unit.all("Service.Environment")) {
        auto words = splitWords(line, false);
        ASSERT_TRUE(words.has_value()) << line;
        ASSERT_EQ(words->size(), 1U) << line;
        const auto eq = words->front().find('=');
        readBack[words->front().substr(0, eq)] = words->front().substr(eq + 1);
    }
    ASSERT_EQ(readBack.size(), kHostile.size());
    for (std::size_t i = 0; i < kHostile.size(); ++i) {
        EXPECT_EQ(readBack[variableName(i)], kHostile[i]) << i;
    }
}

TEST(UnitTranslation, ProgramAndArgumentsGiveExecutableAndArgv) {
    auto cmdOf = [](Dictionary job) {
        const auto t = translate(std::move(job));
        return parseExecStart(*UnitText::parse(t.units.at(0).text).one("Service.ExecStart"));
    };
    auto both = cmdOf(
        {{"Program", Value("/bin/busybox")}, {"ProgramArguments", strings({"sh", "-c", "echo"})}});
    EXPECT_EQ(both->path, "/bin/busybox");
    EXPECT_EQ(both->argv, (std::vector<std::string>{"sh", "-c", "echo"}));
    auto programOnly = cmdOf({{"Program", Value("/bin/true")}});
    EXPECT_EQ(programOnly->argv, (std::vector<std::string>{"/bin/true"}));
    auto argsOnly = cmdOf({{"ProgramArguments", strings({"/bin/echo", "a b"})}});
    EXPECT_EQ(argsOnly->path, "/bin/echo");
    EXPECT_EQ(argsOnly->argv, (std::vector<std::string>{"/bin/echo", "a b"}));

    EXPECT_NE(translationError({}).find("neither Program nor ProgramArguments"), std::string::npos);
    EXPECT_NE(translationError({{"ProgramArguments", Value(Array{Value::integer(1)})}})
                  .find("array of strings"),
              std::string::npos);
    EXPECT_NE(translationError({{"Program", Value("/bin/x\ny")}}).find("control characters"),
              std::string::npos);
    // Text systemd would refuse the whole unit for.
    EXPECT_NE(translationError({{"ProgramArguments", strings({"/bin/echo", "bad \xff"})}})
                  .find("not UTF-8"),
              std::string::npos);
}

TEST(UnitTranslation, LabelsMustBeUnitNames) {
    for (const std::string& label : std::vector<std::string>{
             "com.example.job", "a", "A-b_c:d.e", "svc@instance", std::string(247, 'x')}) {
        EXPECT_TRUE(checkJobLabel(label).ok()) << label;
    }
    for (const std::string& label : std::vector<std::string>{
             "", "has space", "slash/inside", "a..b", "trailing.", ".hidden", "@start", "template@",
             "new\nline", "back\\slash", "\xc3\xa9", std::string(248, 'x')}) {
        const Status s = checkJobLabel(label);
        EXPECT_FALSE(s.ok()) << label;
        EXPECT_NE(s.error().description.find("not a valid systemd unit name"), std::string::npos);
    }
    auto t = translateJob(
        Value(Dictionary{{"Label", Value("bad/label")}, {"Program", Value("/bin/true")}}), {});
    ASSERT_FALSE(t.ok());
    EXPECT_NE(t.error().description.find("bad/label"), std::string::npos);
}

TEST(UnitTranslation, WhatStartsAtSubmitAndHowItRestarts) {
    const Value program = strings({"/bin/true"});
    auto restartOf = [&](Dictionary extra) {
        extra["ProgramArguments"] = program;
        const auto t = translate(extra);
        return std::pair{t.startService,
                         UnitText::parse(t.units.at(0).text).one("Service.Restart").value_or("")};
    };
    EXPECT_EQ(restartOf({}), std::pair(false, std::string()));
    EXPECT_EQ(restartOf({{"RunAtLoad", Value::boolean(true)}}), std::pair(true, std::string()));
    EXPECT_EQ(restartOf({{"RunAtLoad", Value::boolean(false)}}), std::pair(false, std::string()));
    EXPECT_EQ(restartOf({{"KeepAlive", Value::boolean(true)}}),
              std::pair(true, std::string("always")));
    EXPECT_EQ(restartOf({{"KeepAlive", Value::boolean(false)}}), std::pair(false, std::string()));
    EXPECT_EQ(restartOf({{"OnDemand", Value::boolean(false)}}),
              std::pair(true, std::string("always")));
    EXPECT_EQ(
        restartOf({{"KeepAlive", Value(Dictionary{{"SuccessfulExit", Value::boolean(true)}})}}),
        std::pair(true, std::string("on-success")));
    EXPECT_EQ(
        restartOf({{"KeepAlive", Value(Dictionary{{"SuccessfulExit", Value::boolean(false)}})}}),
        std::pair(true, std::string("on-failure")));
    EXPECT_EQ(restartOf({{"KeepAlive", Value(Dictionary{{"Crashed", Value::boolean(true)}})}}),
              std::pair(true, std::string("on-abort")));
    // Only conditions without a counterpart: nothing restarts or starts.
    EXPECT_EQ(restartOf({{"KeepAlive", Value(Dictionary{{"PathState", Value(Dictionary{})}})}}),
              std::pair(false, std::string()));

    const auto t = translate({{"ProgramArguments", program},
                              {"KeepAlive", Value::boolean(true)},
                              {"ThrottleInterval", Value::integer(3)}});
    const UnitText unit = UnitText::parse(t.units.at(0).text);
    EXPECT_EQ(unit.one("Service.RestartSec"), "3");
    EXPECT_EQ(unit.one("Unit.StartLimitIntervalSec"), "0");
    EXPECT_EQ(unit.one("Service.Type"), "exec");
    EXPECT_EQ(t.unitsToStart(), (std::vector<std::string>{"com.example.job.service"}));
}

TEST(UnitTranslation, CalendarAndIntervalMakeOneTimer) {
    const auto t = translate(
        {{"ProgramArguments", strings({"/bin/true"})},
         {"StartCalendarInterval",
          Value(Array{
              Value(Dictionary{{"Hour", Value::integer(3)}, {"Minute", Value::integer(5)}}),
              Value(Dictionary{{"Weekday", Value::integer(0)}, {"Minute", Value::integer(0)}}),
              Value(Dictionary{{"Weekday", Value::integer(7)}, {"Month", Value::integer(12)}}),
              Value(Dictionary{{"Day", Value::integer(1)},
                               {"Weekday", Value::integer(1)},
                               {"Hour", Value::integer(9)},
                               {"Minute", Value::integer(30)}}),
              Value(Dictionary{{"Second", Value::integer(1)}})})},
         {"StartInterval", Value::integer(90)}});
    ASSERT_EQ(t.timerUnit, "com.example.job.timer");
    EXPECT_FALSE(t.startService);
    EXPECT_EQ(t.unitsToStart(), (std::vector<std::string>{"com.example.job.timer"}));
    const UnitText timer = unitNamed(t, "com.example.job.timer");
    EXPECT_EQ(timer.one("Timer.Unit"), "com.example.job.service");
    EXPECT_EQ(timer.all("Timer.OnCalendar"),
              (std::vector<std::string>{"*-*-* 03:05:00", "Sun *-*-* *:00:00", "Sun *-12-* *:*:00",
                                        // Day or weekday, as cron reads both.
                                        "*-*-01 09:30:00", "Mon *-*-* 09:30:00", "*-*-* *:*:00"}));
    EXPECT_EQ(timer.one("Timer.OnActiveSec"), "90");
    EXPECT_EQ(timer.one("Timer.OnUnitActiveSec"), "90");
    EXPECT_EQ(t.ignoredKeys, (std::vector<std::string>{"StartCalendarInterval.Second"}));

    const auto single =
        translate({{"ProgramArguments", strings({"/bin/true"})},
                   {"StartCalendarInterval", Value(Dictionary{{"Minute", Value::integer(59)}})}});
    EXPECT_EQ(unitNamed(single, "com.example.job.timer").all("Timer.OnCalendar"),
              (std::vector<std::string>{"*-*-* *:59:00"}));
    EXPECT_NE(translationError(
                  {{"ProgramArguments", strings({"/bin/true"})},
                   {"StartCalendarInterval", Value(Dictionary{{"Hour", Value::integer(24)}})}})
                  .find("StartCalendarInterval.Hour"),
              std::string::npos);
}

TEST(UnitTranslation, SocketsBecomeNamedSocketUnits) {
    const Value single = Value(
        Dictionary{{"Listeners", Value(Dictionary{{"SockPathName", Value("/run/odd 100%/sock")},
                                                  {"SockPathMode", Value::integer(0660)},
                                                  {"Bonjour", Value::boolean(true)}})}});
    const auto one = translate({{"ProgramArguments", strings({"/bin/true"})}, {"Sockets", single}});
    EXPECT_EQ(one.socketUnits, (std::vector<std::string>{"com.example.job.socket"}));
    EXPECT_EQ(one.unitsToStart(), (std::vector<std::string>{"com.example.job.socket"}));
    const UnitText sock = unitNamed(one, "com.example.job.socket");
    EXPECT_EQ(sock.one("Socket.ListenStream"), "/run/odd 100%%/sock");
    EXPECT_EQ(sock.one("Socket.FileDescriptorName"), "Listeners");
    EXPECT_EQ(sock.one("Socket.Service"), "com.example.job.service");
    EXPECT_EQ(sock.one("Socket.RemoveOnStop"), "yes");
    EXPECT_EQ(sock.one("Socket.SocketMode"), "0660");
    EXPECT_EQ(one.ignoredKeys, (std::vector<std::string>{"Sockets.Listeners.Bonjour"}));

    const auto many = translate(
        {{"ProgramArguments", strings({"/bin/true"})},
         {"RunAtLoad", Value::boolean(true)},
         {"Sockets",
          Value(Dictionary{
              {"web-in", Value(Array{Value(Dictionary{{"SockServiceName", Value("8080")}}),
                                     Value(Dictionary{{"SockServiceName", Value::integer(8081)},
                                                      {"SockNodeName", Value("localhost")},
                                                      {"SockFamily", Value("IPv4")}})})},
              {"dgram", Value(Dictionary{{"SockType", Value("dgram")},
                                         {"SockFamily", Value("IPv6")},
                                         {"SockServiceName", Value::integer(53)}})}})}});
    EXPECT_EQ(many.socketUnits, (std::vector<std::string>{"com.example.job-dgram.socket",
                                                          "com.example.job-web\\x2din.socket"}));
    EXPECT_EQ(many.unitsToStart().back(), "com.example.job.service");
    EXPECT_EQ(UnitText::parse(many.units.at(0).text).one("Service.Sockets"),
              "com.example.job-dgram.socket com.example.job-web\\x2din.socket");
    const UnitText web = unitNamed(many, "com.example.job-web\\x2din.socket");
    EXPECT_EQ(web.all("Socket.ListenStream"), (std::vector<std::string>{"8080", "127.0.0.1:8081"}));
    EXPECT_EQ(web.one("Socket.FileDescriptorName"), "web-in");
    const UnitText dgram = unitNamed(many, "com.example.job-dgram.socket");
    EXPECT_EQ(dgram.one("Socket.ListenDatagram"), "[::]:53");
    EXPECT_EQ(dgram.one("Socket.BindIPv6Only"), "ipv6-only");

    auto withSocket = [](Dictionary sock) {
        return Dictionary{{"ProgramArguments", strings({"/bin/true"})},
                          {"Sockets", Value(Dictionary{{"s", Value(sock)}})}};
    };
    EXPECT_NE(translationError(withSocket({{"SockPathName", Value("/x")},
                                           {"SockPassive", Value::boolean(false)}}))
                  .find("SockPassive"),
              std::string::npos);
    EXPECT_NE(translationError(withSocket({{"SockType", Value("raw")}})).find("SockType"),
              std::string::npos);
    EXPECT_NE(translationError(withSocket({{"SockServiceName", Value("http")}})).find("port"),
              std::string::npos);
    EXPECT_NE(translationError(withSocket({{"SockServiceName", Value::integer(80)},
                                           {"SockNodeName", Value("example.org")}}))
                  .find("SockNodeName"),
              std::string::npos);
}

// The settings whose values are converted rather than copied, and the values
// that cannot be written into a unit file safely.
TEST(UnitTranslation, ProcessSettingsAndIgnoredKeys) {
    const auto t = translate({{"ProgramArguments", strings({"/bin/true"})},
                              {"WorkingDirectory", Value("/srv/with space/50%")},
                              {"Umask", Value::integer(18)},
                              {"StandardOutPath", Value("/var/log/job.log")},
                              {"ExitTimeOut", Value::integer(0)},
                              {"AbandonProcessGroup", Value::boolean(true)},
                              {"LowPriorityIO", Value::boolean(true)},
                              {"Disabled", Value::boolean(false)}});
    const UnitText unit = UnitText::parse(t.units.at(0).text);
    EXPECT_EQ(unit.one("Service.WorkingDirectory"), "/srv/with space/50%%");
    EXPECT_EQ(unit.one("Service.UMask"), "0022");
    EXPECT_EQ(unit.one("Service.StandardOutput"), "append:/var/log/job.log");
    EXPECT_EQ(unit.one("Service.TimeoutStopSec"), "infinity");
    EXPECT_EQ(unit.one("Service.KillMode"), "process");
    EXPECT_EQ(t.ignoredKeys, (std::vector<std::string>{"Disabled", "LowPriorityIO"}));

    auto errorFor = [](const char* key, Value v) {
        return translationError({{"ProgramArguments", strings({"/bin/true"})}, {key, v}});
    };
    EXPECT_NE(errorFor("WorkingDirectory", Value("relative")).find("absolute"), std::string::npos);
    EXPECT_NE(errorFor("StandardOutPath", Value("/log\nUser=root")).find("StandardOutPath"),
              std::string::npos);
    EXPECT_NE(errorFor("UserName", Value(" root")).find("UserName"), std::string::npos);
    EXPECT_NE(errorFor("Nice", Value::integer(20)).find("Nice"), std::string::npos);
    EXPECT_NE(errorFor("EnvironmentVariables", Value(Dictionary{{"BAD NAME", Value("x")}}))
                  .find("BAD NAME"),
              std::string::npos);
}

TEST(UnitTranslation, HelperDirectoryLeadsThePathUnlessTheJobSetsOne) {
    const TranslationOptions helper{"/opt/tessary/bin"};
    const auto plain = translate({{"ProgramArguments", strings({"tool"})}}, helper);
    EXPECT_EQ(UnitText::parse(plain.units.at(0).text).one("Service.ExecSearchPath"),
              "/opt/tessary/bin:/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin");
    const auto ownPath =
        translate({{"ProgramArguments", strings({"tool"})},
                   {"EnvironmentVariables", Value(Dictionary{{"PATH", Value("/mine")}})}},
                  helper);
    EXPECT_TRUE(UnitText::parse(ownPath.units.at(0).text).all("Service.ExecSearchPath").empty());
    const auto none = translate({{"ProgramArguments", strings({"tool"})}});
    EXPECT_TRUE(UnitText::parse(none.units.at(0).text).all("Service.ExecSearchPath").empty());
}

}  // namespace
}  // namespace tessary::linux_backend
