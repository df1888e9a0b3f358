#pragma once

// The decoder's output. Matches reach back into earlier blocks, so what was decoded stays
// addressable: the whole output when decoding into memory, or, when streaming to a Sink, the
// last kHistory bytes (more than any match distance) while older bytes go to the sink.
// It grows in steps as bytes are actually produced, never past the caller's limit.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "lzfse/Lzfse.hpp"

namespace gaugepoint::lzfse::detail {

class OutputBuffer {
public:
    // Bytes past the logical end that are always allocated, so copies may move whole words
    // and overshoot the bytes they mean to write by up to this much.
    static constexpr std::size_t kSlack = 64;
    // Decoded bytes kept when streaming (bytes): the farthest an LZFSE match reaches is
    // 262139, an LZVN match 65535.
    static constexpr std::size_t kHistory = std::size_t{256} << 10;

    // Takes over `storage`: its contents are dropped and its bytes reused as allocated space
    // (overwritten, never read, so a reused buffer is not cleared again). `expected` is
    // how much output the stream announces; see expect().
    OutputBuffer(std::size_t limit, std::vector<std::uint8_t> storage, std::size_t expected);

    // Streams to `sink`, holding at most kHistory + kStreamChunk bytes (plus what one
    // ensure() asks beyond that). Call finish() once the stream has ended.
    // (The whole output goes to the sink in order; matches never reach what was handed over.)
    OutputBuffer(std::uint64_t limit, Sink& sink);

    std::size_t size() const noexcept { return pos_; }
    // Bytes that may be written (never more than the limit, even in a reused buffer).
    std::size_t capacity() const noexcept { return capacity_; }
    std::uint8_t* begin() noexcept { return buf_.data(); }
    std::uint8_t* end() noexcept { return buf_.data() + pos_; }

    // Guarantees room for `n` more bytes (plus slack); throws Kind::OutputLimit when the
    // output would pass the limit. Returns how far the bytes held moved towards the start
    // (streaming hands older bytes to the sink): callers holding positions subtract it.
    // Decoding into memory never allocates more than twice what has really been produced
    // plus `n`, whatever the blocks announce.
    std::size_t ensure(std::size_t n) { return n > capacity_ - pos_ ? grow(n) : 0; }

    // Throws Kind::OutputLimit unless `n` more bytes stay within the limit.
    void checkLimit(std::size_t n) const {
        if (n > limit_ - pos_) failLimit(n);
    }

    // Makes room ahead of time for a block that announces `n` bytes. Only a hint: the amount
    // taken on trust is bounded, the rest comes in steps as the block really produces it.
    // Returns like ensure().
    std::size_t expect(std::size_t n) {
        const std::size_t ahead = std::min({n, kTrustedAhead, limit_ - pos_});
        return ahead > capacity_ - pos_ ? grow(ahead) : 0;
    }

    void advance(std::size_t n) noexcept { pos_ += n; }

    std::vector<std::uint8_t> release() && {
        buf_.resize(pos_);
        return std::move(buf_);
    }

    // Streaming: hands what is still held to the sink.
    void finish();

private:
    // How much of an announced size is allocated before the stream proves it (bytes).
    static constexpr std::size_t kTrustedAhead = std::size_t{4} << 20;
    // Streaming: bytes produced between two hand-overs to the sink.
    static constexpr std::size_t kStreamChunk = std::size_t{8} << 20;

    std::size_t grow(std::size_t n);
    void resize(std::size_t capacity);
    [[noreturn]] void failLimit(std::size_t n) const;

    std::vector<std::uint8_t> buf_;  // capacity_ + kSlack bytes or more
    std::size_t pos_ = 0;
    // What may still be produced counted from buf_[0]: the caller's limit less what went to
    // the sink.
    std::size_t limit_;
    std::size_t capacity_ = 0;
    Sink* sink_ = nullptr;
    std::uint64_t flushed_ = 0;  // bytes handed to the sink
    std::uint64_t totalLimit_ = 0;
};

}  // namespace gaugepoint::lzfse::detail
