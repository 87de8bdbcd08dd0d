// One synchronisation pass over 100 services with nothing to change, against
// the service-manager double (its count of is-loaded queries is reported as a
// counter), and the stop of all of 20 services whose removals take 100 ms and
// 1 s.
#include <benchmark/benchmark.h>

#include "daemon/supervisor.h"
#include "support/test_platform.h"

namespace tessary {
namespace {

struct Fleet {
    explicit Fleet(int count, bool enabled) {
        for (int i = 0; i < count; ++i) {
            const std::string label = "com.orvane.bench." + std::to_string(i);
            t.addDefinition(label + ".plist", testing::definition(label));
            if (enabled) {
                supervisor.preferences().setServiceEnabled(label, true);
            }
        }
        supervisor.loadServices();
        supervisor.syncServices();
    }
    testing::TestPlatform t;
    TYSupervisor supervisor{t.platform};
};

void BM_SyncNothingToChange(benchmark::State& state) {
    Fleet fleet(100, state.range(0) != 0);
    fleet.t.serviceManager.resetCounters();
    for (auto _ : state) {
        fleet.supervisor.syncServices();
    }
    state.counters["queries_per_pass"] =
        benchmark::Counter(static_cast<double>(fleet.t.serviceManager.asked().loadedQueries) /
                           static_cast<double>(state.iterations()));
    state.counters["changes"] =
        fleet.t.serviceManager.asked().submitCalls + fleet.t.serviceManager.asked().removeCalls;
}
BENCHMARK(BM_SyncNothingToChange)->ArgName("all_on")->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);

void BM_StopAllTwentyServices(benchmark::State& state) {
    for (auto _ : state) {
        state.PauseTiming();
        auto fleet = std::make_unique<Fleet>(20, true);
        for (const ServicePtr& service : *fleet->supervisor.services()) {
            fleet->t.serviceManager.setRemoveDelay(service->label(),
                                                   std::chrono::milliseconds(state.range(0)));
        }
        state.ResumeTiming();
        fleet->supervisor.stopAllServices();
        state.PauseTiming();
        fleet.reset();
        state.ResumeTiming();
    }
}
BENCHMARK(BM_StopAllTwentyServices)
    ->ArgName("remove_ms")
    ->Arg(100)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(10)
    ->UseRealTime();
BENCHMARK(BM_StopAllTwentyServices)
    ->ArgName("remove_ms")
    ->Arg(1000)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3)
    ->UseRealTime();

}  // namespace
}  // namespace tessary
