#include "platform/linux/systemd/unit_translation.h"

#include <gtest/gtest.h>

#include <functional>

#include "support/value_printer.h"
#include "systemd/unit_text.h"

namespace tessary::linux_backend {
namespace {

using plist::Array;
using plist::Dictionary;
using plist::Value;
using testing::strings;
using testing::UnitText;
using Strings = std::vector<std::string>;

const Value kTrue = strings({"/bin/true"});

// The manager's default limits, and a services database of one name.
const TranslationOptions kOptions{"",
                                  [](std::string_view) {
                                      return std::optional(ResourceLimit{1024, 524288});
                                  },
                                  [](std::string_view name, std::string_view protocol) {
                                      return name == "http" && protocol == "tcp" ? std::optional(80)
                                                                                 : std::nullopt;
                                  }};

Result<UnitTranslation> translateWithLabel(Dictionary job,
                                           const TranslationOptions& options = kOptions) {
    job.emplace("Label", Value("com.example.job"));
    return translateJob(Value(job), options);
}

UnitTranslation translate(Dictionary job, const TranslationOptions& options = kOptions) {
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
    return unitNamed(t, t.serviceUnit);
}

Strings findings(const UnitTranslation& t) {
    Strings out;
    for (const auto& f : t.findings) {
        out.push_back(std::string(findingKindName(f.kind)) + " " + f.key);
    }
    return out;
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

const Value yes = Value::boolean(true), no = Value::boolean(false);

Value dict(std::initializer_list<std::pair<const std::string, Value>> entries) {
    return Value(Dictionary(entries));
}

// Every refusal names what is wrong, and nothing half-made comes back.
TEST(UnitTranslation, JobsThatCannotRunAsWrittenAreRefused) {
    auto withSocket = [](Dictionary sock) {
        return Dictionary{{"ProgramArguments", kTrue}, {"Sockets", dict({{"s", Value(sock)}})}};
    };
    auto with = [](std::initializer_list<std::pair<const std::string, Value>> keys) {
        Dictionary job(keys);
        job.emplace("ProgramArguments", kTrue);
        return job;
    };
    const Value inetd = dict({{"Wait", no}});
    const std::vector<std::pair<Dictionary, std::string>> cases = {
        {{{"Label", Value("bad/label")}, {"Program", Value("/bin/true")}}, "bad/label"},
        {{}, "neither Program nor ProgramArguments"},
        {{{"ProgramArguments", Value(Array{Value::integer(1)})}}, "array of strings"},
        {{{"Program", Value("/bin/x\ny")}}, "control characters"},
        // Text systemd would refuse the whole unit for.
        {{{"ProgramArguments", strings({"/bin/echo", "bad \xff"})}}, "not UTF-8"},
        {with({{"StartCalendarInterval", dict({{"Hour", Value::integer(24)}})}}),
         "StartCalendarInterval.Hour"},
        // A typo would widen the entry to every minute.
        {with({{"StartCalendarInterval", dict({{"Minutes", Value::integer(5)}})}}),
         "StartCalendarInterval.Minutes"},
        {withSocket({{"SockPathName", Value("/x")}, {"SockPassive", no}}), "SockPassive"},
        {withSocket({{"SockType", Value("raw")}}), "SockType"},
        {withSocket({{"SockServiceName", Value::integer(80)}, {"SockNodeName", Value("a.org")}}),
         "SockNodeName"},
        {withSocket({{"SockServiceName", Value("gopher")}}), "services database"},
        {withSocket({{"SockType", Value("seqpacket")}, {"SockServiceName", Value::integer(80)}}),
         "Unix paths only"},
        {with({{"WorkingDirectory", Value("relative")}}), "absolute"},
        // systemd refuses to load, or drops, paths that are not normalized.
        {with({{"WorkingDirectory", Value("/srv/../etc")}}), "\"..\" component"},
        {with({{"StandardOutPath", Value("/var/log/./job")}}), "\".\" component"},
        // A backslash at the end would take the User= line with it.
        {with({{"StandardErrorPath", Value("/var/log/job\\")}, {"UserName", Value("nobody")}}),
         "ends in a backslash"},
        {with({{"StandardOutPath", Value("/log\nUser=root")}}), "StandardOutPath"},
        // Read as prefixes of the command ("+" ignores User=).
        {{{"Program", Value("+/bin/true")}, {"UserName", Value("nobody")}}, "prefix"},
        {{{"ProgramArguments", strings({"!/bin/true"})}}, "prefix"},
        {{{"ProgramArguments", strings({"bin/true"})}}, "absolute"},
        // A program looked up in the job's PATH, which systemd could not search.
        {{{"ProgramArguments", strings({"true"})},
          {"EnvironmentVariables", dict({{"PATH", Value("/bin:.")}})}},
         "EnvironmentVariables.PATH"},
        {with({{"UserName", Value("-root")}}), "UserName"},
        {with({{"UserName", Value("nobody")}, {"InitGroups", no}}), "InitGroups"},
        {with({{"Umask", Value("08")}}), "Umask"},
        {with({{"Nice", Value::integer(20)}}), "Nice"},
        {with({{"EnvironmentVariables", dict({{"BAD NAME", Value("x")}})}}), "BAD NAME"},
        {with({{"SoftResourceLimits", dict({{"NumberOfFiles", Value::integer(9000)}})},
               {"HardResourceLimits", dict({{"NumberOfFiles", Value::integer(8000)}})}}),
         "above the hard limit"},
        {with({{"SoftResourceLimits", dict({{"NumberOfFiles", Value::integer(600000)}})}}),
         "above the hard limit 524288 the job keeps"},
        {with({{"HardResourceLimits", dict({{"Files", Value::integer(1)}})}}),
         "HardResourceLimits.Files"},
        {with({{"KeepAlive", dict({{"SuccesfulExit", yes}})}}), "KeepAlive.SuccesfulExit"},
        {with({{"KeepAlive", dict({{"PathState", dict({{"/run/x", yes}})}})}, {"RunAtLoad", yes}}),
         "KeepAlive.PathState"},
        {with({{"QueueDirectories", strings({"/q"})}, {"KeepAlive", yes}}), "QueueDirectories"},
        // Its only start has no counterpart: it could never run.
        {with({{"MachServices", dict({{"com.example", yes}})}}), "MachServices"},
        {with({{"LimitLoadToSessionType", Value("Aqua")}}), "LimitLoadToSessionType"},
        {with({{"LimitLoadToHosts", strings({"0123456789abcdef0123456789abcdef"})}}),
         "LimitLoadToHosts"},
        {with({{"inetdCompatibility", inetd}}), "no Sockets"},
        {[&] {
             auto job = withSocket({{"SockPathName", Value("/run/s")}});
             job.emplace("inetdCompatibility", inetd);
             job.emplace("RunAtLoad", yes);
             return job;
         }(),
         "RunAtLoad"},
        {[&] {
             auto job = withSocket({{"SockType", Value("dgram")}, {"SockServiceName", Value("9")}});
             job.emplace("inetdCompatibility", inetd);
             return job;
         }(),
         "datagram"},
    };
    for (const auto& [job, reason] : cases) {
        const auto t = translateWithLabel(job);
        ASSERT_FALSE(t.ok()) << reason;
        EXPECT_NE(t.error().description.find(reason), std::string::npos)
            << reason << ": " << t.error().description;
    }
}

// Every value systemd takes as written, with no unquoting, for every key
// that gives one: refused, or read back exactly the job's value (specifiers
// expanded, a backslash at a line's end joining the next).
TEST(UnitTranslation, UnquotedValuesAreReadBackExactlyOrRefused) {
    struct Directive {
        std::function<Dictionary(const std::string&)> job;
        std::string unit;  // suffix of the unit's name
        std::string key;
        std::string prefix;
        bool path;
    };
    auto key = [](const char* k) {
        return [k](const std::string& v) { return Dictionary{{k, Value(v)}}; };
    };
    auto socket = [](Dictionary entry) {
        return Dictionary{{"Sockets", dict({{"s", Value(std::move(entry))}})}};
    };
    const std::vector<Directive> directives = {
        {key("WorkingDirectory"), ".service", "Service.WorkingDirectory", "", true},
        {key("RootDirectory"), ".service", "Service.RootDirectory", "", true},
        {key("StandardInPath"), ".service", "Service.StandardInput", "file:", true},
        {key("StandardOutPath"), ".service", "Service.StandardOutput", "append:", true},
        {key("StandardErrorPath"), ".service", "Service.StandardError", "append:", true},
        {key("UserName"), ".service", "Service.User", "", false},
        {key("GroupName"), ".service", "Service.Group", "", false},
        {key("LimitLoadFromHosts"), ".service", "Unit.ConditionHost", "!", false},
        {[&](const std::string& v) {
             return socket({{"SockPathName", Value(v)}});
         },
         ".socket", "Socket.ListenStream", "", true},
        {[](const std::string& v) {
             return Dictionary{{"Sockets", dict({{v, dict({{"SockPathName", Value("/s")}})}})}};
         },
         ".socket", "Socket.FileDescriptorName", "", false},
        {[](const std::string& v) {
             return Dictionary{{"WatchPaths", strings({v})}};
         },
         ".path", "Path.PathModified", "", true},
        {[](const std::string& v) {
             return Dictionary{{"QueueDirectories", strings({v})}};
         },
         ".path", "Path.DirectoryNotEmpty", "", true},
        {[](const std::string& v) {
             return Dictionary{{"KeepAlive", dict({{"PathState", dict({{v, yes}})}})}};
         },
         ".path", "Path.PathExists", "", true},
        {[](const std::string& v) {
             return Dictionary{{"ProgramArguments", strings({"true"})},
                               {"EnvironmentVariables", dict({{"PATH", Value(v)}})}};
         },
         ".service", "Service.ExecSearchPath", "", true},
    };
    Strings values = testing::kHostileValues;
    for (const char* v :
         {"/srv/a b/100%", "/var/log/job\\", "/a/../b", "/a//b", "/a/.", "nobody", "x:y", "-x"}) {
        values.emplace_back(v);
    }
    auto normalized = [](const std::string& p) {
        return p.find("//") == p.npos && p.find("/./") == p.npos && p.find("/../") == p.npos &&
               !p.ends_with("/.") && !p.ends_with("/..");
    };
    for (const auto& d : directives) {
        for (std::string value : values) {
            if (d.path && !value.starts_with('/')) {
                value = "/" + value;  // past the rule that paths are absolute
            }
            Dictionary job = d.job(value);
            job.emplace("ProgramArguments", kTrue);
            job.emplace("UserName", Value("nobody"));
            const auto t = translateWithLabel(job);
            if (!t.ok()) {
                continue;
            }
            const UnitText unit = unitNamed(t.value(), "com.example.job" + d.unit);
            EXPECT_EQ(unit.expanded(d.key), d.prefix + value) << d.key;
            EXPECT_TRUE(!d.path || normalized(value)) << d.key << " " << value;
            EXPECT_TRUE(unit.all("!malformed").empty()) << d.key << " " << value;
            if (d.key != "Service.User") {
                EXPECT_EQ(service(t.value()).one("Service.User"), "nobody") << d.key << value;
            }
        }
    }
}

// What job keys become, as "Section.Key=value" ("-": no such directive).
TEST(UnitTranslation, JobKeysBecomeTheirDirectives) {
    auto keepAlive = [](std::initializer_list<std::pair<const std::string, Value>> rules) {
        return dict({{"KeepAlive", Value(Dictionary(rules))}});
    };
    auto limits = [](const char* which, const char* key, std::int64_t n) {
        return std::pair<const std::string, Value>{which, dict({{key, Value::integer(n)}})};
    };
    const std::string clean = "SIGHUP SIGINT SIGTERM SIGPIPE";
    const std::string crash = "SIGILL SIGTRAP SIGABRT SIGBUS SIGFPE SIGSEGV SIGSYS";
    const std::vector<std::pair<Dictionary, std::string>> cases = {
        {{{"KeepAlive", yes}}, "Service.Restart=always"},
        {{{"KeepAlive", no}}, "Service.Restart=-"},
        {{{"OnDemand", no}}, "Service.Restart=always"},
        // Each exit condition exactly: a status 1 or SIGKILL counts as the
        // job format counts it.
        {*keepAlive({{"SuccessfulExit", yes}}).dictionary(), "Service.Restart=on-success"},
        {*keepAlive({{"SuccessfulExit", yes}}).dictionary(),
         "Service.RestartPreventExitStatus=" + clean},
        {*keepAlive({{"SuccessfulExit", no}}).dictionary(), "Service.Restart=on-failure"},
        {*keepAlive({{"SuccessfulExit", no}}).dictionary(),
         "Service.RestartForceExitStatus=" + clean},
        {*keepAlive({{"Crashed", yes}}).dictionary(), "Service.Restart=no"},
        {*keepAlive({{"Crashed", yes}}).dictionary(), "Service.RestartForceExitStatus=" + crash},
        {*keepAlive({{"Crashed", no}}).dictionary(), "Service.RestartPreventExitStatus=" + crash},
        {*keepAlive({{"SuccessfulExit", yes}, {"Crashed", yes}}).dictionary(),
         "Service.RestartForceExitStatus=" + crash},
        {*keepAlive({{"SuccessfulExit", yes}, {"Crashed", no}}).dictionary(),
         "Service.Restart=always"},
        {{{"KeepAlive", yes}, {"ThrottleInterval", Value::integer(3)}}, "Service.RestartSec=3"},
        {{{"KeepAlive", yes}}, "Unit.StartLimitIntervalSec=0"},
        {{{"WorkingDirectory", Value("/srv/a b/50%")}}, "Service.WorkingDirectory=/srv/a b/50%%"},
        {{{"Umask", Value::integer(18)}}, "Service.UMask=0022"},
        // Strings as strtoul reads them with base 0.
        {{{"Umask", Value("022")}}, "Service.UMask=0022"},
        {{{"Umask", Value("22")}}, "Service.UMask=0026"},
        {{{"Umask", Value("0x12")}}, "Service.UMask=0022"},
        {{{"StandardOutPath", Value("/var/log/j")}}, "Service.StandardOutput=append:/var/log/j"},
        {{{"StandardOutPath", Value("/var/log/j")}}, "Service.StandardError=journal"},
        {{{"ExitTimeOut", Value::integer(0)}}, "Service.TimeoutStopSec=infinity"},
        {{}, "Service.TimeoutStopSec=20"},
        {{{"AbandonProcessGroup", yes}}, "Service.KillMode=process"},
        {{{"LowPriorityIO", yes}}, "Service.IOSchedulingClass=idle"},
        {{{"ProcessType", Value("Background")}}, "Service.CPUSchedulingPolicy=batch"},
        {{{"ProcessType", Value("Interactive")}}, "Service.CPUWeight=200"},
        {{limits("SoftResourceLimits", "NumberOfFiles", 4096),
          limits("HardResourceLimits", "NumberOfFiles", 8192)},
         "Service.LimitNOFILE=4096:8192"},
        // One of a pair keeps what the manager would give.
        {{limits("SoftResourceLimits", "NumberOfFiles", 4096)}, "Service.LimitNOFILE=4096:524288"},
        {{limits("HardResourceLimits", "Core", 0)}, "Service.LimitCORE=0:0"},
        {{limits("HardResourceLimits", "ResidentSetSize", 1 << 20)}, "Service.MemoryMax=1048576"},
        {{limits("SoftResourceLimits", "NumberOfProcesses", 50)}, "Service.TasksMax=50"},
        {{{"LaunchOnlyOnce", yes}}, "Service.RemainAfterExit=yes"},
        {{{"SessionCreate", yes}}, "Service.PAMName=login"},
        {{{"LimitLoadToHosts", strings({"build"})}}, "Unit.ConditionHost=build"},
        {{},
         "Service.ExecSearchPath=/opt/t:/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/"
         "bin"},
        // A job that sets its own PATH searches only that.
        {{{"EnvironmentVariables", dict({{"PATH", Value("/mine")}})}}, "Service.ExecSearchPath=-"},
        // A job of /bin/sh runs under bash, which keeps shopt and nullglob in
        // its POSIX mode (the uninstall clean-up job needs them), with the
        // job's arguments untouched; no other program does.
        {{{"ProgramArguments", strings({"/bin/sh", "-c", "shopt -s nullglob"})}},
         R"(Service.ExecStart=@"/bin/bash" "/bin/sh" "-c" "shopt -s nullglob")"},
        {{{"Program", Value("/bin/sh")}, {"ProgramArguments", strings({"cleanup", "-c", "x"})}},
         R"(Service.ExecStart=@"/bin/bash" "cleanup" "-c" "x")"},
        {{{"ProgramArguments", strings({"/bin/sh2", "-c", "x"})}},
         R"(Service.ExecStart=@"/bin/sh2" "/bin/sh2" "-c" "x")"},
    };
    TranslationOptions helper = kOptions;
    helper.helperBinDirectory = "/opt/t";
    for (auto [job, directive] : cases) {
        job.emplace("ProgramArguments", kTrue);
        const std::string key = directive.substr(0, directive.find('='));
        EXPECT_EQ(key + "=" + service(translate(job, helper)).one(key).value_or("-"), directive);
    }
    EXPECT_EQ(service(translate({{"ProgramArguments", kTrue}})).one("Service.ExecSearchPath"),
              std::nullopt);
    // A program looked up by name, in the job's PATH.
    EXPECT_EQ(service(translate({{"ProgramArguments", strings({"true"})},
                                 {"EnvironmentVariables", dict({{"PATH", Value("/a:/b%")}})}}))
                  .one("Service.ExecSearchPath"),
              "/a:/b%%");

    // Started at submit: run at load, or kept alive in a way that needs a
    // first run (a crash needs a run to come from).
    for (const auto& [job, starts] : std::vector<std::pair<Dictionary, bool>>{
             {{{"RunAtLoad", yes}}, true},
             {{{"RunAtLoad", no}, {"KeepAlive", no}}, false},
             {*keepAlive({{"SuccessfulExit", no}}).dictionary(), true},
             {*keepAlive({{"SuccessfulExit", no}, {"AfterInitialDemand", yes}}).dictionary(),
              false},
             {*keepAlive({{"Crashed", no}}).dictionary(), false}}) {
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
                      entry({})})},
         {"StartInterval", Value::integer(90)},
         {"MulticastGroup", yes}});
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
    EXPECT_EQ(findings(t), (Strings{"approximate StartInterval", "ignored MulticastGroup"}));
}

