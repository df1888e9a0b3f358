// Endless and oversized inputs: every command stops at its kind's limit with exit status 1,
// one line naming the input and the limit, and nothing written where its output would go.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <thread>

#include "CommandRunner.hpp"

namespace gaugepoint {
namespace {

using testing::ScratchDirectory;

// A FIFO that a thread fills with `{"a":` followed by spaces for as long as anyone reads it.
class EndlessFifo {
public:
    explicit EndlessFifo(std::filesystem::path path) : path_(std::move(path)) {
        std::signal(SIGPIPE, SIG_IGN);  // the reader going away must not end the test
        EXPECT_EQ(::mkfifo(path_.c_str(), 0600), 0);
        writer_ = std::thread([this] { feed(); });
    }
    ~EndlessFifo() {
        stop_ = true;
        writer_.join();
    }
    std::string path() const { return path_.string(); }

private:
    void feed() {
        int fd = -1;
        while (fd < 0 && !stop_) {  // no reader yet: a non-blocking open fails with ENXIO
            fd = ::open(path_.c_str(), O_WRONLY | O_NONBLOCK);
            if (fd < 0) std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        if (fd < 0) return;
        ::fcntl(fd, F_SETFL, 0);
        std::string chunk(1 << 16, ' ');
        chunk.replace(0, 5, "{\"a\":");
        while (!stop_ && ::write(fd, chunk.data(), chunk.size()) > 0) chunk.assign(chunk.size(), ' ');
        ::close(fd);
    }

    std::filesystem::path path_;
    std::atomic<bool> stop_ = false;
    std::thread writer_;
};

// A file of `bytes` that takes no space.
std::string sparseFile(const ScratchDirectory& dir, const char* name, std::uintmax_t bytes) {
    testing::writeFile(dir / name, "");
    std::filesystem::resize_file(dir / name, bytes);
    return (dir / name).string();
}

std::size_t entries(const std::filesystem::path& dir) {
    return std::filesystem::exists(dir) ? std::size_t(std::distance(std::filesystem::directory_iterator(dir), {})) : 0;
}

struct Case {
    std::vector<std::string> arguments;  // "IN" and "OUT" stand for the input and output paths
    bool endless;                        // a FIFO that never ends; else a sparse file one byte past the limit
    std::uintmax_t limit;
    std::string message;  // after "<input> is larger than "
};

TEST(InputLimits, EveryCommandStopsAtItsLimitWithOneLineAndNoOutput) {
    constexpr std::uintmax_t kDocument = 64u << 20, kBulk = 1u << 30;
    const Case cases[] = {
        {{"widget", "--snapshot", "IN"}, true, kDocument, "64 MiB, the most a widget snapshot file may be\n"},
        {{"history", "append", "--snapshot", "IN"}, true, kDocument, "64 MiB, the most a snapshot document may be\n"},
        {{"sources", "upsert", "--sibling", "IN"}, false, kDocument, "64 MiB, the most a widget snapshot file may be\n"},
        {{"sources", "upsert", "--snapshot", "IN"}, false, kDocument, "64 MiB, the most a snapshot document may be\n"},
        {{"tokens", "count", "IN"}, false, kBulk, "1 GiB, the most a text to tokenize may be; --max-input-bytes N allows more\n"},
        {{"tokens", "encode", "IN", "--max-input-bytes", "1000"}, true, 1000, "1000 bytes, the most a text to tokenize may be; --max-input-bytes N allows more\n"},
        {{"lzfse", "compress", "-i", "IN", "-o", "OUT"}, false, kBulk, "1 GiB, the most an input to compress may be; --max-input-bytes N allows more\n"},
        {{"lzfse", "compress", "-i", "IN", "-o", "OUT", "--max-input-bytes", "20971520"}, true, 20u << 20, "20 MiB, the most an input to compress may be; --max-input-bytes N allows more\n"},
        {{"lzfse", "decompress", "-i", "IN", "-o", "OUT"}, false, kBulk, "1 GiB, the most an LZFSE stream may be; --max-input-bytes N allows more\n"},
        {{"blob", "encode", "-i", "IN", "-o", "OUT", "--max-input-bytes", "1536"}, true, 1536, "1.5 KiB, the most a payload to encode may be; --max-input-bytes N allows more\n"},
        {{"blob", "decode", "--encoding", "lzfse", "-i", "IN", "-o", "OUT"}, false, kBulk, "1 GiB, the most a stored blob may be; --max-input-bytes N allows more\n"},
    };
    for (const Case& c : cases) {
        ScratchDirectory dir;
        std::filesystem::create_directory(dir / "out");
        std::optional<EndlessFifo> fifo;
        std::string input;
        if (c.endless) {
            fifo.emplace(dir / "in");
            input = fifo->path();
        } else {
            input = sparseFile(dir, "in", c.limit + 1);
        }
        std::vector<std::string> arguments{"--app-group-dir", (dir / "group").string()};
        for (const auto& a : c.arguments) arguments.push_back(a == "IN" ? input : a == "OUT" ? (dir / "out" / "result").string() : a);
        const auto result = testing::gaugepoint(arguments);
        const std::string words = c.arguments[0] + " " + c.arguments[1];
        EXPECT_EQ(result.exitCode, 1) << words;
        EXPECT_EQ(result.err, "gaugepoint: " + input + " is larger than " + c.message) << words;
        EXPECT_EQ(result.out, "") << words;
        EXPECT_EQ(entries(dir / "out"), 0u) << words;    // no output file, no temporary left behind
        EXPECT_EQ(entries(dir / "group"), 0u) << words;  // no store was opened either
    }
}

// Exactly the limit is still accepted: the bound is inclusive.
TEST(InputLimits, AnInputOfExactlyTheLimitIsRead) {
    ScratchDirectory dir;
    testing::writeFile(dir / "in", std::string(1000, 'a'));
    const auto result = testing::gaugepoint({"lzfse", "compress", "-i", (dir / "in").string(), "--max-input-bytes", "1000"});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(testing::gaugepoint({"lzfse", "decompress"}, result.out).out, std::string(1000, 'a'));
}

// An allocation failure is one line saying what was being done, never an exception's name.
// (Not under AddressSanitizer, which cannot run within a small address space.)
TEST(InputLimits, RunningOutOfMemoryIsOneLine) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "address space limits do not work under AddressSanitizer";
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
    GTEST_SKIP() << "address space limits do not work under AddressSanitizer";
#endif
#endif
    ScratchDirectory dir;
    const std::string input = sparseFile(dir, "in", 900u << 20);
    const pid_t pid = ::fork();
    if (pid == 0) {
        const rlimit limit{400u << 20, 400u << 20};
        ::setrlimit(RLIMIT_AS, &limit);
        if (!std::freopen((dir / "err").c_str(), "wb", stderr) || !std::freopen("/dev/null", "wb", stdout)) ::_exit(127);
        ::execl(GAUGEPOINT_BINARY, GAUGEPOINT_BINARY, "tokens", "encode", input.c_str(), nullptr);
        ::_exit(127);
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    EXPECT_EQ(WIFEXITED(status) ? WEXITSTATUS(status) : -1, 1);
    const std::string err = testing::readFile(dir / "err");
    EXPECT_EQ(err.rfind("gaugepoint: out of memory while ", 0), 0u) << err;
    EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
}

}  // namespace
}  // namespace gaugepoint
