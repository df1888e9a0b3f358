// GPTEncoder benchmarks, single thread, on two corpora of 4 MiB: "easy", generated here from a
// small word list with code, Chinese, Cyrillic and emoji (nearly every piece is a cache hit), and
// "hard", bench/data/tokenizer/corpus-4m.txt, whose long tail of rare words defeats the cache.
// Counters:
//   MB/s            encode throughput, MB of UTF-8 input per second of CPU time (cold and warm
//                   merge cache); CPU time, because wall time on a shared machine counts others' work
//   cold_start_ms   fresh process: load the vocabulary, construct, encode one short string, exit
//   rss_loaded_MiB  resident memory added by loading the tokenizer and encoding a short string
//   rss_corpus_MiB  resident memory added after encoding the whole corpus (merge cache full)
// The last two run in a child process (this program with a flag) so nothing else is resident.

#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "GPTEncoder/GPTEncoder.hpp"

namespace {

constexpr std::size_t kCorpusBytes = 4 << 20;
constexpr const char* kColdStartFlag = "--cold-start-child";
constexpr const char* kMemoryFlag = "--memory-child";

struct Random {  // splitmix64: the same corpus on every run and machine
    std::uint64_t state;
    std::uint64_t next() {
        std::uint64_t z = (state += 0x9E3779B97F4A7C15ull);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        return z ^ (z >> 31);
    }
    std::size_t below(std::size_t n) { return next() % n; }
    template <class T, std::size_t N>
    const T& pick(const std::array<T, N>& items) { return items[below(N)]; }
};

constexpr std::array<std::string_view, 64> kWords = {
    "the", "quota", "session", "model", "request", "limit", "window", "reset", "token", "usage", "assistant",
    "project", "because", "however", "developer", "review", "change", "branch", "build", "test", "failure",
    "weekly", "daily", "remaining", "estimate", "through", "between", "without", "against", "during",
    "before", "after", "should", "would", "could", "there", "their", "which", "about", "every", "other",
    "synchronisation", "configuration", "performance", "throughput", "latency", "dashboard", "widget",
    "notification", "threshold", "percentage", "subscription", "organisation", "it's", "don't", "we've",
    "isn't", "they're", "Monday", "Tuesday", "OpenAI", "Anthropic", "Claude", "GPT"};
constexpr std::array<std::string_view, 8> kCode = {
    "func refresh(_ snapshot: QuotaSnapshot) async throws -> [Window] {\n    let windows = snapshot.windows.filter { $0.isActive }\n    return windows.sorted(by: { $0.resetAt < $1.resetAt })\n}\n",
    "def parse_usage(record: dict) -> int:\n    if \"usage\" not in record:\n        return 0\n    return sum(v for k, v in record[\"usage\"].items() if k.endswith(\"_tokens\"))\n",
    "{\n  \"model\": \"claude-sonnet-4\",\n  \"input_tokens\": 18231,\n  \"output_tokens\": 2048,\n  \"cache_read\": 0.75\n}\n",
    "SELECT provider, SUM(tokens) AS total FROM usage WHERE day >= '2026-11-01' GROUP BY provider;\n",
    "for (std::size_t i = 0; i < items.size(); ++i) {\n\tif (items[i].remaining <= threshold) notify(items[i]);\n}\n",
    "<div class=\"gauge\"><span id=\"pct\">87%</span></div>\n",
    "    at Session.refresh (/Users/dev/gaugepoint/src/session.ts:142:17)\n",
    "$ git log --oneline -n 3 && make test -j2 2>&1 | tee build.log\n"};
constexpr std::array<std::string_view, 6> kChinese = {
    "本周的配额已经用完了，请在重置之后再试。", "这个模型的上下文窗口很大，但是速度比较慢。",
    "我们需要估算每次会话使用的令牌数量。", "请检查同步设置是否正确，然后重新启动应用。",
    "今天下午三点开会讨论新的定价方案。", "错误：无法读取配置文件，权限不足。"};
constexpr std::array<std::string_view, 4> kCyrillic = {
    "Лимит запросов будет сброшен в понедельник.", "Пожалуйста, проверьте настройки синхронизации.",
    "Модель отвечает быстро, но иногда ошибается.", "Отчёт о расходах готов."};
constexpr std::array<std::string_view, 8> kEmoji = {"🚀", "✅", "⚠️", "👍🏽", "🎉", "👨‍👩‍👧", "🇯🇵", "😅"};

void appendSentence(Random& random, std::string& out) {
    const std::size_t words = 6 + random.below(14);
    for (std::size_t i = 0; i < words; ++i) {
        std::string_view word = random.pick(kWords);
        if (i == 0 && random.below(2) == 0) {
            out += static_cast<char>(word[0] & ~0x20);  // capitalise ASCII words
            word.remove_prefix(1);
        } else if (i > 0) {
            out += random.below(12) == 0 ? ", " : " ";
        }
        out += word;
        if (random.below(25) == 0) out += " " + std::to_string(random.below(100000));
    }
    out += random.below(6) == 0 ? "? " : ". ";
}

std::string makeCorpus() {
    Random random{20261121};
    std::string corpus;
    corpus.reserve(kCorpusBytes + 4096);
    while (corpus.size() < kCorpusBytes) {
        const std::size_t kind = random.below(20);
        if (kind < 11) {
            for (std::size_t n = 2 + random.below(5); n > 0; --n) appendSentence(random, corpus);
            corpus += "\n\n";
        } else if (kind < 16) {
            corpus += random.pick(kCode);
        } else if (kind < 18) {
            corpus += random.pick(kChinese);
            corpus += "\n";
        } else if (kind < 19) {
            corpus += random.pick(kCyrillic);
            corpus += " ";
        } else {
            corpus += random.pick(kEmoji);
            corpus += " ";
        }
    }
    return corpus;
}

const std::string& corpus() {
    static const std::string text = makeCorpus();
    return text;
}

const std::string& hardCorpus() {
    static const std::string text = [] {
        std::ifstream in(GAUGEPOINT_BENCH_DATA_DIR "/tokenizer/corpus-4m.txt", std::ios::binary);
        std::string bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
        if (bytes.empty()) throw std::runtime_error("cannot read bench/data/tokenizer/corpus-4m.txt");
        return bytes;
    }();
    return text;
}

const std::string& corpusOf(const benchmark::State& state) { return state.range(0) == 0 ? corpus() : hardCorpus(); }

double residentMiB() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
        if (line.starts_with("VmRSS:")) return std::stod(line.substr(6)) / 1024.0;
    return 0;
}