// Watched paths and queues start the job through LABEL.path; a queue keeps
// it running, an interval apart, while it holds a file.
TEST(UnitTranslation, WatchedPathsQueuesAndPathStateMakeOnePathUnit) {
    const auto t = translate({{"ProgramArguments", kTrue},
                              {"WatchPaths", strings({"/etc/app.conf"})},
                              {"QueueDirectories", strings({"/var/spool/app"})},
                              {"ThrottleInterval", Value::integer(5)}});
    EXPECT_FALSE(t.startService);
    EXPECT_EQ(t.unitsToStart(), (Strings{"com.example.job.path"}));
    const UnitText path = unitNamed(t, "com.example.job.path");
    EXPECT_EQ(path.one("Path.Unit"), "com.example.job.service");
    EXPECT_EQ(path.one("Path.PathModified"), "/etc/app.conf");
    EXPECT_EQ(path.one("Path.DirectoryNotEmpty"), "/var/spool/app");
    EXPECT_EQ(service(t).one("Service.Restart"), "always");
    EXPECT_EQ(service(t).one("Service.RestartSec"), "5");
    EXPECT_EQ(service(t).one("Unit.ConditionDirectoryNotEmpty"), "|/var/spool/app");

    const auto state = translate(
        {{"ProgramArguments", kTrue},
         {"KeepAlive", dict({{"PathState", dict({{"/run/up", yes}, {"/run/down", no}})}})}});
    EXPECT_TRUE(state.startService);  // kept alive while /run/down is absent
    EXPECT_EQ(unitNamed(state, "com.example.job.path").one("Path.PathExists"), "/run/up");
    EXPECT_EQ(service(state).all("Unit.ConditionPathExists"), (Strings{"|!/run/down", "|/run/up"}));
    EXPECT_EQ(service(state).one("Service.Restart"), "always");
}

