#include "lzfse/OutputBuffer.hpp"

#include <algorithm>
#include <cstring>
#include <limits>
#include <string>

#include "lzfse/Error.hpp"

namespace gaugepoint::lzfse::detail {

OutputBuffer::OutputBuffer(std::size_t limit, std::vector<std::uint8_t> storage, std::size_t expected)
    : buf_(std::move(storage)), limit_(limit), totalLimit_(limit) {
    const std::size_t bytes = std::min({expected, kTrustedAhead, limit_}) + kSlack;
    if (buf_.size() < bytes) buf_.resize(bytes);
    capacity_ = std::min(buf_.size() - kSlack, limit_);
}

OutputBuffer::OutputBuffer(std::uint64_t limit, Sink& sink)
    : limit_(static_cast<std::size_t>(std::min<std::uint64_t>(limit, std::numeric_limits<std::size_t>::max()))),
      sink_(&sink), totalLimit_(limit) {
    // Starts small (a short stream faults in few pages) and doubles up to its full size.
    buf_.resize(std::min(kHistory, limit_) + kSlack);
    capacity_ = std::min(buf_.size() - kSlack, limit_);
}

void OutputBuffer::failLimit(std::size_t n) const {
    throw Error(Error::Kind::OutputLimit,
                "LZFSE output exceeds the limit of " + std::to_string(totalLimit_) + " bytes (" +
                    std::to_string(flushed_ + pos_) + " decoded, " + std::to_string(n) + " more needed)");
}

// Decoding into memory doubles what is produced (not what is announced), which keeps both
// promises: each byte is moved a bounded number of times on average, and a stream that
// announces more than it holds makes us allocate at most twice its real output plus the
// bounded hint. Streaming first hands all but the last kHistory bytes to the sink.
std::size_t OutputBuffer::grow(std::size_t n) {
    checkLimit(n);
    std::size_t moved = 0;
    if (sink_ != nullptr) {
        const std::size_t full = kHistory + kStreamChunk;
        if (buf_.size() - kSlack < full && pos_ + n > buf_.size() - kSlack) {
            resize(std::min({std::max(pos_ + n, 2 * (buf_.size() - kSlack)), std::max(pos_ + n, full), limit_}));
            return 0;
        }
        if (pos_ > kHistory) {
            moved = pos_ - kHistory;
            sink_->write(buf_.data(), moved);
            std::memmove(buf_.data(), buf_.data() + moved, kHistory);
            pos_ = kHistory;
            flushed_ += moved;
            limit_ -= moved;
        }
        capacity_ = std::min(buf_.size() - kSlack, limit_);
        if (n > capacity_ - pos_) resize(pos_ + n);
        return moved;
    }
    const std::size_t doubled = std::min(limit_, std::max<std::size_t>(pos_ * 2, 4096));
    resize(std::max(pos_ + n, doubled));
    return 0;
}

// std::vector has no way to grow without value-initialising the new bytes, so each growth
// zero-fills them once; a reallocation moves only the bytes decoded so far.
void OutputBuffer::resize(std::size_t capacity) {
    const std::size_t bytes = capacity + kSlack;
    if (bytes > buf_.capacity()) {
        std::vector<std::uint8_t> bigger;
        bigger.reserve(bytes);
        bigger.assign(buf_.begin(), buf_.begin() + static_cast<std::ptrdiff_t>(pos_));
        bigger.resize(bytes);
        buf_ = std::move(bigger);
    } else if (bytes > buf_.size()) {
        buf_.resize(bytes);
    }
    capacity_ = std::min(buf_.size() - kSlack, limit_);
}

void OutputBuffer::finish() {
    if (sink_ != nullptr && pos_ != 0) sink_->write(buf_.data(), pos_);
    flushed_ += pos_;
    limit_ -= pos_;
    pos_ = 0;
}

}  // namespace gaugepoint::lzfse::detail
