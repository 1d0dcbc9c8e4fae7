// What the bench programs hand to the summary table: one "key<TAB>value" line
// per number, appended to the file named by LUMORA_BENCH_RESULTS.
#pragma once

#include <benchmark/benchmark.h>

#include <map>
#include <string>
#include <vector>

namespace lumorabench {

// Appends key and value to the results file; nothing when none is named.
void Record(const std::string &strKey, double dValue);
void RecordText(const std::string &strKey, const std::string &strValue);

// Every "key value" line of a results file; later lines win.
std::map<std::string, std::string> ReadResults(const std::string &strPath);

// Google Benchmark's console output, and for every benchmark its CPU time
// per iteration in nanoseconds (real time under NAME.real) and its counters
// (NAME.COUNTER) recorded under the benchmark's name, the median when it was
// repeated.
class RecordingReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run> &runs) override;
};

// Initialises Google Benchmark, runs every registered benchmark through a
// RecordingReporter. Returns the process's exit status.
int RunBenchmarks(int argc, char **argv);

} // namespace lumorabench
