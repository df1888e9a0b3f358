// Arbitrary bytes into the decoder: it must return or throw lzfse::Error, never touch memory
// it does not own, never hang, and never produce more than the limit. The streaming decoder,
// fed in small irregular reads, must give the same bytes or the same error.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "lzfse/Lzfse.hpp"

namespace {

namespace lzfse = gaugepoint::lzfse;

constexpr std::size_t kLimit = std::size_t{4} << 20;  // modest, so runs stay fast

struct Source : lzfse::Source {
    const std::uint8_t* data;
    std::size_t size, at = 0;
    std::size_t read(std::uint8_t* buffer, std::size_t n) override {
        const std::size_t give = std::min({n, size - at, 1 + (at * 7 + 3) % 97});
        std::copy_n(data + at, give, buffer);
        at += give;
        return give;
    }
};

struct Sink : lzfse::Sink {
    std::vector<std::uint8_t> bytes;
    void write(const std::uint8_t* p, std::size_t n) override { bytes.insert(bytes.end(), p, p + n); }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::vector<std::uint8_t> whole;
    std::string wholeError, streamError;
    try {
        whole = lzfse::decompress({data, size}, kLimit);
        if (whole.size() > kLimit) std::abort();
    } catch (const lzfse::Error& e) {
        wholeError = e.what();
    }
    Source source;
    source.data = data;
    source.size = size;
    Sink sink;
    try {
        lzfse::decompress(source, sink, kLimit);
    } catch (const lzfse::Error& e) {
        streamError = e.what();
    }
    if (wholeError != streamError || (wholeError.empty() && sink.bytes != whole)) std::abort();
    return 0;
}
