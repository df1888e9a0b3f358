#include "lzfse/MatchFinder.hpp"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <memory>

#include "lzfse/BlockEncoder.hpp"
#include "lzfse/ByteOrder.hpp"
#include "lzfse/Format.hpp"

namespace gaugepoint::lzfse::detail {

namespace {

constexpr unsigned kHashBits = 14;
constexpr std::int64_t kNoPosition = -4 * static_cast<std::int64_t>(kMaxD);  // never in reach
constexpr std::uint32_t kMaxLiteralRun = 8 * kMaxL;  // backlog that forces output (2520)
constexpr std::uint32_t kGoodMatch = 40;             // long enough to take at once
constexpr std::uint32_t kMaxMatchLength = 100 * kMaxM;  // forward cap (235900)

struct Slot {
    std::int32_t pos;
    std::uint32_t value;  // the 4 input bytes at pos
};

// One hash line, newest slot first. Aligned so that a line never straddles two cache lines:
// the 512 KiB table misses L1 on almost every access, and a straddling line costs two misses.
struct alignas(32) Line {
    std::array<Slot, 4> slots;
};

struct Match {
    std::int64_t start = 0;
    std::int64_t ref = 0;
    std::int64_t length = 0;  // 0: no match
    std::int64_t end() const { return start + length; }
};

unsigned hash(std::uint32_t x) { return (x * 2654435761u) >> (32 - kHashBits); }

// Positions are offsets into the window of input held now, [in_, in_ + n_); when the caller
// drops bytes from the window's front it calls rebase(), which moves every position down.
class Encoder {
public:
    Encoder(std::vector<std::uint8_t>& out)
        : back_(out), table_(std::make_unique_for_overwrite<Line[]>(std::size_t{1} << kHashBits)) {
        const Slot never{static_cast<std::int32_t>(kNoPosition), 0};
        std::fill_n(table_.get(), std::size_t{1} << kHashBits, Line{{never, never, never, never}});
    }

    // The input held now; bytes up to `readableEnd` (>= data + size) may be read by copies.
    void setWindow(const std::uint8_t* data, std::int64_t size, const std::uint8_t* readableEnd) noexcept {
        in_ = data;
        n_ = size;
        back_.setInputEnd(readableEnd);
    }

    // Searches every position below `end` not covered by an emitted match.
    void scan(std::int64_t end);

    // The caller dropped the window's first `shift` bytes.
    void rebase(std::int64_t shift) noexcept;

    // The input has ended at the window's end: emits what is pending and the last block.
    void finish();

    // The first position whose bytes are still needed, counting the history matches may
    // reach back into (kMaxD, and the few literals before it a match may take back).
    std::int64_t firstNeeded() const noexcept { return std::min(p_, lit_) - kKeptHistory; }

    static constexpr std::int64_t kKeptHistory = kMaxD + (64 << 10);

private:
    // Makes `p` (whose 4 bytes are `x`) the newest slot of its line; returns the line as
    // it was.
    Line insert(std::int64_t p, std::uint32_t x) {
        Line& line = table_[hash(x)];
        const Line old = line;
        line.slots = {Slot{static_cast<std::int32_t>(p), x}, old.slots[0], old.slots[1], old.slots[2]};
        return old;
    }
    Match bestAt(std::int64_t p, std::uint32_t x, const Line& line) const;
    std::int64_t measure(std::int64_t p, std::int64_t ref) const;
    void step(std::int64_t p, Match incoming);
    void emit(const Match& m);
    void emitLiterals(std::int64_t count);

