// Submit, is-loaded and remove of a RunAtLoad job through the systemd backend,
// next to the nearest systemctl commands (link + start, is-active, stop) on
// the same manager in the same run. Each measured operation is one
// repetition, so the "median" rows are medians of single operations.
//
// Then the supervisor on this backend, on a main loop as in the daemon: a
// synchronisation pass over 100 services that are all off, next to the
// is-loaded questions asked raw over sd-bus one by one; the pass and the stop
// of all over 10, 100 and 1,000 services; and the stop of all of 20 running
// services whose programs take a second to stop.
//
// Needs a private systemd at the fixed addresses; run it through the test
// wrapper:
//   tests/systemd/with-systemd.sh build/release/bench/tessary_systemd_bench
#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "daemon/supervisor.h"
#include "platform/linux/sd_handles.h"
#include "platform/linux/systemd/systemd_service_manager.h"
#include "platform/linux/systemd/unit_translation.h"
#include "support/test_platform.h"

extern char** environ;

namespace tessary {
namespace {

constexpr int kSamples = 30;
constexpr const char* kLabel = "com.tessary.bench.job";
constexpr const char* kCtlUnit = "tessary-bench-ctl.service";

class NullLog final : public SystemLog {
  public:
    void write(LogLevel /*level*/, std::string_view /*line*/) override {}
};

struct GrantedAuthorization final : Authorization {};

struct Backend {
    NullLog log;
    linux_backend::SystemdServiceManager manager{{}, log};
    AuthorizationRef auth = std::make_shared<GrantedAuthorization>();
    plist::Value job{plist::Dictionary{
        {"Label", plist::Value(kLabel)},
        {"ProgramArguments", plist::Value(plist::stringArray({"/bin/sleep", "1000"}))},
        {"RunAtLoad", plist::Value::boolean(true)}}};

