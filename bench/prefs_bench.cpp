// One read-modify-write of a preferences file holding 100 enabled labels,
// against a bare read and a read-and-parse of the same file, measured in the
// same run; and the same switch and a read once the file also holds 1,000
// definitions of services created at run time. The write includes both
// fsyncs, so the figure depends on the disk under TMPDIR.
#include <benchmark/benchmark.h>

#include <filesystem>

#include "doubles/recording_system_log.h"
#include "platform/linux/fs/posix_file_operations.h"
#include "prefs/preferences.h"
#include "support/temp_dir.h"

namespace tessary {
namespace {

struct PrefsFixture {
    explicit PrefsFixture(int definitions = 0) : paths(root.path()), prefs(paths, files, log) {
        std::filesystem::create_directories(paths.setupDirectory());
        plist::Array labels;
        for (int i = 0; i < 100; ++i) {
            labels.emplace_back("com.orvane.service." + std::to_string(i));
        }
        plist::Array dynamic;
        for (int i = 0; i < definitions; ++i) {
            dynamic.emplace_back(plist::Dictionary{
                {"Label", plist::Value("com.orvane.created." + std::to_string(i))},
                {"ProgramArguments", plist::Value(plist::stringArray({"/bin/sleep", "1000"}))},
                {"RunAtLoad", plist::Value::boolean(true)}});
        }
        (void)prefs.writePreferences({{"enabledServices", plist::Value(labels)},
                                      {"dynamicServices", plist::Value(dynamic)},
                                      {"version", plist::Value("5.11.1")}});
    }
    testing::TempDir root;
    Paths paths;
    linux_backend::PosixFileOperations files;
    testing::RecordingSystemLog log;
    TYSupervisorPreferences prefs;
};

// Each figure with no created definition and beside a thousand of them.
void besideDefinitions(benchmark::internal::Benchmark* b) {
    b->ArgName("definitions")
        ->Arg(0)
        ->Arg(1000)
        ->Unit(benchmark::kMicrosecond)
        ->Repetitions(5)
        ->ReportAggregatesOnly();
}

void BM_ReadModifyWrite(benchmark::State& state) {
    PrefsFixture f(static_cast<int>(state.range(0)));
    bool on = false;
    for (auto _ : state) {
        on = !on;
        f.prefs.setServiceEnabled("com.orvane.extra", on);
    }
}
BENCHMARK(BM_ReadModifyWrite)->Apply(besideDefinitions);

void BM_BareRead(benchmark::State& state) {
    PrefsFixture f;
    for (auto _ : state) {
        benchmark::DoNotOptimize(f.files.readFile(f.paths.preferencesFile()));
    }
}
BENCHMARK(BM_BareRead)->Unit(benchmark::kMicrosecond)->Repetitions(5)->ReportAggregatesOnly();

void BM_ReadAndParse(benchmark::State& state) {
    PrefsFixture f(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        benchmark::DoNotOptimize(f.prefs.serviceIsEnabled("com.orvane.service.99"));
    }
}
BENCHMARK(BM_ReadAndParse)->Apply(besideDefinitions);

}  // namespace
}  // namespace tessary
