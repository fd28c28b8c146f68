// Logging micro-benchmarks, each beside its peer:
//   - a ZOR_LOG line whose severity is off (logger set up, threshold Warning)
//     and the same line with no logger set up, vs a disabled-level spdlog line
//     (spdlog::logger on a null_sink_mt, level warn, logger->trace(...));
//   - constructing and destroying an inactive ScopeTimeSpan (logging off) vs
//     an spdlog::stopwatch (which always reads the clock).
#include <benchmark/benchmark.h>

#include <spdlog/logger.h>
#include <spdlog/sinks/null_sink.h>
#include <spdlog/stopwatch.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "Common/ZorInternalComUtility.h"

ZOR_LOG_SOURCE("bench/LoggingBench")

namespace {

class CountingSink final : public ZOR::IBsLogger {
public:
    void write(const Record& /*record*/) override { lines.fetch_add(1, std::memory_order_relaxed); }
    std::atomic<uint64_t> lines{0};
};

// Logger set up with a counting sink; severity 1 (Trace) is below the Warning
// threshold, so the line is neither formatted nor written.
void BM_ZorLog_SeverityOff(benchmark::State& state) {
    auto sink = std::make_shared<CountingSink>();
    ZOR::ZorLoggerWrapper* wrapper = ZOR::setupLogging(sink, ZOR::IBsLogger::Warning);
    wrapper->setThreshold(ZOR::IBsLogger::Warning);  // whatever MIRAVEL_LOG says
    int x = 42;
    for (auto _ : state) {
        benchmark::DoNotOptimize(x);
        ZOR_LOG(1, "ZOR::Bench::line", "value %d", x);
    }
    if (sink->lines.load() != 0) state.SkipWithError("a line was written");
    ZOR::shutdownLogging();
}
BENCHMARK(BM_ZorLog_SeverityOff);

// No logger set up: loggerWrapper(0) is null.
void BM_ZorLog_NoLogger(benchmark::State& state) {
    ZOR::shutdownLogging();
    int x = 42;
    for (auto _ : state) {
        benchmark::DoNotOptimize(x);
        ZOR_LOG(1, "ZOR::Bench::line", "value %d", x);
    }
    if (ZOR::loggerWrapper(0) != nullptr) state.SkipWithError("logging was set up");
}
BENCHMARK(BM_ZorLog_NoLogger);

// Peer: a disabled-level spdlog line.
void BM_Spdlog_LevelOff(benchmark::State& state) {
    auto logger = std::make_shared<spdlog::logger>("bench", std::make_shared<spdlog::sinks::null_sink_mt>());
    logger->set_level(spdlog::level::warn);
    spdlog::logger* target = logger.get();
    benchmark::DoNotOptimize(target);
    int x = 42;
    for (auto _ : state) {
        benchmark::DoNotOptimize(x);
        target->trace("value {}", x);
    }
}
BENCHMARK(BM_Spdlog_LevelOff);

// ---------------------------------------------------------------------------
// Scoped timers

// An inactive ScopeTimeSpan: no logger, so it decides at construction not to
// time. The name is short enough for the string's inline buffer.
void BM_ScopeTimeSpan_Inactive_ShortName(benchmark::State& state) {
    ZOR::shutdownLogging();
    for (auto _ : state) {
        ZOR::ScopeTimeSpan span("bench.scope", true, 0, ZOR::IBsLogger::Timing);
        benchmark::DoNotOptimize(&span);
    }
}
BENCHMARK(BM_ScopeTimeSpan_Inactive_ShortName);

// The same with a typical qualified function name (longer than the inline
// buffer, so the name is allocated and freed every time).
void BM_ScopeTimeSpan_Inactive_LongName(benchmark::State& state) {
    ZOR::shutdownLogging();
    for (auto _ : state) {
        ZOR::ScopeTimeSpan span("ZOR::BenchThumbnailWrapper::queryThumbnail", true, 0, ZOR::IBsLogger::Timing);
        benchmark::DoNotOptimize(&span);
    }
}
BENCHMARK(BM_ScopeTimeSpan_Inactive_LongName);

// Peer: spdlog's stopwatch, constructed and destroyed (it reads the clock at
// construction whatever the level).
void BM_SpdlogStopwatch_ConstructDestroy(benchmark::State& state) {
    for (auto _ : state) {
        spdlog::stopwatch watch;
        benchmark::DoNotOptimize(&watch);
    }
}
BENCHMARK(BM_SpdlogStopwatch_ConstructDestroy);

}  // namespace
