// Round trips through the client library to a running tessaryd ("status",
// and "list" with the sandbox's services), next to a bare SOCK_SEQPACKET
// echo of the same sizes between two threads of this process, measured in
// the same run. Run it with bench/run-daemon-bench.sh, which starts the
// daemon in the sandbox.
#include <benchmark/benchmark.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include "client/tessary_client.h"

namespace tessary {
namespace {

constexpr const char* kSocket = "/run/com.orvane.tessaryd";

void pinTo(int cpu) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    (void)sched_setaffinity(0, sizeof set, &set);
}

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
        state.SkipWithError("no daemon at /run/com.orvane.tessaryd");
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

// Echo: a request of `request` bytes, answered with `reply` bytes.
void BM_SeqpacketEcho(benchmark::State& state) {
    const auto requestSize = static_cast<std::size_t>(state.range(0));
    const auto replySize = static_cast<std::size_t>(state.range(1));
    const bool pinned = state.range(2) != 0;
    int fds[2];
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds) != 0) {
        state.SkipWithError("socketpair");
        return;
    }
    std::thread echo([&] {
        if (pinned) {
            pinTo(0);
        }
        std::vector<char> in(requestSize + 1);
        std::vector<char> out(replySize, 'r');
        while (::recv(fds[1], in.data(), in.size(), 0) > 0) {
            (void)::send(fds[1], out.data(), out.size(), MSG_NOSIGNAL);
        }
    });
    if (pinned) {
        pinTo(0);
    }
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
// (request ~110 B with its form, reply ~4 KB); unpinned and pinned to CPU 0.
BENCHMARK(BM_SeqpacketEcho)
    ->ArgNames({"request", "reply", "pinned"})
    ->Args({64, 96, 0})
    ->Args({112, 4096, 0})
    ->Args({64, 96, 1})
    ->Args({112, 4096, 1})
    ->Unit(benchmark::kMicrosecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly()
    ->UseRealTime();

}  // namespace
}  // namespace tessary

BENCHMARK_MAIN();
