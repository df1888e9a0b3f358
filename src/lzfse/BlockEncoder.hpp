#pragma once

// Back end of the LZFSE encoder: collects L, M, D triples and their literals into blocks
// and writes each full block as bvx2 (entropy-coded with FSE).

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "lzfse/Format.hpp"

namespace gaugepoint::lzfse::detail {

class BlockEncoder {
public:
    explicit BlockEncoder(std::vector<std::uint8_t>& out);

    // Literals handed to addMatch() from now on lie before `inputEnd`, up to which bytes may
    // be read (a short run is moved as one 16-byte word).
    void setInputEnd(const std::uint8_t* inputEnd) noexcept { inputEnd_ = inputEnd; }

    // Takes one match: L literals starting at `literals`, then M bytes from distance D.
    // Splits it into triples within the per-triple limits; when the block cannot take them
    // all, writes the block and starts a new one with the whole match.
    void addMatch(const std::uint8_t* literals, std::uint32_t L, std::uint32_t M, std::uint32_t D) {
        // Most matches are one triple that fits: no splitting, no taking back.
        if (L <= kMaxL && M <= kMaxM && (L | M) != 0 && fits(L)) [[likely]] {
            append(literals, L, M, D);
            return;
        }
        addMatchSlow(literals, L, M, D);
    }

    // Writes the block in progress, if it holds anything.
    void flush();

private:
    // Block fill limits: the decoder allows 10000 triples and 40000 literals; these margins
    // (the platform encoder's) leave it 8 triples and 16 literals to spare.
    static constexpr std::size_t kTripleMargin = 8;
    static constexpr std::size_t kLiteralMargin = 16;

    struct Triple {
        std::uint32_t L, M, D;
        std::uint8_t lSymbol, mSymbol, dSymbol;  // set when the block is written
    };

    bool fits(std::uint32_t L) const noexcept {
        return triples_ + 1 + kTripleMargin <= kMaxMatches && literalCount_ + L + kLiteralMargin <= kMaxLiterals;
    }
    void append(const std::uint8_t* literals, std::uint32_t L, std::uint32_t M, std::uint32_t D) noexcept;
    bool tryAddMatch(const std::uint8_t* literals, std::uint32_t L, std::uint32_t M, std::uint32_t D);
    void addMatchSlow(const std::uint8_t* literals, std::uint32_t L, std::uint32_t M, std::uint32_t D);

    std::vector<std::uint8_t>& out_;
    const std::uint8_t* inputEnd_ = nullptr;
    std::unique_ptr<Triple[]> triple_;      // kMaxMatches
    std::unique_ptr<std::uint8_t[]> literal_;  // kMaxLiterals plus copy slack
    std::size_t triples_ = 0;
    std::size_t literalCount_ = 0;
};

}  // namespace gaugepoint::lzfse::detail
