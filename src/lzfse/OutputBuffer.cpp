#include "lzfse/OutputBuffer.hpp"

#include <algorithm>
#include <string>

#include "lzfse/Error.hpp"

namespace gaugepoint::lzfse::detail {

OutputBuffer::OutputBuffer(std::size_t limit, std::vector<std::uint8_t> storage, std::size_t expected)
    : buf_(std::move(storage)), limit_(limit) {
    const std::size_t bytes = std::min({expected, kTrustedAhead, limit_}) + kSlack;
    if (buf_.size() < bytes) buf_.resize(bytes);
    capacity_ = std::min(buf_.size() - kSlack, limit_);
}

void OutputBuffer::failLimit(std::size_t n) const {
    throw Error(Error::Kind::OutputLimit,
                "LZFSE output exceeds the limit of " + std::to_string(limit_) + " bytes (" +
                    std::to_string(pos_) + " decoded, " + std::to_string(n) + " more needed)");
}

void OutputBuffer::grow(std::size_t n) {
    checkLimit(n);
    const std::size_t doubled = std::min(limit_, std::max<std::size_t>(capacity_ * 2, 4096));
    resize(std::max(pos_ + n, doubled));
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

}  // namespace gaugepoint::lzfse::detail
