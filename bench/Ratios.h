// Runs a benchmark program and prints, side by side, how the median processor times of its benchmarks compare.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace selvio::bench {

/// One comparison: the median processor time of `measured` over that of `baseline`.
struct Ratio {
    std::string title;
    std::string measured;
    std::string baseline;
    double atMost;
};

class RatioReporter : public benchmark::ConsoleReporter {
public:
    RatioReporter() : ConsoleReporter(OO_Tabular) {}
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median")
                medians_[run.run_name.function_name] = run.GetAdjustedCPUTime();
        }
        ConsoleReporter::ReportRuns(runs);
    }
    /// Processor time; 0 if the benchmark did not run.
    [[nodiscard]] double median(const std::string& name) const {
        const auto found = medians_.find(name);
        return found == medians_.end() ? 0.0 : found->second;
    }

private:
    std::map<std::string, double> medians_;
};

/// Adds a benchmark of what takes seconds, in threads of its own: five runs, the processor time of the whole process.
inline void addLong(const char* name, void (*function)(benchmark::State&)) {
    benchmark::RegisterBenchmark(name, function)
        ->Iterations(1)
        ->Repetitions(5)
        ->MeasureProcessCPUTime()
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond);
}

/// The body of `main`: the benchmarks take turns, so that what else the machine does meets them alike.
inline int runWithRatios(int argc, char** argv, const std::vector<Ratio>& ratios) {
    std::vector<std::string> arguments(argv, argv + argc);
    const std::vector<std::string> defaults{"--benchmark_repetitions=15", "--benchmark_enable_random_interleaving=true",
                                            "--benchmark_report_aggregates_only=true", "--benchmark_min_time=0.2"};
    arguments.insert(arguments.begin() + 1, defaults.begin(), defaults.end());
    std::vector<char*> pointers;
    for (std::string& argument : arguments) pointers.push_back(argument.data());
    int count = static_cast<int>(pointers.size());
    benchmark::Initialize(&count, pointers.data());
    if (benchmark::ReportUnrecognizedArguments(count, pointers.data())) return 2;
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    for (const Ratio& ratio : ratios) {
        const double measured = reporter.median(ratio.measured);
        const double baseline = reporter.median(ratio.baseline);
        if (measured > 0 && baseline > 0)
            std::printf("%-60s ratio %.3f (at most %.2f)\n", ratio.title.c_str(), measured / baseline, ratio.atMost);
    }
    return 0;
}

}  // namespace selvio::bench