// Runs this program with a flag and returns what the child printed on stdout.
std::string runChild(const char* flag) {
    int fds[2];
    if (pipe(fds) != 0) return {};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, fds[0]);
    char self[] = "/proc/self/exe";
    std::array<char*, 3> argv = {self, const_cast<char*>(flag), nullptr};
    pid_t pid = 0;
    const int spawned = posix_spawn(&pid, self, &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(fds[1]);
    std::string output;
    char buffer[256];
    for (ssize_t n; (n = read(fds[0], buffer, sizeof buffer)) > 0;) output.append(buffer, static_cast<std::size_t>(n));
    close(fds[0]);
    int status = 0;
    if (spawned == 0) waitpid(pid, &status, 0);
    return spawned == 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0 ? output : std::string{};
}

void BM_EncodeColdCache(benchmark::State& state) {
    const std::string& text = corpusOf(state);
    std::size_t ids = 0;
    std::unique_ptr<gaugepoint::GPTEncoder> encoder;
    for (auto _ : state) {
        state.PauseTiming();
        encoder = std::make_unique<gaugepoint::GPTEncoder>();  // the previous cache is freed untimed
        state.ResumeTiming();
        ids = encoder->encode(text).size();
        benchmark::DoNotOptimize(ids);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
    state.counters["MB/s"] = benchmark::Counter(static_cast<double>(text.size()) / 1e6, benchmark::Counter::kIsIterationInvariantRate);
    state.counters["ids"] = static_cast<double>(ids);
    state.SetLabel(state.range(0) == 0 ? "easy" : "hard");
}

void BM_EncodeWarmCache(benchmark::State& state) {
    const std::string& text = corpusOf(state);
    gaugepoint::GPTEncoder encoder;
    encoder.encode(text);
    for (auto _ : state) benchmark::DoNotOptimize(encoder.encode(text));
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
    state.counters["MB/s"] = benchmark::Counter(static_cast<double>(text.size()) / 1e6, benchmark::Counter::kIsIterationInvariantRate);
    state.SetLabel(state.range(0) == 0 ? "easy" : "hard");
}

void BM_ColdStart(benchmark::State& state) {
    std::vector<double> runs;
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        if (runChild(kColdStartFlag).empty()) state.SkipWithError("cold-start child failed");
        runs.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count());
    }
    std::sort(runs.begin(), runs.end());
    state.counters["cold_start_ms"] = runs.empty() ? 0 : runs[runs.size() / 2];
}

void BM_ResidentMemory(benchmark::State& state) {
    double loaded = 0, full = 0;
    for (auto _ : state)
        if (std::sscanf(runChild(kMemoryFlag).c_str(), "%lf %lf", &loaded, &full) != 2) state.SkipWithError("memory child failed");
    state.counters["rss_loaded_MiB"] = loaded;
    state.counters["rss_corpus_MiB"] = full;
}

// A run of 100,000 digits or letters is one pre-token: the merge loop must not go quadratic.
void BM_LongRun(benchmark::State& state) {
    std::string text(100000, ' ');
    const bool letters = state.range(0) == 1;
    for (std::size_t i = 0; i < text.size(); ++i)
        text[i] = static_cast<char>(letters ? 'a' + (i * 7919 + i / 7) % 26 : '0' + (i * 7919 + i / 7) % 10);
    for (auto _ : state) {
        gaugepoint::GPTEncoder encoder;
        benchmark::DoNotOptimize(encoder.encode(text));
    }
    state.SetLabel(letters ? "100,000 letters" : "100,000 digits");
}

BENCHMARK(BM_EncodeColdCache)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_EncodeWarmCache)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ColdStart)->Unit(benchmark::kMillisecond)->Iterations(21)->UseRealTime();
BENCHMARK(BM_ResidentMemory)->Iterations(1)->UseRealTime();
BENCHMARK(BM_LongRun)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && std::strcmp(argv[1], kColdStartFlag) == 0) {
        gaugepoint::GPTEncoder encoder;
        return encoder.encode("Hello, world! How many tokens is this?").empty() ? 1 : (std::puts("ok"), 0);
    }
    if (argc == 2 && std::strcmp(argv[1], kMemoryFlag) == 0) {
        const std::string text = makeCorpus();  // resident before the baseline is taken
        const double before = residentMiB();
        gaugepoint::GPTEncoder encoder;
        encoder.encode("Hello, world! How many tokens is this?");
        const double loaded = residentMiB() - before;
        encoder.encode(text);
        std::printf("%.3f %.3f\n", loaded, residentMiB() - before);
        return 0;
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
