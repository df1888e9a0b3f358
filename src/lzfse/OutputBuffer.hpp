#pragma once

// The decoder's output: the whole stream decoded so far (matches may reach into earlier
// blocks), grown in steps as bytes are actually produced, never past the caller's limit.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace gaugepoint::lzfse::detail {

class OutputBuffer {
public:
    // Bytes past the logical end that are always allocated, so copies may move whole words
    // and overshoot the bytes they mean to write by up to this much.
    static constexpr std::size_t kSlack = 64;

    // Takes over `storage`: its contents are dropped and its bytes reused as allocated space
    // (overwritten, never read, so a reused buffer is not cleared again). `expected` is
    // how much output the stream announces; see expect().
    OutputBuffer(std::size_t limit, std::vector<std::uint8_t> storage, std::size_t expected);

    std::size_t size() const noexcept { return pos_; }
    std::size_t limit() const noexcept { return limit_; }
    // Bytes that may be written (never more than the limit, even in a reused buffer).
    std::size_t capacity() const noexcept { return capacity_; }
    std::uint8_t* begin() noexcept { return buf_.data(); }
    std::uint8_t* end() noexcept { return buf_.data() + pos_; }

    // Guarantees room for `n` more bytes (plus slack); throws Kind::OutputLimit when the
    // output would pass the limit.
    void ensure(std::size_t n) {
        if (n > capacity_ - pos_) grow(n);
    }

    // Throws Kind::OutputLimit unless `n` more bytes stay within the limit.
    void checkLimit(std::size_t n) const {
        if (n > limit_ - pos_) failLimit(n);
    }

    // Grows ahead of time for a block that announces `n` bytes. Only a hint: the amount
    // taken on trust is bounded, the rest comes in steps as the block really produces it.
    void expect(std::size_t n) {
        const std::size_t ahead = std::min({n, kTrustedAhead, limit_ - pos_});
        if (ahead > capacity_ - pos_) resize(pos_ + ahead);
    }

    void advance(std::size_t n) noexcept { pos_ += n; }

    std::vector<std::uint8_t> release() && {
        buf_.resize(pos_);
        return std::move(buf_);
    }

private:
    // How much of an announced size is allocated before the stream proves it (bytes).
    static constexpr std::size_t kTrustedAhead = std::size_t{4} << 20;

    void grow(std::size_t n);
    void resize(std::size_t capacity);
    [[noreturn]] void failLimit(std::size_t n) const;

    std::vector<std::uint8_t> buf_;  // capacity_ + kSlack bytes or more
    std::size_t pos_ = 0;
    std::size_t limit_;
    std::size_t capacity_ = 0;
};

}  // namespace gaugepoint::lzfse::detail
