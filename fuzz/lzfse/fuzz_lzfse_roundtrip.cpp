// Arbitrary input through the encoder and back: the result must equal the input, and the
// streaming encoder must write the same stream. The first byte picks a repetition count so
// short fuzz inputs also reach the LZFSE size range.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "lzfse/Lzfse.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::vector<std::uint8_t> input;
    if (size > 0) {
        // Up to 64 back-to-back copies, at most about 256 KiB in all.
        const std::size_t copies = std::min<std::size_t>(1 + (data[0] & 0x3F), 1 + (std::size_t{256} << 10) / size);
        for (std::size_t i = 0; i < copies; ++i) input.insert(input.end(), data + 1, data + size);
        // Vary the copies a little so the match finder sees near-repeats, not only repeats.
        for (std::size_t i = size; i < input.size(); i += size + (data[0] >> 6)) input[i] ^= 0x5A;
    }
    const auto stream = gaugepoint::lzfse::compress(input);
    if (gaugepoint::lzfse::decompress(stream, input.size()) != input) std::abort();
    // The streaming encoder writes the same bytes.
    struct Source : gaugepoint::lzfse::Source {
        const std::vector<std::uint8_t>* in;
        std::size_t at = 0;
        std::size_t read(std::uint8_t* buffer, std::size_t n) override {
            const std::size_t give = std::min({n, in->size() - at, std::size_t{4093}});
            std::copy_n(in->data() + at, give, buffer);
            at += give;
            return give;
        }
    } source;
    source.in = &input;
    struct Sink : gaugepoint::lzfse::Sink {
        std::vector<std::uint8_t> bytes;
        void write(const std::uint8_t* p, std::size_t n) override { bytes.insert(bytes.end(), p, p + n); }
    } sink;
    gaugepoint::lzfse::compress(source, sink);
    if (sink.bytes != stream) std::abort();
    return 0;
}
