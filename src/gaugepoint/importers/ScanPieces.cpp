#include "gaugepoint/importers/ScanPieces.hpp"

namespace gaugepoint::scanning {

bool PieceQueue::push(Piece piece) {
    std::unique_lock lock{mutex_};
    roomLeft_.wait(lock, [&] {
        return abandoned_ || pieces_.empty() || (pieces_.size() < kMostPieces && bytes_ + piece.bytes <= kMostBytes);
    });
    if (abandoned_) return false;
    bytes_ += piece.bytes;
    pieces_.push_back(std::move(piece));
    ready_.notify_one();
    return true;
}

std::optional<Piece> PieceQueue::pop() {
    std::unique_lock lock{mutex_};
    ready_.wait(lock, [&] { return !pieces_.empty() || finished_; });
    if (pieces_.empty()) return std::nullopt;
    Piece piece = std::move(pieces_.front());
    pieces_.pop_front();
    bytes_ -= piece.bytes;
    roomLeft_.notify_one();
    return piece;
}

void PieceQueue::finish() {
    std::lock_guard lock{mutex_};
    finished_ = true;
    ready_.notify_all();
}

void PieceQueue::abandon() {
    std::lock_guard lock{mutex_};
    abandoned_ = true;
    roomLeft_.notify_all();
}

}  // namespace gaugepoint::scanning
