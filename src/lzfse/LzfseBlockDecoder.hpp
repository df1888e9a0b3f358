#pragma once

// Decodes one bvx1/bvx2 block: literals first, then the L, M, D triples that interleave
// them with matches reaching anywhere into the output decoded so far.

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "lzfse/BlockHeader.hpp"
#include "lzfse/Fse.hpp"
#include "lzfse/OutputBuffer.hpp"

namespace gaugepoint::lzfse::detail {

class LzfseBlockDecoder {
public:
    // Decodes the block whose header `h` was parsed at stream offset `offset` and appends its
    // bytes to `out`; `block` points at the block's magic, with all of the block behind it.
    // Returns the offset just past the block. Throws lzfse::Error.
    std::size_t decode(const std::uint8_t* block, std::size_t offset, const char* kind, const LzfseHeader& h,
                       OutputBuffer& out);

private:
    void buildTables(const LzfseHeader& h, const char* kind, std::size_t offset);
    void decodeLiterals(const std::uint8_t* payload, const LzfseHeader& h, const char* kind,
                        std::size_t offset);
    void executeTriples(const std::uint8_t* payload, const LzfseHeader& h, const char* kind,
                        std::size_t offset, OutputBuffer& out);

    // The literal buffer keeps slack so literal copies may move 16 bytes at a time.
    static constexpr std::size_t kLiteralSlack = 64;

    LiteralTable literalTable_;
    LmdTables lmd_;
    std::size_t maxTripleBytes_ = 1;  // the most one triple of the current block can produce
    std::array<std::uint8_t, kMaxLiterals + kLiteralSlack> literals_;
};

}  // namespace gaugepoint::lzfse::detail
