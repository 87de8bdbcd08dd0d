// What checking a request against the decoding budget costs, next to the
// decode that includes it, for the largest request a real client sends: the
// arguments of "create", a service definition using every job key the
// daemon reads.
#include <benchmark/benchmark.h>

#include "plist/codec.h"

namespace tessary {
namespace {

using plist::Array;
using plist::Dictionary;
using plist::Value;

Value richDefinition() {
    Array arguments;
    Dictionary environment;
    Array calendar;
    for (int i = 0; i < 12; ++i) {
        arguments.emplace_back("--option-" + std::to_string(i) + "=/var/lib/example/value");
        environment.emplace("EXAMPLE_VARIABLE_" + std::to_string(i), Value("/usr/lib/example"));
        calendar.emplace_back(Dictionary{{"Hour", Value::integer(i)},
                                         {"Minute", Value::integer(5 * i)},
                                         {"Weekday", Value::integer(i % 7)}});
    }
    Dictionary sockets;
    for (const char* name : {"Listeners", "Control", "Metrics"}) {
        sockets.emplace(name, Dictionary{{"SockServiceName", Value("8080")},
                                         {"SockType", Value("stream")},
                                         {"SockFamily", Value("IPv4")},
                                         {"SockNodeName", Value("127.0.0.1")}});
    }
    Dictionary definition{
        {"Label", Value("com.example.largest-request")},
        {"ProgramArguments", Value(std::move(arguments))},
        {"EnvironmentVariables", Value(std::move(environment))},
        {"StartCalendarInterval", Value(std::move(calendar))},
        {"Sockets", Value(std::move(sockets))},
        {"KeepAlive", Value(Dictionary{{"SuccessfulExit", Value::boolean(false)}})},
        {"RunAtLoad", Value::boolean(true)},
        {"WorkingDirectory", Value("/var/lib/example")},
        {"UserName", Value("daemon")},
        {"GroupName", Value("daemon")},
        {"StandardOutPath", Value("/var/log/example.log")},
        {"StandardErrorPath", Value("/var/log/example.err")},
        {"ThrottleInterval", Value::integer(10)},
        {"ExitTimeOut", Value::integer(30)},
        {"Nice", Value::integer(5)},
        {"Umask", Value::integer(18)},
    };
    return Value(Dictionary{{"serviceDictionary", Value(std::move(definition))}});
}

void BM_LargestRequest(benchmark::State& state) {
    const plist::Bytes bytes = plist::encode(richDefinition(), plist::Format::Binary).value();
    const std::string_view view(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    const bool checkOnly = state.range(0) == 0;
    for (auto _ : state) {
        if (checkOnly) {
            benchmark::DoNotOptimize(plist::overBudget(view, plist::kRequestBudget));
        } else {
            benchmark::DoNotOptimize(plist::decode(view, plist::kRequestBudget));
        }
    }
    state.counters["bytes"] = static_cast<double>(bytes.size());
}
// 0: the budget check alone; 1: the whole decode, the check included.
BENCHMARK(BM_LargestRequest)
    ->ArgName("decode")
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kMicrosecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly();

}  // namespace
}  // namespace tessary
