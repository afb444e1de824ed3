// Times of the functions in operations.h, with Google Benchmark. Each is called "group/input/who".
#include "functions/operations.h"

#include <benchmark/benchmark.h>

#include <syslog.h>

static void measure(benchmark::State& state, const Operation& operation, const Input& input)
{
    size_t found = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(found = operation.run(input));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * input.size));
    state.counters["found"] = static_cast<double>(found);
}

static void add(const Operation& operation, const std::string& name)
{
    const std::string title = std::string(operation.group) + "/" + name + "/" + operation.who;
    benchmark::RegisterBenchmark(title.c_str(), [operation, name](benchmark::State& state) {
        static std::vector<std::pair<std::string, Input>> made;
        for (const auto& [known, input] : made) {
            if (known == name)
                return measure(state, operation, input);
        }
        made.emplace_back(name, make_input(name));
        measure(state, operation, made.back().second);
    });
}

int main(int argc, char* argv[])
{
    setlogmask(LOG_UPTO(LOG_WARNING)); // as the daemon does unless it is told otherwise
    for (const Operation& operation : all_operations()) {
        if (std::string(operation.group).rfind("ini", 0) == 0) {
            add(operation, "small");
            add(operation, "big");
        } else {
            add(operation, "message");
        }
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
