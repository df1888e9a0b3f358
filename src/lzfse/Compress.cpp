// The encoder's entry point: picks the block kind by input size, as the platform encoder
// does, so small payloads stay small and our streams match its streams.

#include "lzfse/ByteOrder.hpp"
#include "lzfse/Format.hpp"
#include "lzfse/Lzfse.hpp"
#include "lzfse/LzvnEncoder.hpp"
#include "lzfse/MatchFinder.hpp"

namespace gaugepoint::lzfse {

namespace {

constexpr std::size_t kLzvnMinInput = 8;      // below: stored raw
constexpr std::size_t kLzfseMinInput = 4096;  // from here: entropy-coded blocks

void put32(std::vector<std::uint8_t>& out, std::uint32_t v) {
    const std::size_t at = out.size();
    out.resize(at + 4);
    detail::storeLe(out.data() + at, v);
}

void writeRaw(std::span<const std::uint8_t> input, std::vector<std::uint8_t>& out) {
    put32(out, detail::kMagicRaw);
    put32(out, static_cast<std::uint32_t>(input.size()));
    out.insert(out.end(), input.begin(), input.end());
}

// LZVN only when the instruction stream is strictly smaller than the input; else raw.
void writeLzvnOrRaw(std::span<const std::uint8_t> input, std::vector<std::uint8_t>& out) {
    const std::vector<std::uint8_t> payload = detail::encodeLzvnPayload(input);
    if (payload.size() >= input.size()) {
        writeRaw(input, out);
        return;
    }
    put32(out, detail::kMagicLzvn);
    put32(out, static_cast<std::uint32_t>(input.size()));
    put32(out, static_cast<std::uint32_t>(payload.size()));
    out.insert(out.end(), payload.begin(), payload.end());
}

}  // namespace

std::vector<std::uint8_t> compress(std::span<const std::uint8_t> input) {
    std::vector<std::uint8_t> out;
    out.reserve(input.size() / 2 + 64);
    if (input.size() < kLzvnMinInput) {
        writeRaw(input, out);
    } else if (input.size() < kLzfseMinInput) {
        writeLzvnOrRaw(input, out);
    } else {
        detail::encodeLzfseBlocks(input, out);
    }
    put32(out, detail::kMagicEnd);
    return out;
}

void compress(Source& input, Sink& output) {
    // The block kinds depend on whether the input reaches kLzfseMinInput: read that far first.
    std::vector<std::uint8_t> head(kLzfseMinInput);
    std::size_t held = 0;
    while (held < head.size()) {
        const std::size_t got = input.read(head.data() + held, head.size() - held);
        if (got == 0) break;
        held += got;
    }
    head.resize(held);
    if (held < kLzfseMinInput) {
        const std::vector<std::uint8_t> stream = compress(head);
        output.write(stream.data(), stream.size());
        return;
    }
    detail::encodeLzfseBlocks(std::move(head), input, output);
    std::vector<std::uint8_t> end;
    put32(end, detail::kMagicEnd);
    output.write(end.data(), end.size());
}

std::string compressString(std::string_view input) {
    const auto bytes =
        compress(std::span(reinterpret_cast<const std::uint8_t*>(input.data()), input.size()));
    return std::string(bytes.begin(), bytes.end());
}

}  // namespace gaugepoint::lzfse
