// Round trips through the client library to a running tessaryd ("status",
// and "list" with the sandbox's services), next to a bare SOCK_SEQPACKET
// echo of the same sizes between two threads of this process and one polkit
// CheckAuthorization of the kind "list" makes, measured in the same run; and
// the switch of a RunAtLoad service by whole tessaryctl processes next to
// systemctl starting and stopping a unit of the same command. Run it through
// bench/run-daemon-bench.sh (or bench/run-all.sh), which starts the daemon in
// the sandbox; pinning is done there, for the whole sandbox at once.
#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "client/tessary_client.h"
#include "hostile_clients.h"
#include "platform/linux/fs/file_bundle_info.h"
#include "platform/linux/ipc/peer_identity.h"
#include "platform/linux/sd_handles.h"
#include "plist/codec.h"
#include "run_quietly.h"

namespace tessary {
namespace {

constexpr const char* kSocket = client::kDefaultSocket;
// The sandbox suite gives the app this RunAtLoad service and writes the unit
// for systemctl (same command) into the manager's runtime directory.
constexpr const char* kRunAtLoadService = "com.example.bench00";
constexpr const char* kCtlUnit = "tessary-bench-ctl.service";

client::Request requestFor(const std::string& command) {
    client::Request r;
    r.command = command;
    if (command != "status") {
        r.authorizationForm = client::makeAuthorizationForm().value();
    }
    return r;
}

void BM_DaemonRoundTrip(benchmark::State& state, const std::string& command) {
    auto connection = client::Connection::open(kSocket);
    if (!connection) {
        state.SkipWithError("no daemon at the request socket");
        return;
    }
    const client::Request request = requestFor(command);
    std::size_t replySize = 0;
    for (auto _ : state) {
        auto reply = connection.value().send(request);
        if (!reply || reply.value().returnCode != 0) {
            state.SkipWithError("request failed");
            return;
        }
    }
    auto bytes = client::encodeRequest(request).value();
    state.counters["request_bytes"] = static_cast<double>(bytes.size());
    (void)replySize;
}
BENCHMARK_CAPTURE(BM_DaemonRoundTrip, status, std::string("status"))
    ->Unit(benchmark::kMicrosecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly()
    ->UseRealTime();
BENCHMARK_CAPTURE(BM_DaemonRoundTrip, list, std::string("list"))
    ->Unit(benchmark::kMicrosecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly()
    ->UseRealTime();

// Root's "status", each on a connection of its own as tessaryctl sends it,
// with nothing else going on (0) and while an unprivileged user floods the
// daemon (1): one connection sends "list" without pause, each refused by
// polkit (the costliest thing such a user can ask for), another sends and
// never reads its replies. Median and 99th percentile of the round trips,
// as counters.
void BM_StatusBesideFlood(benchmark::State& state) {
    constexpr uid_t kNobody = 65534;
    std::vector<std::unique_ptr<testing::HostileChild>> flood;
    if (state.range(0) == 1) {
        flood.push_back(std::make_unique<testing::HostileChild>(kNobody, 64, [](int out, int) {
            testing::RawConnection c(kSocket);
            const plist::Bytes list = client::encodeRequest(requestFor("list")).value();
            testing::HostileChild::say(out, "ready\n");
            for (int inFlight = 0;;) {
                while (inFlight < 32 && c.send(list)) {
                    ++inFlight;
                }
                if (auto reply = c.receive(std::chrono::seconds(5)); !reply || reply->empty()) {
                    return;
                }
                --inFlight;
            }
        }));
        flood.push_back(std::make_unique<testing::HostileChild>(kNobody, 64, [](int out, int) {
            testing::RawConnection c(kSocket);
            const plist::Bytes status = client::encodeRequest(requestFor("status")).value();
            testing::HostileChild::say(out, "ready\n");
            for (;;) {
                (void)c.send(status);  // blocks once the daemon stops reading
            }
        }));
        for (auto& child : flood) {
            (void)child->report();
        }
    }
    std::vector<double> micros;
    const client::Request status = requestFor("status");
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        auto reply = client::sendRequest(kSocket, status, std::chrono::seconds(20));
        if (!reply || reply.value().returnCode != 0) {
            state.SkipWithError("status failed");
            break;
        }
        micros.push_back(
            std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start)
                .count());
    }
    for (auto& child : flood) {
        ::kill(child->pid(), SIGKILL);
        child->end();
    }
    if (!micros.empty()) {
        std::sort(micros.begin(), micros.end());
        state.counters["p50_us"] = micros[micros.size() / 2];
        state.counters["p99_us"] = micros[micros.size() * 99 / 100];
    }
}
BENCHMARK(BM_StatusBesideFlood)
    ->ArgName("flood")
    ->Arg(0)
    ->Arg(1)
    ->Iterations(2000)
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime();

// Echo: a request of `request` bytes, answered with `reply` bytes.
// What a "status" request must read, each time, without the round trip:
// the preferences file twice (two of its four facts), the setup marker, the
// installed daemon's information and the app's, and the sender's /proc
// entries that the code-signing check resolves.
void BM_StatusReadsAlone(benchmark::State& state) {
    linux_backend::FileBundleInfo info;
    const auto readAll = [](const char* path) {
        std::ifstream in(path, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    };
    for (auto _ : state) {
        for (int i = 0; i < 2; ++i) {
            const std::string prefs = readAll("/Library/Tessary/Setup/com.orvane.tessaryd.plist");
            benchmark::DoNotOptimize(plist::decode(std::string_view(prefs)));
        }
        benchmark::DoNotOptimize(::access("/var/db/.TessarySetupDone", F_OK));
        benchmark::DoNotOptimize(
            info.infoDictionary("/Library/PrivilegedHelperTools/com.orvane.tessaryd"));
        benchmark::DoNotOptimize(info.infoDictionary("/Applications/Tessary.app"));
        benchmark::DoNotOptimize(readAll("/proc/self/stat"));
        char exe[4096];
        benchmark::DoNotOptimize(::readlink("/proc/self/exe", exe, sizeof exe));
    }
}
BENCHMARK(BM_StatusReadsAlone)
    ->Unit(benchmark::kMicrosecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly()
    ->UseRealTime();

void BM_SeqpacketEcho(benchmark::State& state) {
    const auto requestSize = static_cast<std::size_t>(state.range(0));
    const auto replySize = static_cast<std::size_t>(state.range(1));
    int fds[2];
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds) != 0) {
        state.SkipWithError("socketpair");
        return;
    }
    std::thread echo([&] {
        std::vector<char> in(requestSize + 1);
        std::vector<char> out(replySize, 'r');
        while (::recv(fds[1], in.data(), in.size(), 0) > 0) {
            (void)::send(fds[1], out.data(), out.size(), MSG_NOSIGNAL);
        }
    });
    std::vector<char> request(requestSize, 'q');
    std::vector<char> reply(replySize + 1);
    for (auto _ : state) {
        (void)::send(fds[0], request.data(), request.size(), MSG_NOSIGNAL);
        (void)::recv(fds[0], reply.data(), reply.size(), 0);
    }
    ::shutdown(fds[0], SHUT_RDWR);
    echo.join();
    ::close(fds[0]);
    ::close(fds[1]);
}
// Sizes: "status" (request ~60 B, reply ~90 B) and "list" with 100 services
// (request ~110 B with its form, reply ~4 KB).
BENCHMARK(BM_SeqpacketEcho)
    ->ArgNames({"request", "reply"})
    ->Args({64, 96})
    ->Args({112, 4096})
    ->Unit(benchmark::kMicrosecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly()
    ->UseRealTime();

// One CheckAuthorization for this process and the daemon's action, with
// the subject the daemon sends (unix-process: pid, start time, uid), on a
// connection to the system bus kept open as the daemon keeps its own.
void BM_PolkitCheckAuthorization(benchmark::State& state) {
    linux_backend::SdBusPtr bus;
    if (linux_backend::openBus("unix:path=/run/dbus/system_bus_socket", true, {}, bus) < 0) {
        state.SkipWithError("no system bus");
        return;
    }
    const auto startTime = linux_backend::processStartTime(static_cast<std::int32_t>(::getpid()));
    if (!startTime) {
        state.SkipWithError("no start time");
        return;
    }
    int authorized = 0;
    for (auto _ : state) {
        sd_bus_message* raw = nullptr;
        sd_bus_message_new_method_call(
            bus.get(), &raw, "org.freedesktop.PolicyKit1", "/org/freedesktop/PolicyKit1/Authority",
            "org.freedesktop.PolicyKit1.Authority", "CheckAuthorization");
        linux_backend::SdBusMessagePtr call(raw);
        sd_bus_message_append(call.get(), "(sa{sv})", "unix-process", 3, "pid", "u",
                              static_cast<std::uint32_t>(::getpid()), "start-time", "t",
                              startTime.value(), "uid", "i",
                              static_cast<std::int32_t>(::geteuid()));
        sd_bus_message_append(call.get(), "sa{ss}us", "com.orvane.tessaryd.admin", 0, 0U, "");
        sd_bus_message* rawReply = nullptr;
        const int r = sd_bus_call(bus.get(), call.get(), 0, nullptr, &rawReply);
        linux_backend::SdBusMessagePtr reply(rawReply);
        int challenge = 0;
        if (r < 0 ||
            sd_bus_message_enter_container(reply.get(), SD_BUS_TYPE_STRUCT, "bba{ss}") <= 0 ||
            sd_bus_message_read(reply.get(), "bb", &authorized, &challenge) <= 0) {
            state.SkipWithError("CheckAuthorization failed");
            return;
        }
    }
    state.counters["authorized"] = authorized;
}
BENCHMARK(BM_PolkitCheckAuthorization)
    ->Unit(benchmark::kMicrosecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly()
    ->UseRealTime();

// A switch on and off; one of the two is measured, one per repetition.
struct Switch {
    std::vector<std::string> on;
    std::vector<std::string> off;
};

Switch tessaryctl() {
    const char* ctl = std::getenv("TESSARYCTL");
    return {{ctl != nullptr ? ctl : "tessaryctl", "enable", kRunAtLoadService},
            {ctl != nullptr ? ctl : "tessaryctl", "disable", kRunAtLoadService}};
}

Switch systemctl() {
    return {{"systemctl", "--user", "start", kCtlUnit}, {"systemctl", "--user", "stop", kCtlUnit}};
}

void BM_Switch(benchmark::State& state, Switch (*make)(), bool measureOn) {
    const Switch s = make();
    for (auto _ : state) {
        if (!measureOn) {
            state.PauseTiming();
        }
        const bool on = bench::runQuietly(s.on);
        if (measureOn) {
            state.PauseTiming();
        } else {
            state.ResumeTiming();
        }
        const bool off = bench::runQuietly(s.off);
        if (measureOn) {
            state.ResumeTiming();
        }
        if (!on || !off) {
            state.SkipWithError("a switch failed");
            return;
        }
    }
}
#define TESSARY_SWITCH(name, make, measureOn)           \
    BENCHMARK_CAPTURE(BM_Switch, name, make, measureOn) \
        ->Unit(benchmark::kMillisecond)                 \
        ->Iterations(1)                                 \
        ->Repetitions(15)                               \
        ->ReportAggregatesOnly()                        \
        ->UseRealTime()
TESSARY_SWITCH(tessaryctl_enable, tessaryctl, true);
TESSARY_SWITCH(tessaryctl_disable, tessaryctl, false);
TESSARY_SWITCH(systemctl_start, systemctl, true);
TESSARY_SWITCH(systemctl_stop, systemctl, false);

}  // namespace
}  // namespace tessary

BENCHMARK_MAIN();
