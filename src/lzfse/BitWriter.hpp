#pragma once

// Appends fields to an LZFSE payload bit stream, least significant bit first at increasing
// bit numbers; BitReader takes them back in reverse order.

#include <cstddef>
#include <cstdint>
#include <vector>

#include "lzfse/ByteOrder.hpp"

namespace gaugepoint::lzfse::detail {

class BitWriter {
public:
    // Appends to `out`; `maxBytes` must bound the payload this writer will produce.
    BitWriter(std::vector<std::uint8_t>& out, std::size_t maxBytes)
        : out_(out), start_(out.size()), pos_(out.size()) {
        out_.resize(start_ + maxBytes + 8);
    }

    // Appends the low `n` bits of `value` (n <= 32; higher bits of value must be zero).
    void write(std::uint32_t value, unsigned n) noexcept {
        accum_ |= std::uint64_t{value} << bits_;
        bits_ += n;
        dataBits_ += n;
        if (bits_ >= 32) {
            storeLe<std::uint32_t>(out_.data() + pos_, static_cast<std::uint32_t>(accum_));
            pos_ += 4;
            accum_ >>= 32;
            bits_ -= 32;
        }
    }

    // Pads the last byte with zero bits and trims `out`. Returns the adjustment T - 8B, in
    // -7..0, that the header records.
    int finish() {
        for (; bits_ > 0; bits_ = bits_ > 8 ? bits_ - 8 : 0) {
            out_[pos_++] = static_cast<std::uint8_t>(accum_);
            accum_ >>= 8;
        }
        out_.resize(pos_);
        return static_cast<int>(static_cast<std::int64_t>(dataBits_) -
                                static_cast<std::int64_t>(8 * bytes()));
    }

    std::size_t bytes() const noexcept { return pos_ - start_; }

private:
    std::vector<std::uint8_t>& out_;
    std::size_t start_;
    std::size_t pos_;
    std::uint64_t accum_ = 0;
    unsigned bits_ = 0;
    std::size_t dataBits_ = 0;
};

}  // namespace gaugepoint::lzfse::detail
