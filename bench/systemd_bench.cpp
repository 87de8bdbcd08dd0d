// Submit, is-loaded and remove of a RunAtLoad job through the systemd backend,
// next to the nearest systemctl commands (link + start, is-active, stop) on
// the same manager in the same run. Each measured operation is one
// repetition, so the "median" rows are medians of single operations.
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

#include "platform/linux/systemd/systemd_service_manager.h"

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
        if (!backend().manager.jobIsEnabled(kLabel)) {
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