// One socket name gives LABEL.socket, several give one unit each.
TEST(UnitTranslation, SocketsBecomeNamedSocketUnits) {
    auto listener = [](Dictionary d) { return dict({{"Listeners", Value(d)}}); };
    const auto one = translate({{"ProgramArguments", kTrue},
                                {"Sockets", listener({{"SockPathName", Value("/run/100%/s")},
                                                      {"SockPathOwner", Value::integer(65534)},
                                                      {"Bonjour", yes}})}});
    EXPECT_EQ(one.unitsToStart(), (Strings{"com.example.job.socket"}));
    const UnitText sock = unitNamed(one, "com.example.job.socket");
    EXPECT_EQ(sock.one("Socket.ListenStream"), "/run/100%%/s");
    EXPECT_EQ(sock.one("Socket.FileDescriptorName"), "Listeners");
    EXPECT_EQ(sock.one("Socket.SocketUser"), "65534");
    EXPECT_EQ(findings(one), (Strings{"ignored Sockets.Listeners.Bonjour"}));

    const auto many = translate(
        {{"ProgramArguments", kTrue},
         {"RunAtLoad", yes},
         {"Sockets", dict({{"web-in", Value(Array{dict({{"SockServiceName", Value("http")}}),
                                                  dict({{"SockServiceName", Value::integer(8081)},
                                                        {"SockNodeName", Value("localhost")},
                                                        {"SockFamily", Value("IPv4")}})})},
                           {"dgram", dict({{"SockType", Value("dgram")},
                                           {"SockNodeName", Value("::")},
                                           {"SockServiceName", Value::integer(53)}})}})}});
    const Strings units = {"com.example.job-dgram.socket", "com.example.job-web\\x2din.socket"};
    EXPECT_EQ(many.unitsToStart(), (Strings{units[0], units[1], "com.example.job.service"}));
    EXPECT_EQ(service(many).one("Service.Sockets"), units[0] + " " + units[1]);
    const UnitText web = unitNamed(many, units[1]);
    EXPECT_EQ(web.all("Socket.ListenStream"), (Strings{"80", "127.0.0.1:8081"}));
    EXPECT_EQ(web.one("Socket.BindIPv6Only"), "both");  // whatever the machine's default
    const UnitText dgram = unitNamed(many, units[0]);
    EXPECT_EQ(dgram.one("Socket.ListenDatagram"), "[::]:53");
    EXPECT_EQ(dgram.one("Socket.BindIPv6Only"), "ipv6-only");  // "::" alone takes no IPv4
}

