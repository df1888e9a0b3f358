#include "lzfse/BlockInput.hpp"

#include <algorithm>
#include <cstring>

#include "lzfse/Fail.hpp"

namespace gaugepoint::lzfse::detail {

// Drops what was released, then reads until [offset, offset + n) is held or the stream ends;
// one read asks for a whole piece more, so small blocks do not cost a call each.
bool BlockInput::fill(std::size_t offset, std::size_t n) {
    if (source_ == nullptr || eof_) return false;
    const std::size_t keep = std::min({released_, offset, end_});
    const std::size_t held = end_ - keep;
    const std::size_t wanted = std::max(offset + n - keep, held + kPieceBytes);
    if (keep != start_ && held != 0) std::memmove(buffer_.data(), data_ + (keep - start_), held);
    start_ = keep;
    if (buffer_.size() < wanted) buffer_.resize(wanted);
    data_ = buffer_.data();
    while (offset > end_ || end_ - offset < n) {
        const std::size_t got = source_->read(buffer_.data() + (end_ - start_), wanted - (end_ - start_));
        if (got == 0) {
            eof_ = true;
            return false;
        }
        end_ += got;
    }
    return true;
}

const std::uint8_t* BlockInput::fetch(const char* what, std::size_t offset, std::size_t n) {
    if (!fill(offset, n)) failTruncated(what, offset, n, end_ > offset ? end_ - offset : 0);
    return data_ + (offset - start_);
}

bool BlockInput::has(std::size_t offset) { return offset < end_ || fill(offset, 1); }

}  // namespace gaugepoint::lzfse::detail
