#include "BenchResults.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>

namespace lumorabench {

void RecordText(const std::string &strKey, const std::string &strValue)
{
    const char *pPath = std::getenv("LUMORA_BENCH_RESULTS");
    if (!pPath || !*pPath)
        return;
    std::ofstream out(pPath, std::ios::app);
    out << strKey << '\t' << strValue << '\n';
}

void Record(const std::string &strKey, double dValue)
{
    char buf[64];
    std::snprintf(buf, sizeof buf, "%.6g", dValue);
    RecordText(strKey, buf);
}

std::map<std::string, std::string> ReadResults(const std::string &strPath)
{
    std::map<std::string, std::string> results;
    std::ifstream in(strPath);
    std::string line;
    while (std::getline(in, line)) {
        size_t tab = line.find('\t');
        if (tab != std::string::npos)
            results[line.substr(0, tab)] = line.substr(tab + 1);
    }
    return results;
}

void RecordingReporter::ReportRuns(const std::vector<Run> &runs)
{
    ConsoleReporter::ReportRuns(runs);
    for (const Run &run : runs) {
        if (run.error_occurred)
            continue;
        const bool bMedian = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
        const bool bSingle = run.run_type == Run::RT_Iteration && run.repetitions <= 1;
        if (!bMedian && !bSingle)
            continue;
        // "BM_Dispatch/event:5/log:0", without iteration and repetition counts.
        std::string name = run.run_name.function_name;
        if (!run.run_name.args.empty())
            name += "/" + run.run_name.args;
        const double dScale = 1e9 / benchmark::GetTimeUnitMultiplier(run.time_unit);
        // CPU time of the benchmark's thread: what the work costs, whatever
        // else the machine's cores are busy with; real time beside it.
        Record(name, run.GetAdjustedCPUTime() * dScale);
        Record(name + ".real", run.GetAdjustedRealTime() * dScale);
        for (const auto &counter : run.counters)
            Record(name + "." + counter.first, counter.second.value);
    }
}

int RunBenchmarks(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    RecordingReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}

} // namespace lumorabench
