// Compression ratio and single-thread throughput of the LZFSE codec, in memory, on three
// payload shapes. Throughput is in uncompressed MB/s (10^6 bytes); "x_ref" is our speed
// divided by the platform library's figure on this machine class (-O2, 2 cores).

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include "lzfse/Lzfse.hpp"

namespace {

namespace lzfse = gaugepoint::lzfse;
using Clock = std::chrono::steady_clock;

struct Input {
    const char* name;
    double refRatio;
    double refCompressMBps;
    double refDecompressMBps;
};

// The platform library's figures for the same inputs.
constexpr Input kInputs[] = {
    {"prose-20k", 3.22, 96, 1000},
    {"json-200k", 9.65, 210, 4300},
    {"mixed-2m", 3.98, 113, 1300},
};

std::vector<std::uint8_t> load(const std::string& name) {
    const std::string path = std::string(GAUGEPOINT_TEST_DATA_DIR) + "/lzfse/" + name + ".bin";
    std::ifstream file(path, std::ios::binary);
    if (!file) throw std::runtime_error("cannot open " + path);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// Counters are plain values, not Google Benchmark rates: a rate counter would divide the
// figure by the run time a second time and print it as "MB/s=74.1/s". `seconds` is the wall
// time of the timed loop.
void setCounters(benchmark::State& state, const Input& in, std::size_t raw, std::size_t packed,
                 double refMBps, double seconds) {
    const double megabytes = static_cast<double>(state.iterations()) * static_cast<double>(raw) / 1e6;
    const double mbPerSecond = seconds > 0 ? megabytes / seconds : 0;
    state.counters["MB_per_s"] = mbPerSecond;
    state.counters["x_ref"] = mbPerSecond / refMBps;
    state.counters["ratio"] = static_cast<double>(raw) / static_cast<double>(packed);
    state.counters["ratio_ref"] = in.refRatio;
}

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

void compressBench(benchmark::State& state, const Input& in) {
    const std::vector<std::uint8_t> raw = load(in.name);
    std::size_t packed = 0;
    const auto start = Clock::now();
    for (auto _ : state) {
        std::vector<std::uint8_t> out = lzfse::compress(raw);
        packed = out.size();
        benchmark::DoNotOptimize(out.data());
    }
    setCounters(state, in, raw.size(), packed, in.refCompressMBps, secondsSince(start));
}

void decompressBench(benchmark::State& state, const Input& in) {
    const std::vector<std::uint8_t> raw = load(in.name);
    const std::vector<std::uint8_t> packed = lzfse::compress(raw);
    if (lzfse::decompress(packed) != raw) {
        state.SkipWithError("round trip mismatch");
        return;
    }
    const auto start = Clock::now();
    for (auto _ : state) {
        std::vector<std::uint8_t> out = lzfse::decompress(packed);
        benchmark::DoNotOptimize(out.data());
    }
    setCounters(state, in, raw.size(), packed.size(), in.refDecompressMBps, secondsSince(start));
}

// Decoding into a reused buffer, as the platform library's figures were taken (its decoder
// writes into a caller-provided buffer, so no page is faulted in during the timing).
void decompressIntoBench(benchmark::State& state, const Input& in) {
    const std::vector<std::uint8_t> raw = load(in.name);
    const std::vector<std::uint8_t> packed = lzfse::compress(raw);
    std::vector<std::uint8_t> out;
    const auto start = Clock::now();
    for (auto _ : state) {
        lzfse::decompressInto(packed, out);
        benchmark::DoNotOptimize(out.data());
    }
    const double seconds = secondsSince(start);
    if (out != raw) state.SkipWithError("round trip mismatch");
    setCounters(state, in, raw.size(), packed.size(), in.refDecompressMBps, seconds);
}

[[maybe_unused]] const bool kRegistered = [] {
    for (const Input& in : kInputs) {
        benchmark::RegisterBenchmark((std::string("compress/") + in.name).c_str(), compressBench, in)
            ->Unit(benchmark::kMicrosecond);
        benchmark::RegisterBenchmark((std::string("decompress/") + in.name).c_str(), decompressBench, in)
            ->Unit(benchmark::kMicrosecond);
        benchmark::RegisterBenchmark((std::string("decompress_into/") + in.name).c_str(), decompressIntoBench, in)
            ->Unit(benchmark::kMicrosecond);
    }
    return true;
}();

}  // namespace

BENCHMARK_MAIN();