    void submit(benchmark::State& state) {
        if (!manager.submitJob(job, auth).ok()) {
            state.SkipWithError("submit failed");
        }
    }
    void remove(benchmark::State& state) {
        if (!manager.removeJob(kLabel, auth, true).ok()) {
            state.SkipWithError("remove failed");
        }
    }
};

Backend& backend() {
    static Backend b;
    return b;
}

// systemctl --user ARGS..., without a shell in between.
bool systemctl(std::vector<std::string> args) {
    args.insert(args.begin(), {"systemctl", "--user", "--quiet"});
    std::vector<char*> argv;
    for (auto& a : args) {
        argv.push_back(a.data());
    }
    argv.push_back(nullptr);
    pid_t pid = 0;
    if (posix_spawnp(&pid, "systemctl", nullptr, nullptr, argv.data(), environ) != 0) {
        return false;
    }
    int status = 0;
    return waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

std::string ctlUnitFile() {
    static const std::string path = [] {
        const char* tmp = std::getenv("TMPDIR");
        std::string p = std::string(tmp != nullptr ? tmp : "/tmp") + "/" + kCtlUnit;
        std::ofstream(p) << "[Service]\nType=exec\nExecStart=/bin/sleep 1000\n";
        return p;
    }();
    return path;
}

void BM_BackendSubmit(benchmark::State& state) {
    for (auto _ : state) {
        backend().submit(state);
        state.PauseTiming();
        backend().remove(state);
        state.ResumeTiming();
    }
}

// The queries run against a job that has been running for a while, as the
// daemon's are: submitted once before the first repetition, removed at the
// end of the run.
bool backendJobRunning = false;
bool ctlUnitRunning = false;

void BM_BackendIsLoaded(benchmark::State& state) {
    if (!backendJobRunning) {
        backend().submit(state);
        backendJobRunning = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    for (auto _ : state) {
        if (backend().manager.jobIsEnabled(kLabel) != Answer::Yes) {
            state.SkipWithError("not loaded");
        }
    }
}

void BM_BackendRemove(benchmark::State& state) {
    for (auto _ : state) {
        state.PauseTiming();
        backend().submit(state);
        state.ResumeTiming();
        backend().remove(state);
    }
}

void BM_SystemctlLinkStart(benchmark::State& state) {
    const std::string file = ctlUnitFile();
    for (auto _ : state) {
        if (!systemctl({"link", "--runtime", file}) || !systemctl({"start", kCtlUnit})) {
            state.SkipWithError("systemctl link/start failed");
        }
        state.PauseTiming();
        systemctl({"stop", kCtlUnit});
        systemctl({"disable", "--runtime", kCtlUnit});
        state.ResumeTiming();
    }
}

void BM_SystemctlIsActive(benchmark::State& state) {
    if (!ctlUnitRunning) {
        systemctl({"link", "--runtime", ctlUnitFile()});
        systemctl({"start", kCtlUnit});
        ctlUnitRunning = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    for (auto _ : state) {
        if (!systemctl({"is-active", kCtlUnit})) {
            state.SkipWithError("not active");
        }
    }
}

void BM_SystemctlStop(benchmark::State& state) {
    const std::string file = ctlUnitFile();
    for (auto _ : state) {
        state.PauseTiming();
        systemctl({"link", "--runtime", file});
        systemctl({"start", kCtlUnit});
        state.ResumeTiming();
        if (!systemctl({"stop", kCtlUnit})) {
            state.SkipWithError("systemctl stop failed");
        }
        state.PauseTiming();
        systemctl({"disable", "--runtime", kCtlUnit});
        state.ResumeTiming();
    }
}

#define TESSARY_SINGLE_OPERATION(b)     \
    BENCHMARK(b)                        \
        ->Unit(benchmark::kMillisecond) \
        ->Iterations(1)                 \
        ->Repetitions(kSamples)         \
        ->UseRealTime()                 \
        ->ReportAggregatesOnly()

TESSARY_SINGLE_OPERATION(BM_BackendSubmit);
TESSARY_SINGLE_OPERATION(BM_BackendRemove);
TESSARY_SINGLE_OPERATION(BM_SystemctlLinkStart);
TESSARY_SINGLE_OPERATION(BM_SystemctlStop);
TESSARY_SINGLE_OPERATION(BM_BackendIsLoaded);
TESSARY_SINGLE_OPERATION(BM_SystemctlIsActive);

// A main loop of its own for the backend, as the daemon has: each turn of it
// is a new decision pass, which takes its picture of the manager's units
// anew.
struct MainLoop {
    MainLoop() {
        sd_event* raw = nullptr;
        (void)sd_event_new(&raw);
        event.reset(raw);
    }
    void turn() { (void)sd_event_run(event.get(), 0); }
    linux_backend::SdEventPtr event;
};

// COUNT services of the supervisor on the real manager, every `onEvery`-th
// switched on (none with 0), loaded and synchronised once.
struct RealFleet {
    RealFleet(int count, int onEvery, const plist::Dictionary& extra = {}) {
        plist::Array enabled;
        for (int i = 0; i < count; ++i) {
            labels.push_back("com.tessary.bench.fleet" + std::to_string(i));
            t.addDefinition(labels.back() + ".plist", testing::definition(labels.back(), extra));
            if (onEvery != 0 && i % onEvery == 0) {
                enabled.emplace_back(labels.back());
            }
        }
        (void)supervisor.preferences().writePreferences(
            {{"enabledServices", plist::Value(std::move(enabled))}});
        supervisor.loadServices();
        supervisor.syncServices();
    }
    NullLog log;
    MainLoop loop;
    linux_backend::SystemdServiceManager manager{options(loop.event.get()), log};
    testing::TestPlatform t{&manager};
    TYSupervisor supervisor{t.platform};
    std::vector<std::string> labels;

    static linux_backend::SystemdServiceManagerOptions options(sd_event* event) {
        linux_backend::SystemdServiceManagerOptions o;
        o.event = event;
        return o;
    }
};

// One decision pass per turn of the main loop, as a request makes one.
void syncEachTurn(benchmark::State& state, RealFleet& fleet) {
    for (auto _ : state) {
        state.PauseTiming();
        fleet.loop.turn();
        state.ResumeTiming();
        fleet.supervisor.syncServices();
    }
}

void BM_SyncHundredOffServices(benchmark::State& state) {
    RealFleet fleet(100, 0);
    syncEachTurn(state, fleet);
}
BENCHMARK(BM_SyncHundredOffServices)
    ->Unit(benchmark::kMillisecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly()
    ->UseRealTime();

// Services that run once loaded, as the daemon's growth suite creates them.
const plist::Dictionary kRunAtLoad{{"RunAtLoad", plist::Value::boolean(true)}};

// The pass over 10, 100 and 1,000 services, every tenth on (and running).
void BM_SyncGrowth(benchmark::State& state) {
    RealFleet fleet(static_cast<int>(state.range(0)), 10, kRunAtLoad);
    syncEachTurn(state, fleet);
}
BENCHMARK(BM_SyncGrowth)
    ->ArgName("services")
    ->Arg(10)
    ->Arg(100)
    ->Arg(1000)
    ->Unit(benchmark::kMillisecond)
    ->Repetitions(9)
    ->ReportAggregatesOnly()
    ->UseRealTime();

// The is-loaded question (ListUnitsByNames of the one unit, which loads it
// from its file if need be), for the same 100 units, over sd-bus directly: on one
// connection, as the backend asks them on the main loop, and with a
// connection of its own for each question, for comparison.
void BM_RawUnitStateQueries(benchmark::State& state) {
    const bool connectionEach = state.range(0) != 0;
    std::vector<std::string> units;
    for (int i = 0; i < 100; ++i) {
        units.push_back(
            linux_backend::serviceUnitName("com.tessary.bench.fleet" + std::to_string(i)));
    }
    const std::string address = "unix:path=/run/systemd/private";
    linux_backend::SdBusPtr shared;
    if (!connectionEach && linux_backend::openBus(address, false, {}, shared) < 0) {
        state.SkipWithError("no manager");
        return;
    }
    for (auto _ : state) {
        for (const std::string& unit : units) {
            linux_backend::SdBusPtr own;
            if (connectionEach && linux_backend::openBus(address, false, {}, own) < 0) {
                state.SkipWithError("no manager");
                return;
            }
            sd_bus* bus = connectionEach ? own.get() : shared.get();
            sd_bus_message* raw = nullptr;
            int r = sd_bus_call_method(bus, "org.freedesktop.systemd1", "/org/freedesktop/systemd1",
                                       "org.freedesktop.systemd1.Manager", "ListUnitsByNames",
                                       nullptr, &raw, "as", 1, unit.c_str());
            linux_backend::SdBusMessagePtr reply(raw);
            const char* s[6] = {};
            const char* path = nullptr;
            std::uint32_t job = 0;
            const char* jobType = nullptr;
            const char* jobPath = nullptr;
            if (r >= 0 && sd_bus_message_enter_container(raw, 'a', "(ssssssouso)") > 0) {
                r = sd_bus_message_read(raw, "(ssssssouso)", &s[0], &s[1], &s[2], &s[3], &s[4],
                                        &s[5], &path, &job, &jobType, &jobPath);
            }
            if (r <= 0) {
                state.SkipWithError("query failed");
                return;
            }
        }
    }
}
BENCHMARK(BM_RawUnitStateQueries)
    ->ArgName("connection_each")
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kMillisecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly()
    ->UseRealTime();

// The programs answer SIGTERM by finishing a second later, so each stop
// takes a second of the manager's.
void BM_StopAllTwentySlowServices(benchmark::State& state) {
    const plist::Dictionary slowStop{
        {"RunAtLoad", plist::Value::boolean(true)},
        {"ProgramArguments",
         plist::Value(plist::stringArray(
             {"/bin/sh", "-c", "trap '/bin/sleep 1; exit 0' TERM; /bin/sleep 1000 & wait"}))}};
    for (auto _ : state) {
        state.PauseTiming();
        auto fleet = std::make_unique<RealFleet>(20, 1, slowStop);
        // Time for every shell to have set its trap.
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        state.ResumeTiming();
        fleet->supervisor.stopAllServices();
        state.PauseTiming();
        for (const std::string& label : fleet->labels) {
            if (fleet->manager.jobIsEnabled(label) != Answer::No) {
                state.SkipWithError("a service is still loaded");
            }
        }
        fleet.reset();
        state.ResumeTiming();
    }
}
BENCHMARK(BM_StopAllTwentySlowServices)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1)
    ->Repetitions(3)
    ->ReportAggregatesOnly()
    ->UseRealTime();

// The stop of all of 10, 100 and 1,000 services, every tenth on and running
// a program that stops at once.
void BM_StopAllGrowth(benchmark::State& state) {
    for (auto _ : state) {
        state.PauseTiming();
        auto fleet = std::make_unique<RealFleet>(static_cast<int>(state.range(0)), 10, kRunAtLoad);
        fleet->loop.turn();
        state.ResumeTiming();
        fleet->supervisor.stopAllServices();
        state.PauseTiming();
        fleet->loop.turn();
        for (std::size_t i = 0; i < fleet->labels.size(); i += 10) {
            if (fleet->manager.jobIsEnabled(fleet->labels[i]) != Answer::No) {
                state.SkipWithError("a service is still loaded");
            }
        }
        fleet.reset();
        state.ResumeTiming();
    }
}
BENCHMARK(BM_StopAllGrowth)
    ->ArgName("services")
    ->Arg(10)
    ->Arg(100)
    ->Arg(1000)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1)
    ->Repetitions(3)
    ->ReportAggregatesOnly()
    ->UseRealTime();

}  // namespace
}  // namespace tessary

int main(int argc, char** argv) {
    if (std::getenv("TESSARY_PRIVATE_SYSTEMD") == nullptr) {
        std::fprintf(stderr,
                     "tessary_systemd_bench: needs a private systemd; run it as\n"
                     "  tests/systemd/with-systemd.sh %s\n",
                     argv[0]);
        return 77;
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    // The wrapper stops the manager with everything in it; this is only tidy.
    if (tessary::backendJobRunning) {
        (void)tessary::backend().manager.removeJob(tessary::kLabel, tessary::backend().auth, true);
    }
    if (tessary::ctlUnitRunning) {
        tessary::systemctl({"stop", tessary::kCtlUnit});
        tessary::systemctl({"disable", "--runtime", tessary::kCtlUnit});
    }
    return 0;
}
