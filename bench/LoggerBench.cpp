// The calling thread's cost of one DCLogInfo, silenced and logging (standard error sent to
// /dev/null for the run, so the terminal is not what is measured).

#include "CoreKestly/DCLog/DCLogger.h"

#include "support/StandardErrorToNull.h"

#include <benchmark/benchmark.h>

#include <cstdlib>

namespace {

void BM_DCLogInfo(benchmark::State& state, const char* verbose) {
    setenv("VERBOSE_LOGGING", verbose, 1);
    StandardErrorToNull quiet;
    int64_t i = 0;
    for (auto _ : state) DCLogInfo("Downloader %lu received %d bytes for %@", 3u, ++i, "/Samples/kick.wav");
    DCLogger::sharedLogger().flush();
    unsetenv("VERBOSE_LOGGING");
}

}  // namespace

BENCHMARK_CAPTURE(BM_DCLogInfo, silenced, "no");
BENCHMARK_CAPTURE(BM_DCLogInfo, logging, "yes");
BENCHMARK_MAIN();