    const std::uint8_t* in_ = nullptr;
    std::int64_t n_ = 0;
    BlockEncoder back_;
    std::unique_ptr<Line[]> table_;
    std::int64_t p_ = 0;    // next position to scan
    std::int64_t lit_ = 0;  // first byte not yet covered by an emitted triple
    Match pending_;
};

// Length of the match at p against ref, which are known to agree on 4 bytes. May run up to
// 7 bytes past n - p - 8, never past the input.
std::int64_t Encoder::measure(std::int64_t p, std::int64_t ref) const {
    std::int64_t length = 4;
    const std::int64_t limit = n_ - p - 8;
    while (length < limit) {
        const std::uint64_t diff = load64(in_ + ref + length) ^ load64(in_ + p + length);
        if (diff != 0) return length + std::countr_zero(diff) / 8;
        length += 8;
    }
    return length;
}

Match Encoder::bestAt(std::int64_t p, std::uint32_t x, const Line& line) const {
    Match best;
    best.start = p;
    for (const Slot& s : line.slots) {
        if (s.value != x || s.pos + static_cast<std::int64_t>(kMaxD) < p) continue;
        // A candidate that differs at the best length so far cannot be strictly longer.
        // (best.length <= n - p - 1, so the byte is inside the input.)
        if (best.length != 0 && in_[s.pos + best.length] != in_[p + best.length]) continue;
        const std::int64_t length = measure(p, s.pos);
        if (length > best.length) best = {p, s.pos, length};
    }
    return best;
}

void Encoder::emit(const Match& m) {
    back_.addMatch(in_ + lit_, static_cast<std::uint32_t>(m.start - lit_), static_cast<std::uint32_t>(m.length),
                   static_cast<std::uint32_t>(m.start - m.ref));
    lit_ = m.end();
}

void Encoder::emitLiterals(std::int64_t count) {
    back_.addMatch(in_ + lit_, static_cast<std::uint32_t>(count), 0, 1);
    lit_ += count;
}

void Encoder::step(std::int64_t p, Match incoming) {
    if (incoming.length == 0) {
        if (p - lit_ > kMaxLiteralRun) {
            if (pending_.length != 0) {
                emit(pending_);
                pending_ = {};
            } else {
                emitLiterals(kMaxL);
            }
        }
        return;
    }
    incoming.length = std::min<std::int64_t>(incoming.length, kMaxMatchLength);
    while (incoming.start > lit_ && incoming.ref > 0 && in_[incoming.start - 1] == in_[incoming.ref - 1]) {
        --incoming.start;
        --incoming.ref;
        ++incoming.length;
    }
    if (incoming.length >= kGoodMatch) {
        emit(incoming);  // a pending match's bytes become literals of this one
        pending_ = {};
    } else if (pending_.length == 0) {
        pending_ = incoming;
    } else if (pending_.end() <= incoming.start) {
        emit(pending_);
        pending_ = incoming;
    } else {
        emit(incoming.length > pending_.length ? incoming : pending_);
        pending_ = {};
    }
}

void Encoder::scan(std::int64_t end) {
    std::int64_t p = p_;
    // Positions inside emitted matches are only entered into the table: a loop without
    // branches on the data, so many table misses can be in flight at once.
    for (const std::int64_t covered = std::min(lit_, end); p < covered; ++p) insert(p, load32(in_ + p));
    while (p < end) {
        const std::uint32_t x = load32(in_ + p);
        // The next position's line, requested before this one's branches: they mispredict
        // often, and a load issued after them would start only once they resolve.
        __builtin_prefetch(&table_[hash(load32(in_ + p + 1))]);
        step(p, bestAt(p, x, insert(p, x)));
        ++p;
        for (const std::int64_t covered = std::min(lit_, end); p < covered; ++p) insert(p, load32(in_ + p));
    }
    p_ = p;
}

void Encoder::rebase(std::int64_t shift) noexcept {
    for (std::size_t i = 0; i < (std::size_t{1} << kHashBits); ++i) {
        for (Slot& s : table_[i].slots)
            s.pos = static_cast<std::int32_t>(std::max<std::int64_t>(s.pos - shift, kNoPosition));
    }
    p_ -= shift;
    lit_ -= shift;
    pending_.start -= shift;
    pending_.ref -= shift;
}

void Encoder::finish() {
    if (pending_.length != 0) emit(pending_);
    pending_ = {};
    if (lit_ < n_) emitLiterals(n_ - lit_);
    back_.flush();
}

// The window of the in-memory encoder is the whole input. Positions are kept in 32 bits, so
// past 1 GiB the window's front moves up (no bytes are copied).
constexpr std::int64_t kRebaseAfter = std::int64_t{1} << 30;

// The streaming encoder holds kWindowBytes of input and searches a position only while
// kLookahead bytes follow it (or the input has ended). Its streams equal the in-memory ones:
// a match is measured at most up to the window's end, so two candidates that both reach it
// tie where the whole input might rank them; but two matches at distances d1, d2 that agree
// with the input for d1 + d2 bytes or more follow a common period and end at the same byte,
// so their true lengths tie too, and the first candidate wins either way. kLookahead is more
// than 2 * kMaxD (and than the longest match taken), so every such case is a tie.
constexpr std::int64_t kLookahead = std::int64_t{1} << 20;
constexpr std::size_t kWindowBytes = std::size_t{8} << 20;
static_assert(kLookahead > 2 * std::int64_t{kMaxD} + 16 && kLookahead > kMaxMatchLength + 16);

}  // namespace

void encodeLzfseBlocks(std::span<const std::uint8_t> input, std::vector<std::uint8_t>& out) {
    Encoder encoder(out);
    const std::uint8_t* data = input.data();
    std::int64_t n = static_cast<std::int64_t>(input.size());
    encoder.setWindow(data, n, data + n);
    for (;;) {
        const std::int64_t end = n - 8;
        encoder.scan(std::min(end, kRebaseAfter + kRebaseAfter / 2));
        if (end <= kRebaseAfter + kRebaseAfter / 2) break;
        const std::int64_t shift = encoder.firstNeeded();
        data += shift;
        n -= shift;
        encoder.rebase(shift);
        encoder.setWindow(data, n, input.data() + input.size());
    }
    encoder.finish();
}

void encodeLzfseBlocks(std::vector<std::uint8_t> head, Source& source, Sink& sink) {
    std::vector<std::uint8_t> out;
    Encoder encoder(out);
    std::vector<std::uint8_t>& window = head;
    std::size_t held = window.size();
    // Starts at 1 MiB and doubles up to kWindowBytes while the input keeps coming, so a short
    // input faults in few pages. + 16: copies may read a word past the end.
    window.resize(std::max(held, std::size_t{1} << 20) + 16);
    bool ended = false;
    const auto fill = [&] {
        while (!ended) {
            if (held == window.size() - 16) {
                if (held >= kWindowBytes) return;
                window.resize(std::min(2 * held, kWindowBytes) + 16);
            }
            const std::size_t got = source.read(window.data() + held, window.size() - 16 - held);
            ended = got == 0;
            held += got;
        }
    };
    const auto drain = [&] {
        if (!out.empty()) sink.write(out.data(), out.size());
        out.clear();
    };
    fill();
    for (;;) {
        const auto n = static_cast<std::int64_t>(held);
        encoder.setWindow(window.data(), n, window.data() + window.size());
        if (ended) {
            encoder.scan(n - 8);
            encoder.finish();
            drain();
            return;
        }
        encoder.scan(n - kLookahead);
        drain();
        const std::int64_t shift = std::max<std::int64_t>(encoder.firstNeeded(), 0);
        std::memmove(window.data(), window.data() + shift, held - static_cast<std::size_t>(shift));
        held -= static_cast<std::size_t>(shift);
        encoder.rebase(shift);
        fill();
    }
}

}  // namespace gaugepoint::lzfse::detail
