#include "platform/linux/systemd/unit_translation.h"

#include <gtest/gtest.h>

#include "systemd/unit_text.h"

namespace tessary::linux_backend {
namespace {

using plist::Array;
using plist::Dictionary;
using plist::Value;
using testing::UnitText;
using Strings = std::vector<std::string>;

Value strings(const Strings& s) {
    return Value(plist::stringArray(s));
}
const Value kTrue = strings({"/bin/true"});

Result<UnitTranslation> translateWithLabel(Dictionary job, TranslationOptions options = {}) {
    job.emplace("Label", Value("com.example.job"));
    return translateJob(Value(job), options);
}

UnitTranslation translate(Dictionary job, TranslationOptions options = {}) {
    auto t = translateWithLabel(std::move(job), std::move(options));
    EXPECT_TRUE(t.ok()) << t.error().description;
    return t.ok() ? t.value() : UnitTranslation{};
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

UnitText service(const UnitTranslation& t) {
    return unitNamed(t, "com.example.job.service");
}

TEST(UnitTranslation, LabelsMustBeUnitNames) {
    for (const std::string& label : Strings{"A-b_c:d.e", "svc@instance", std::string(247, 'x')}) {
        EXPECT_TRUE(checkJobLabel(label).ok()) << label;
    }
    // Paths, newlines and over-long names are the end-to-end tests' hostile
    // labels; these are the finer points of a unit name.
    for (const std::string& label : Strings{"a..b", "trailing.", ".hidden", "@start", "template@",
                                            "back\\slash", "\xc3\xa9", std::string(248, 'x')}) {
        const Status s = checkJobLabel(label);
        ASSERT_FALSE(s.ok()) << label;
        EXPECT_NE(s.error().description.find("not a valid systemd unit name"), std::string::npos);
    }
}

// Every refusal names what is wrong, and nothing half-made comes back.
TEST(UnitTranslation, JobsThatCannotBeWrittenSafelyAreRefused) {
    auto withSocket = [](Dictionary sock) {
        return Dictionary{{"ProgramArguments", kTrue},
                          {"Sockets", Value(Dictionary{{"s", Value(sock)}})}};
    };
    auto withKey = [](const char* key, Value v) {
        return Dictionary{{"ProgramArguments", kTrue}, {key, std::move(v)}};
    };
    const std::vector<std::pair<Dictionary, std::string>> cases = {
        {{{"Label", Value("bad/label")}, {"Program", Value("/bin/true")}}, "bad/label"},
        {{}, "neither Program nor ProgramArguments"},
        {{{"ProgramArguments", Value(Array{Value::integer(1)})}}, "array of strings"},
        {{{"Program", Value("/bin/x\ny")}}, "control characters"},
        // Text systemd would refuse the whole unit for.
        {{{"ProgramArguments", strings({"/bin/echo", "bad \xff"})}}, "not UTF-8"},
        {withKey("StartCalendarInterval", Value(Dictionary{{"Hour", Value::integer(24)}})),
         "StartCalendarInterval.Hour"},
        {withSocket({{"SockPathName", Value("/x")}, {"SockPassive", Value::boolean(false)}}),
         "SockPassive"},
        {withSocket({{"SockType", Value("raw")}}), "SockType"},
        {withSocket({{"SockServiceName", Value::integer(80)}, {"SockNodeName", Value("a.org")}}),
         "SockNodeName"},
        {withKey("WorkingDirectory", Value("relative")), "absolute"},
        {withKey("StandardOutPath", Value("/log\nUser=root")), "StandardOutPath"},
        {withKey("Nice", Value::integer(20)), "Nice"},
        {withKey("EnvironmentVariables", Value(Dictionary{{"BAD NAME", Value("x")}})), "BAD NAME"},
    };
    for (const auto& [job, reason] : cases) {
        const auto t = translateWithLabel(job);
        ASSERT_FALSE(t.ok()) << reason;
        EXPECT_NE(t.error().description.find(reason), std::string::npos)
            << reason << ": " << t.error().description;
    }
}

// What job keys become, as "Section.Key=value" ("-": no such directive).
TEST(UnitTranslation, JobKeysBecomeTheirDirectives) {
    const Value yes = Value::boolean(true), no = Value::boolean(false);
    auto keepAlive = [](const char* key, Value v) { return Value(Dictionary{{key, v}}); };
    const Value pathState = keepAlive("PathState", Value(Dictionary{}));
    const std::vector<std::pair<Dictionary, std::string>> cases = {
        {{{"KeepAlive", yes}}, "Service.Restart=always"},
        {{{"KeepAlive", no}}, "Service.Restart=-"},
        {{{"OnDemand", no}}, "Service.Restart=always"},
        {{{"KeepAlive", keepAlive("SuccessfulExit", yes)}}, "Service.Restart=on-success"},
        {{{"KeepAlive", keepAlive("SuccessfulExit", no)}}, "Service.Restart=on-failure"},
        // Only conditions without a counterpart: nothing restarts.
        {{{"KeepAlive", pathState}}, "Service.Restart=-"},
        {{{"KeepAlive", yes}, {"ThrottleInterval", Value::integer(3)}}, "Service.RestartSec=3"},
        {{{"KeepAlive", yes}}, "Unit.StartLimitIntervalSec=0"},
        {{{"WorkingDirectory", Value("/srv/a b/50%")}}, "Service.WorkingDirectory=/srv/a b/50%%"},
        {{{"Umask", Value::integer(18)}}, "Service.UMask=0022"},
        {{{"StandardOutPath", Value("/var/log/j")}}, "Service.StandardOutput=append:/var/log/j"},
        {{{"ExitTimeOut", Value::integer(0)}}, "Service.TimeoutStopSec=infinity"},
        {{{"AbandonProcessGroup", yes}}, "Service.KillMode=process"},
        {{},
         "Service.ExecSearchPath=/opt/t:/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/"
         "bin"},
        // A job that sets its own PATH searches only that.
        {{{"EnvironmentVariables", Value(Dictionary{{"PATH", Value("/mine")}})}},
         "Service.ExecSearchPath=-"},
    };
    for (auto [job, directive] : cases) {
        job["ProgramArguments"] = kTrue;
        const std::string key = directive.substr(0, directive.find('='));
        EXPECT_EQ(key + "=" + service(translate(job, {"/opt/t"})).one(key).value_or("-"),
                  directive);
    }
    EXPECT_EQ(service(translate({{"ProgramArguments", kTrue}})).one("Service.ExecSearchPath"),
              std::nullopt);

    // Started at submit: run at load, or kept alive by something systemd has.
    for (const auto& [job, starts] :
         std::vector<std::pair<Dictionary, bool>>{{{{"RunAtLoad", yes}}, true},
                                                  {{{"RunAtLoad", no}, {"KeepAlive", no}}, false},
                                                  {{{"KeepAlive", keepAlive("Crashed", no)}}, true},
                                                  {{{"KeepAlive", pathState}}, false}}) {
        Dictionary withProgram = job;
        withProgram["ProgramArguments"] = kTrue;
        EXPECT_EQ(translate(withProgram).startService, starts) << starts;
    }
}

TEST(UnitTranslation, CalendarAndIntervalMakeOneTimer) {
    auto entry = [](std::initializer_list<std::pair<const char*, int>> fields) {
        Dictionary d;
        for (const auto& [key, v] : fields) {
            d[key] = Value::integer(v);
        }
        return Value(d);
    };
    const auto t = translate(
        {{"ProgramArguments", kTrue},
         {"StartCalendarInterval",
          Value(Array{entry({{"Hour", 3}, {"Minute", 5}}), entry({{"Weekday", 0}, {"Minute", 0}}),
                      entry({{"Weekday", 7}, {"Month", 12}}),
                      entry({{"Day", 1}, {"Weekday", 1}, {"Hour", 9}, {"Minute", 30}}),
                      entry({{"Second", 1}})})},
         {"StartInterval", Value::integer(90)},
         {"LowPriorityIO", Value::boolean(true)}});
    EXPECT_FALSE(t.startService);
    EXPECT_EQ(t.unitsToStart(), (Strings{"com.example.job.timer"}));
    const UnitText timer = unitNamed(t, "com.example.job.timer");
    EXPECT_EQ(timer.one("Timer.Unit"), "com.example.job.service");
    EXPECT_EQ(timer.all("Timer.OnCalendar"),
              (Strings{"*-*-* 03:05:00", "Sun *-*-* *:00:00", "Sun *-12-* *:*:00",
                       // Day or weekday, as cron reads both.
                       "*-*-01 09:30:00", "Mon *-*-* 09:30:00", "*-*-* *:*:00"}));
    EXPECT_EQ(timer.one("Timer.OnActiveSec"), "90");
    EXPECT_EQ(timer.one("Timer.OnUnitActiveSec"), "90");
    EXPECT_EQ(t.ignoredKeys, (Strings{"LowPriorityIO", "StartCalendarInterval.Second"}));
}

// One socket name gives LABEL.socket, several give one unit each.
TEST(UnitTranslation, SocketsBecomeNamedSocketUnits) {
    auto listener = [](Dictionary d) { return Value(Dictionary{{"Listeners", Value(d)}}); };
    const auto one = translate({{"ProgramArguments", kTrue},
                                {"Sockets", listener({{"SockPathName", Value("/run/100%/s")},
                                                      {"Bonjour", Value::boolean(true)}})}});
    EXPECT_EQ(one.unitsToStart(), (Strings{"com.example.job.socket"}));
    const UnitText sock = unitNamed(one, "com.example.job.socket");
    EXPECT_EQ(sock.one("Socket.ListenStream"), "/run/100%%/s");
    EXPECT_EQ(sock.one("Socket.FileDescriptorName"), "Listeners");
    EXPECT_EQ(one.ignoredKeys, (Strings{"Sockets.Listeners.Bonjour"}));

    const auto many = translate(
        {{"ProgramArguments", kTrue},
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
    const Strings units = {"com.example.job-dgram.socket", "com.example.job-web\\x2din.socket"};
    EXPECT_EQ(many.unitsToStart(), (Strings{units[0], units[1], "com.example.job.service"}));
    EXPECT_EQ(service(many).one("Service.Sockets"), units[0] + " " + units[1]);
    EXPECT_EQ(unitNamed(many, units[1]).all("Socket.ListenStream"),
              (Strings{"8080", "127.0.0.1:8081"}));
    const UnitText dgram = unitNamed(many, units[0]);
    EXPECT_EQ(dgram.one("Socket.ListenDatagram"), "[::]:53");
    EXPECT_EQ(dgram.one("Socket.BindIPv6Only"), "ipv6-only");
}

}  // namespace
}  // namespace tessary::linux_backend
