#include "lzfse/LzvnEncoder.hpp"

#include <algorithm>
#include <array>
#include <bit>
#include <memory>

#include "lzfse/ByteOrder.hpp"

namespace gaugepoint::lzfse::detail {

namespace {

constexpr unsigned kHashBits = 14;
constexpr std::size_t kMaxDistance = 65535;
constexpr std::size_t kSmallDistanceLimit = 1536;   // distances below fit the 2-byte opcode
constexpr std::size_t kMediumDistanceLimit = 16384;
constexpr std::size_t kLiteralBacklog = 400;         // forces output of a pending match
constexpr std::size_t kMaxLiteralRun = 271;

struct Slot {
    std::int32_t pos;
    std::uint32_t value;  // the 4 input bytes at pos
};
using Line = std::array<Slot, 4>;

struct Match {
    std::size_t start = 0, end = 0, distance = 0;
    long gain = 0;  // bytes saved, as the instruction choice will spend them
    bool valid() const { return end != 0; }
};

unsigned hash(std::uint32_t x) {
    return (((x & 0xFFFFFFu) * 4161u) >> 12) & ((1u << kHashBits) - 1);
}

unsigned equalLowBytes(std::uint32_t a, std::uint32_t b) {
    const std::uint32_t diff = a ^ b;
    return diff == 0 ? 4 : static_cast<unsigned>(std::countr_zero(diff)) / 8;
}

class Encoder {
public:
    explicit Encoder(std::span<const std::uint8_t> input)
        : in_(input.data()), n_(input.size()),
          table_(std::make_unique_for_overwrite<Line[]>(std::size_t{1} << kHashBits)) {
        const Slot first{0, load32(in_)};
        initialLine_ = {first, first, first, first};
    }

    std::vector<std::uint8_t> run();

private:
    Match measure(std::size_t p, std::size_t ref, unsigned equal) const;
    void consider(Match& best, const Match& m) const;
    void step(std::size_t p, const Match& incoming);
    void emit(const Match& m);
    std::size_t emitLongLiterals(std::size_t count);
    void emitLiterals(std::size_t count);
    void putLiterals(std::size_t count);
    void emitMatchOnly(std::size_t M);
    void put(std::uint8_t b) { out_.push_back(b); }
    void put16(std::uint16_t v) {
        put(static_cast<std::uint8_t>(v));
        put(static_cast<std::uint8_t>(v >> 8));
    }

