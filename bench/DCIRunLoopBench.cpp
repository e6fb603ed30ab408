// What a post to the event bus pays on the signalling side: the first signal since the
// callback ran (an exchange and a wake-up write) against one that finds the source already
// signalled (the exchange alone), from one thread and from several at once.

#include "CoreKestly/Platform/RunLoop/DCIRunLoop.h"

#include <benchmark/benchmark.h>

#include <chrono>

namespace {
DCIRunLoopSource& sharedSource() {
    // Never run, so it stays signalled; threads of one benchmark share it.
    static const auto source = DCIRunLoop::main().addSignalSource([] {});
    return *source;
}

void BM_SignalAlreadySignalled(benchmark::State& state) {
    DCIRunLoopSource& source = sharedSource();
    source.signal();
    for (auto _ : state) source.signal();
}
BENCHMARK(BM_SignalAlreadySignalled)->ThreadRange(1, 4);

void BM_SignalFirst(benchmark::State& state) {
    DCIRunLoop& loop = DCIRunLoop::main();
    const auto source = loop.addSignalSource([] {});
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        source->signal();
        state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
        loop.runOnce();  // lowers the flag and drains the wake-up, outside the measured time
    }
}
BENCHMARK(BM_SignalFirst)->UseManualTime();

void BM_PerformAsyncAndRun(benchmark::State& state) {
    DCIRunLoop& loop = DCIRunLoop::main();
    for (auto _ : state) {
        loop.performAsync([] {});
        loop.runOnce();
    }
}
BENCHMARK(BM_PerformAsyncAndRun);
}  // namespace

BENCHMARK_MAIN();
