#pragma once

// Back end of the LZFSE encoder: collects L, M, D triples and their literals into blocks
// and writes each full block as bvx2 (entropy-coded with FSE).

#include <cstddef>
#include <cstdint>
#include <vector>

namespace gaugepoint::lzfse::detail {

class BlockEncoder {
public:
    explicit BlockEncoder(std::vector<std::uint8_t>& out) : out_(out) { reset(); }

    // Takes one match: L literals starting at `literals`, then M bytes from distance D.
    // Splits it into triples within the per-triple limits; when the block cannot take them
    // all, writes the block and starts a new one with the whole match.
    void addMatch(const std::uint8_t* literals, std::uint32_t L, std::uint32_t M, std::uint32_t D);

    // Writes the block in progress, if it holds anything.
    void flush();

private:
    struct Triple {
        std::uint32_t L, M, D;
    };

    bool tryAddMatch(const std::uint8_t* literals, std::uint32_t L, std::uint32_t M, std::uint32_t D);
    bool tryAddTriple(const std::uint8_t* literals, std::uint32_t L, std::uint32_t M, std::uint32_t D);
    void reset();

    std::vector<std::uint8_t>& out_;
    std::vector<Triple> triples_;
    std::vector<std::uint8_t> literals_;
};

}  // namespace gaugepoint::lzfse::detail
