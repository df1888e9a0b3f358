#include "gaugepoint/importers/ScanPieces.hpp"

namespace gaugepoint::scanning {

bool PieceQueue::push(std::vector<Piece>& pieces) {
    std::int64_t bytes = 0;
    for (const auto& piece : pieces) bytes += piece.bytes;
    std::vector<std::unique_ptr<Collected>> written;
    {
        std::unique_lock lock{mutex_};
        ++readersWaiting_;
        roomLeft_.wait(lock, [&] {
            return abandoned_ || pieces_.empty() ||
                   (pieces_.size() + pieces.size() <= kMostPieces && bytes_ + bytes <= kMostBytes);
        });
        --readersWaiting_;
        if (abandoned_) return false;
        bytes_ += bytes;
        for (auto& piece : pieces) pieces_.push_back(std::move(piece));
        written.swap(written_);
        ready_.notify_one();
    }
    pieces.clear();
    return true;  // `written` is freed here, outside the lock
}

std::optional<Piece> PieceQueue::pop(std::unique_ptr<Collected> written) {
    std::unique_lock lock{mutex_};
    if (written) written_.push_back(std::move(written));
    ready_.wait(lock, [&] { return !pieces_.empty() || finished_; });
    if (pieces_.empty()) return std::nullopt;
    Piece piece = std::move(pieces_.front());
    pieces_.pop_front();
    bytes_ -= piece.bytes;
    // Readers waiting for room are woken once half of it is free, not at every piece taken: a
    // writer that paces the scan would otherwise hand its time to a wake-up per piece.
    if (readersWaiting_ > 0 && pieces_.size() <= kMostPieces / 2 && bytes_ <= kMostBytes / 2) roomLeft_.notify_all();
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
