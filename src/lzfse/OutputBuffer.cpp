#include "lzfse/OutputBuffer.hpp"

#include <algorithm>
#include <string>

#include "lzfse/Error.hpp"

namespace gaugepoint::lzfse::detail {

namespace {

// How much of a block's announced size is allocated before the block proves it (bytes).
constexpr std::size_t kTrustedAhead = std::size_t{4} << 20;

}  // namespace

void OutputBuffer::failLimit(std::size_t n) const {
    throw Error(Error::Kind::OutputLimit,
                "LZFSE output exceeds the limit of " + std::to_string(limit_) + " bytes (" +
                    std::to_string(pos_) + " decoded, " + std::to_string(n) + " more needed)");
}

void OutputBuffer::grow(std::size_t n) {
    checkLimit(n);
    const std::size_t capacity = buf_.size() - kSlack;
    const std::size_t doubled = std::min(limit_, std::max<std::size_t>(capacity * 2, 4096));
    buf_.resize(std::max(pos_ + n, doubled) + kSlack);
}

void OutputBuffer::expect(std::size_t n) {
    const std::size_t ahead = std::min({n, kTrustedAhead, limit_ - pos_});
    if (ahead > buf_.size() - kSlack - pos_) buf_.resize(pos_ + ahead + kSlack);
}

}  // namespace gaugepoint::lzfse::detail
