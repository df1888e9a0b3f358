// How fast `gaugepoint mcp` answers, as an agent sees it: the built command in its own process,
// a conversation piped through its standard input and output, over the stores of the sample
// logs (tests/data/logs). Each tool benchmark times one request line to its reply line and
// reports the median in milliseconds (the target: 50 ms); WholeConversation times a process
// from start to exit (initialize, the four tools, end of input).

#include <benchmark/benchmark.h>

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

const std::string kLogs = std::string(GAUGEPOINT_TEST_DATA_DIR) + "/logs";

// A scratch App Group and user directories for the whole run, so no companion file is read.
const fs::path& scratch() {
    static const fs::path directory = [] {
        std::string pattern = (fs::temp_directory_path() / "gaugepoint-bench-mcp-XXXXXX").string();
        if (!::mkdtemp(pattern.data())) throw std::runtime_error("cannot make a scratch directory");
        ::setenv("XDG_DATA_HOME", (pattern + "/data").c_str(), 1);
        ::setenv("XDG_CONFIG_HOME", (pattern + "/config").c_str(), 1);
        std::atexit([] { fs::remove_all(scratch()); });
        return fs::path(pattern);
    }();
    return directory;
}

// `gaugepoint mcp` in a child process, spoken to one line at a time.
class McpProcess {
public:
    McpProcess() {
        int in[2], out[2];
        if (::pipe(in) != 0 || ::pipe(out) != 0) throw std::runtime_error("pipe");
        const std::string group = (scratch() / "group").string();
        pid_ = ::fork();
        if (pid_ == 0) {
            ::dup2(in[0], STDIN_FILENO);
            ::dup2(out[1], STDOUT_FILENO);
            ::close(in[1]);
            ::close(out[0]);
            ::execl(GAUGEPOINT_BINARY, GAUGEPOINT_BINARY, "mcp", "--app-group-dir", group.c_str(), "--claude-dir",
                    (kLogs + "/claude").c_str(), "--codex-dir", (kLogs + "/codex").c_str(), "--gemini-dir",
                    (kLogs + "/gemini").c_str(), static_cast<char*>(nullptr));
            ::_exit(127);
        }
        ::close(in[0]);
        ::close(out[1]);
        to_ = in[1];
        from_ = out[0];
    }
    ~McpProcess() { finish(); }
    McpProcess(const McpProcess&) = delete;
    McpProcess& operator=(const McpProcess&) = delete;

    // Sends one message and returns its reply line.
    std::string ask(const std::string& message) {
        const std::string line = message + "\n";
        if (::write(to_, line.data(), line.size()) != ssize_t(line.size())) throw std::runtime_error("write");
        for (;;) {
            const auto newline = pending_.find('\n');
            if (newline != std::string::npos) {
                std::string reply = pending_.substr(0, newline);
                pending_.erase(0, newline + 1);
                return reply;
            }
            char buffer[65536];
            const ssize_t got = ::read(from_, buffer, sizeof buffer);
            if (got <= 0) throw std::runtime_error("the server ended without a reply");
            pending_.append(buffer, std::size_t(got));
        }
    }

    // Ends the input and waits for the process to exit.
    void finish() {
        if (pid_ <= 0) return;
        ::close(to_);
        ::close(from_);
        int status = 0;
        ::waitpid(pid_, &status, 0);
        pid_ = -1;
    }

private:
    pid_t pid_ = -1;
    int to_ = -1, from_ = -1;
    std::string pending_;
};

const std::string kInitialize =
    R"({"jsonrpc":"2.0","id":0,"method":"initialize","params":{"protocolVersion":"2025-06-18","capabilities":{},)"
    R"("clientInfo":{"name":"bench","version":"1"}}})";

std::string call(std::string_view tool, std::string_view arguments) {
    return R"({"jsonrpc":"2.0","id":1,"method":"tools/call","params":{"name":")" + std::string(tool) +
           R"(","arguments":)" + std::string(arguments) + "}}";
}

const std::vector<std::string>& conversation() {
    static const std::vector<std::string> calls{
        call("quota_status", "{}"), call("usage_report", R"({"report":"daily"})"),
        call("session_usage", R"({"cwd":"/home/dev/notes"})"), call("can_start", R"({"tokens":200000})")};
    return calls;
}

// One server for the tool benchmarks, initialized, its first scan done.
McpProcess& server() {
    static McpProcess process;
    static const bool ready = [] {
        process.ask(kInitialize);
        for (const auto& message : conversation()) process.ask(message);
        return true;
    }();
    (void)ready;
    return process;
}

void reportMedian(benchmark::State& state, std::vector<double>& seconds) {
    if (seconds.empty()) return;
    std::nth_element(seconds.begin(), seconds.begin() + seconds.size() / 2, seconds.end());
    state.counters["median_ms"] = seconds[seconds.size() / 2] * 1000;
}

void BM_ToolCall(benchmark::State& state, std::size_t which) {
    McpProcess& process = server();
    std::vector<double> seconds;
    for (auto _ : state) {
        const auto start = Clock::now();
        benchmark::DoNotOptimize(process.ask(conversation()[which]));
        const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
        state.SetIterationTime(elapsed);
        seconds.push_back(elapsed);
    }
    reportMedian(state, seconds);
}

void BM_WholeConversation(benchmark::State& state) {
    server();  // the stores scanned within the minute: no process below scans again
    std::vector<double> seconds;
    for (auto _ : state) {
        const auto start = Clock::now();
        McpProcess process;
        process.ask(kInitialize);
        for (const auto& message : conversation()) benchmark::DoNotOptimize(process.ask(message));
        process.finish();
        const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
        state.SetIterationTime(elapsed);
        seconds.push_back(elapsed);
    }
    reportMedian(state, seconds);
}

BENCHMARK_CAPTURE(BM_ToolCall, quota_status, 0)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_ToolCall, usage_report_daily, 1)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_ToolCall, session_usage, 2)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_ToolCall, can_start, 3)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_WholeConversation)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