    const std::uint8_t* in_;
    std::size_t n_;
    // Every line starts as initialLine_; lines never written are read as that instead of
    // filling 512 KiB per call for inputs of at most 4 KiB.
    std::unique_ptr<Line[]> table_;
    std::array<std::uint64_t, (std::size_t{1} << kHashBits) / 64> written_{};
    Line initialLine_;
    std::vector<std::uint8_t> out_;
    std::size_t lit_ = 0;
    std::size_t previousDistance_ = 0;
    Match pending_;
};

Match Encoder::measure(std::size_t p, std::size_t ref, unsigned equal) const {
    if (equal < 3 || ref >= p || p - ref > kMaxDistance) return {};
    const std::size_t D = p - ref;
    std::size_t end = p + equal;
    for (unsigned last = equal; last == 4 && end + 4 < n_; end += last) {
        last = equalLowBytes(load32(in_ + end), load32(in_ + end - D));
    }
    std::size_t start = p;
    while (ref > 0 && start > lit_ && in_[start - 1] == in_[ref - 1]) --start, --ref;
    const long M = static_cast<long>(end - start);
    return {start, end, D, D < kSmallDistanceLimit ? M - 2 : M - 3};
}

void Encoder::consider(Match& best, const Match& m) const {
    if (!m.valid()) return;
    if (m.gain > best.gain || (m.gain == best.gain && m.end > best.end + 1)) best = m;
}

void Encoder::step(std::size_t p, const Match& incoming) {
    if (!incoming.valid()) {
        if (p - lit_ >= kLiteralBacklog) {
            if (pending_.valid()) {
                emit(pending_);
                pending_ = {};
            } else {
                emitLiterals(kMaxLiteralRun);
            }
        }
        return;
    }
    if (!pending_.valid()) {
        pending_ = incoming;
    } else if (pending_.end <= incoming.start) {
        emit(pending_);
        pending_ = incoming;
    } else {
        if (incoming.gain > pending_.gain) pending_ = incoming;
        emit(pending_);
        pending_ = {};
    }
}

// Large-literal instructions (up to 271 bytes each) while more than 15 bytes remain;
// returns how many are left.
std::size_t Encoder::emitLongLiterals(std::size_t count) {
    while (count > 15) {
        const std::size_t x = std::min(count, kMaxLiteralRun);
        put(0xE0);
        put(static_cast<std::uint8_t>(x - 16));
        putLiterals(x);
        count -= x;
    }
    return count;
}

void Encoder::emitLiterals(std::size_t count) {
    count = emitLongLiterals(count);
    if (count > 0) {
        put(static_cast<std::uint8_t>(0xE0 + count));
        putLiterals(count);
    }
}

void Encoder::putLiterals(std::size_t count) {
    out_.insert(out_.end(), in_ + lit_, in_ + lit_ + count);
    lit_ += count;
}

void Encoder::emitMatchOnly(std::size_t M) {
    for (; M > 15; M -= std::min<std::size_t>(M, 271)) {
        put(0xF0);
        put(static_cast<std::uint8_t>(std::min<std::size_t>(M, 271) - 16));
    }
    if (M > 0) put(static_cast<std::uint8_t>(0xF0 + M));
}

// One match with its preceding literals. Up to 3 literals ride in the match instruction,
// which then holds at most 10 - 2L match bytes; the rest follow as match-only instructions
// unless the medium-distance form takes the whole length (up to 34).
void Encoder::emit(const Match& m) {
    std::size_t L = emitLongLiterals(m.start - lit_);
    if (L > 3) {
        emitLiterals(L);
        L = 0;
    }
    const std::size_t D = m.distance;
    const std::size_t M = m.end - m.start;
    const std::size_t x = std::min(M, 10 - 2 * L);
    std::size_t rest = M - x;
    const auto lx = static_cast<std::uint8_t>(L << 6 | (x - 3) << 3);
    if (D == previousDistance_ && L == 0) {
        put(static_cast<std::uint8_t>(0xF0 + x));
    } else if (D == previousDistance_) {
        put(lx | 6);
    } else if (D < kSmallDistanceLimit) {
        put(static_cast<std::uint8_t>(lx | D >> 8));
        put(static_cast<std::uint8_t>(D));
    } else if (D >= kMediumDistanceLimit || rest == 0 || x + rest > 34) {
        put(lx | 7);
        put16(static_cast<std::uint16_t>(D));
    } else {
        const std::size_t t = x + rest - 3;
        rest = 0;
        put(static_cast<std::uint8_t>(0xA0 + (t >> 2) + (L << 3)));
        put16(static_cast<std::uint16_t>(D << 2 | (t & 3)));
    }
    putLiterals(L);
    emitMatchOnly(rest);
    previousDistance_ = D;
    lit_ = m.end;
}

std::vector<std::uint8_t> Encoder::run() {
    for (std::size_t p = 0; p + 8 < n_; ++p) {
        const std::uint32_t x = load32(in_ + p);
        const unsigned h = hash(x);
        const std::uint64_t bit = std::uint64_t{1} << (h % 64);
        const Line& line = (written_[h / 64] & bit) != 0 ? table_[h] : initialLine_;
        const Line updated = {Slot{static_cast<std::int32_t>(p), x}, line[0], line[1], line[2]};
        if (p >= lit_) {
            Match best;
            for (const Slot& s : line) consider(best, measure(p, static_cast<std::size_t>(s.pos), equalLowBytes(s.value, x)));
            if (previousDistance_ != 0 && previousDistance_ <= p) {
                const std::size_t ref = p - previousDistance_;
                Match m = measure(p, ref, equalLowBytes(load32(in_ + ref), x));
                if (m.valid()) m.gain = static_cast<long>(m.end - m.start) - 1;
                consider(best, m);
            }
            step(p, best);
        }
        table_[h] = updated;
        written_[h / 64] |= bit;
    }
    // A match still pending at the end is dropped: its bytes go out as literals.
    emitLiterals(n_ - lit_);
    static constexpr std::uint8_t kEnd[8] = {0x06, 0, 0, 0, 0, 0, 0, 0};
    out_.insert(out_.end(), kEnd, kEnd + 8);
    return std::move(out_);
}

}  // namespace

std::vector<std::uint8_t> encodeLzvnPayload(std::span<const std::uint8_t> input) {
    return Encoder(input).run();
}

}  // namespace gaugepoint::lzfse::detail