// inetd's two forms: a process per connection, or the one listening socket
// as standard input.
TEST(UnitTranslation, InetdJobsHandOverTheirConnectionOrSocket) {
    auto job = [](bool wait) {
        return Dictionary{{"ProgramArguments", strings({"/bin/cat"})},
                          {"inetdCompatibility", dict({{"Wait", Value::boolean(wait)}})},
                          {"Sockets", dict({{"echo", dict({{"SockServiceName", Value("7")}})}})}};
    };
    const auto each = translate(job(false));
    EXPECT_TRUE(each.accepts);
    EXPECT_EQ(each.serviceUnit, "com.example.job@.service");
    EXPECT_TRUE(findings(each).empty());
    EXPECT_EQ(each.loadableUnits(), (Strings{"com.example.job.socket"}));
    EXPECT_EQ(each.unitsToStart(), (Strings{"com.example.job.socket"}));
    const UnitText socket = unitNamed(each, "com.example.job.socket");
    EXPECT_EQ(socket.one("Socket.Accept"), "yes");
    EXPECT_EQ(socket.one("Socket.Service"), std::nullopt);
    EXPECT_EQ(service(each).one("Service.StandardInput"), "socket");
    EXPECT_EQ(service(each).one("Service.Sockets"), std::nullopt);

    const auto one = translate(job(true));
    EXPECT_FALSE(one.accepts);
    EXPECT_EQ(service(one).one("Service.StandardInput"), "socket");
    EXPECT_EQ(unitNamed(one, "com.example.job.socket").one("Socket.Service"),
              "com.example.job.service");
}

}  // namespace
}  // namespace tessary::linux_backend
