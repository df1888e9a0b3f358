// Whole-process timing of `gaugepoint lzfse compress` and `decompress`, as a user runs them:
// file in, file out (-o, which flushes the file to disk before renaming it into place), process
// start and exit included; the "/stdout" variants write to standard output sent to /dev/null
// instead, which leaves out the disk. Inputs are tests/data/lzfse/mixed-2m.bin
// repeated and cut to 1, 32 and 256 MiB, written to a scratch directory first. Counters:
//   MB_per_s    uncompressed 10^6 bytes per second of wall time
//   s_per_MiB   wall time per MiB of uncompressed data: flat across sizes when the work is linear
//   ref_s       the reference command's median whole-process time for the same input on this
//               machine (shared lzfse REFERENCE-TIMES.md), x_ref = ref_s / our time
//   peak_MiB    the largest resident size of the process
// Each run is a fresh process; the reported time is the median of the repetitions.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

struct Size {
    unsigned mebibytes;
    double refCompressSeconds;
    double refDecompressSeconds;
};

// The reference command's medians on this 2-core machine, 2026-11-22.
constexpr Size kSizes[] = {{1, 0.021, 0.005}, {32, 0.537, 0.171}, {256, 5.7, 1.29}};

const fs::path& scratch() {
    static const fs::path dir = [] {
        fs::path d = fs::temp_directory_path() / ("gaugepoint-bench-" + std::to_string(::getpid()));
        fs::create_directories(d);
        return d;
    }();
    return dir;
}

fs::path input(unsigned mebibytes) {
    const fs::path path = scratch() / ("mixed-" + std::to_string(mebibytes) + "m.bin");
    if (fs::exists(path)) return path;
    std::ifstream in(std::string(GAUGEPOINT_TEST_DATA_DIR) + "/lzfse/mixed-2m.bin", std::ios::binary);
    const std::string unit{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    if (unit.empty()) throw std::runtime_error("cannot read mixed-2m.bin");
    std::ofstream out(path, std::ios::binary);
    for (std::size_t left = std::size_t{mebibytes} << 20; left != 0;) {
        const std::size_t n = std::min(left, unit.size());
        out.write(unit.data(), static_cast<std::streamsize>(n));
        left -= n;
    }
    return path;
}

struct Run {
    double seconds;
    double peakMiB;
};

// Runs gaugepoint with `args` (standard output to /dev/null); throws unless it exits 0.
Run runCommand(const std::vector<std::string>& args) {
    std::vector<char*> argv{const_cast<char*>(GAUGEPOINT_BINARY)};
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    const auto start = std::chrono::steady_clock::now();
    pid_t pid = 0;
    const int spawned = ::posix_spawn(&pid, GAUGEPOINT_BINARY, &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0) throw std::runtime_error("cannot start " GAUGEPOINT_BINARY);
    int status = 0;
    rusage usage{};
    ::wait4(pid, &status, 0, &usage);
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) throw std::runtime_error("gaugepoint failed");
    return {seconds, static_cast<double>(usage.ru_maxrss) / 1024.0};
}

void commandBench(benchmark::State& state, const Size& size, bool compress, bool toStdout) {
    const fs::path raw = input(size.mebibytes);
    const fs::path packed = scratch() / (raw.stem().string() + ".lzfse");
    const fs::path out = scratch() / "out";
    if (!fs::exists(packed)) runCommand({"lzfse", "compress", "-i", raw.string(), "-o", packed.string()});
    std::vector<std::string> args = compress ? std::vector<std::string>{"lzfse", "compress", "-i", raw.string()}
                                             : std::vector<std::string>{"lzfse", "decompress", "-i", packed.string()};
    if (!toStdout) args.insert(args.end(), {"-o", out.string()});
    std::vector<double> times;
    double peak = 0;
    for (auto _ : state) {
        const Run run = runCommand(args);
        state.SetIterationTime(run.seconds);
        times.push_back(run.seconds);
        peak = std::max(peak, run.peakMiB);
    }
    std::sort(times.begin(), times.end());
    const double median = times[times.size() / 2];
    const double ref = compress ? size.refCompressSeconds : size.refDecompressSeconds;
    state.counters["MB_per_s"] = static_cast<double>(std::uint64_t{size.mebibytes} << 20) / 1e6 / median;
    state.counters["s_per_MiB"] = median / size.mebibytes;
    state.counters["median_s"] = median;
    state.counters["ref_s"] = ref;
    state.counters["x_ref"] = ref / median;
    state.counters["peak_MiB"] = peak;
    fs::remove(out);
}

[[maybe_unused]] const bool kRegistered = [] {
    for (const Size& size : kSizes) {
        const int repetitions = size.mebibytes >= 256 ? 3 : 7;
        for (const bool toStdout : {false, true}) {
            for (const bool compress : {true, false}) {
                const std::string name = std::string(compress ? "command/compress/" : "command/decompress/") +
                                         std::to_string(size.mebibytes) + "MiB" + (toStdout ? "/stdout" : "");
                benchmark::RegisterBenchmark(name.c_str(), commandBench, size, compress, toStdout)
                    ->Iterations(repetitions)
                    ->UseManualTime()
                    ->Unit(benchmark::kMillisecond);
            }
        }
    }
    return true;
}();

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::error_code ignored;
    fs::remove_all(scratch(), ignored);
    return 0;
}
