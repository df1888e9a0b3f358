#pragma once

// The decoder's output: the whole stream decoded so far (matches may reach into earlier
// blocks), grown in steps as bytes are actually produced, never past the caller's limit.

#include <cstddef>
#include <cstdint>
#include <vector>

namespace gaugepoint::lzfse::detail {

class OutputBuffer {
public:
    // Bytes past the logical end that are always allocated, so copies may move whole words
    // and overshoot the bytes they mean to write by up to this much.
    static constexpr std::size_t kSlack = 64;

    // Takes over `storage` (its contents are dropped, its capacity reused).
    OutputBuffer(std::size_t limit, std::vector<std::uint8_t> storage = {})
        : buf_(std::move(storage)), limit_(limit) {
        buf_.resize(kSlack);
    }

    std::size_t size() const noexcept { return pos_; }
    std::size_t limit() const noexcept { return limit_; }
    std::size_t capacity() const noexcept { return buf_.size() - kSlack; }
    std::uint8_t* begin() noexcept { return buf_.data(); }
    std::uint8_t* end() noexcept { return buf_.data() + pos_; }

    // Guarantees room for `n` more bytes (plus slack); throws Kind::OutputLimit when the
    // output would pass the limit.
    void ensure(std::size_t n) {
        if (n > buf_.size() - kSlack - pos_) grow(n);
    }

    // Throws Kind::OutputLimit unless `n` more bytes stay within the limit.
    void checkLimit(std::size_t n) const {
        if (n > limit_ - pos_) failLimit(n);
    }

    // Grows ahead of time for a block that announces `n` bytes. Only a hint: the amount
    // taken on trust is bounded, the rest comes in steps as the block really produces it.
    void expect(std::size_t n);

    void advance(std::size_t n) noexcept { pos_ += n; }

    std::vector<std::uint8_t> release() && {
        buf_.resize(pos_);
        return std::move(buf_);
    }

private:
    void grow(std::size_t n);
    [[noreturn]] void failLimit(std::size_t n) const;

    std::vector<std::uint8_t> buf_;
    std::size_t pos_ = 0;
    std::size_t limit_;
};

}  // namespace gaugepoint::lzfse::detail
