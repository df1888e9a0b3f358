#include "lzfse/LzvnDecoder.hpp"

#include <algorithm>
#include <array>
#include <cstring>
#include <string>

#include "lzfse/BlockInput.hpp"
#include "lzfse/ByteOrder.hpp"
#include "lzfse/Copy.hpp"
#include "lzfse/Fail.hpp"
#include "lzfse/Format.hpp"

namespace gaugepoint::lzfse::detail {

namespace {

using Kind = lzfse::Error::Kind;

enum class Op : std::uint8_t {
    SmallDistance,     // LLMMMDDD, op + 1 byte
    MediumDistance,    // 101LLMMM, op + 2 bytes
    LargeDistance,     // LLMMM111, op + 2 bytes
    PreviousDistance,  // LLMMM110, op only
    SmallLiteral,      // 1110LLLL
    LargeLiteral,      // 0xE0, op + 1 byte
    SmallMatch,        // 1111MMMM
    LargeMatch,        // 0xF0, op + 1 byte
    End,               // 0x06 + 7 ignored bytes
    Nop,               // 0x0E, 0x16
    Undefined,
};

constexpr std::array<Op, 256> makeOpTable() {
    std::array<Op, 256> t{};
    for (unsigned op = 0; op < 256; ++op) {
        const unsigned hi = op >> 4, low3 = op & 7;
        Op c = low3 == 7 ? Op::LargeDistance : low3 == 6 ? Op::PreviousDistance : Op::SmallDistance;
        if (hi == 0xA || hi == 0xB) c = Op::MediumDistance;
        if (hi == 0x7 || hi == 0xD) c = Op::Undefined;
        if (hi == 0xE) c = op == 0xE0 ? Op::LargeLiteral : Op::SmallLiteral;
        if (hi == 0xF) c = op == 0xF0 ? Op::LargeMatch : Op::SmallMatch;
        t[op] = c;
    }
    // With no literal the "previous distance" slot is reused for end, no-op and undefined.
    t[0x06] = Op::End;
    t[0x0E] = Op::Nop;
    t[0x16] = Op::Nop;
    for (unsigned op = 0x1E; op <= 0x3E; op += 8) t[op] = Op::Undefined;
    return t;
}

constexpr std::array<Op, 256> kOps = makeOpTable();

std::string hexByte(unsigned b) {
    const char* digits = "0123456789abcdef";
    return std::string("0x") + digits[b >> 4] + digits[b & 15];
}

// The payload is read through a window of the input: all of it in memory, pieces of it when
// streaming. An instruction with its literals is at most 274 bytes, far less than a piece.
class LzvnBlock {
public:
    LzvnBlock(BlockInput& input, std::size_t payload, std::size_t payloadBytes, std::size_t rawBytes,
              std::size_t blockOffset, OutputBuffer& out)
        : input_(input), payloadStart_(payload), payloadEnd_(payload + payloadBytes), out_(out), pos_(out.size()),
          blockEnd_(out.size() + rawBytes), rawBytes_(rawBytes), room_(std::min(out.capacity(), blockEnd_)),
          blockOffset_(blockOffset) {
        load(payload, 0);
    }

    void run();

private:
    // Stream offset of the instruction at p_.
    std::size_t offsetOf(const std::uint8_t* p) const noexcept { return windowOffset_ + static_cast<std::size_t>(p - window_); }

    [[noreturn]] void error(Kind kind, const std::string& why) const {
        fail(kind, "LZFSE bvxn block" + at(blockOffset_) + ": " + why + " (instruction" + at(offsetOf(p_)) + ")");
    }

    // Makes the window start at stream offset `from` and hold at least `n` bytes where the
    // payload has them.
    void load(std::size_t from, std::size_t n) {
        input_.release(from);
        const std::size_t bytes = std::max(input_.piece(payloadEnd_ - from), std::min(n, payloadEnd_ - from));
        try {
            window_ = p_ = input_.require("bvxn block payload", from, bytes);
        } catch (const Error& e) {
            // Named as the whole payload, as when it is read in one piece.
            if (e.kind() != Kind::Truncated) throw;
            failTruncated("bvxn block payload", payloadStart_, payloadEnd_ - payloadStart_, input_.heldEnd() - payloadStart_);
        }
        windowOffset_ = from;
        end_ = p_ + bytes;
        readable_ = input_.readable(from);
    }

    // The instruction, its literals and the next opcode must all lie in the payload.
    void need(std::size_t n) {
        if (n + 1 <= static_cast<std::size_t>(end_ - p_)) return;
        if (offsetOf(end_) != payloadEnd_) load(offsetOf(p_), n + 1);
        if (n + 1 > static_cast<std::size_t>(end_ - p_))
            error(Kind::BadPayload, "instruction of " + std::to_string(n) + " bytes runs past the payload's end");
    }

    void emit(std::size_t headerBytes, std::size_t L, std::size_t M, bool distanceSet);

    BlockInput& input_;
    std::size_t payloadStart_;  // stream offsets
    std::size_t payloadEnd_;
    const std::uint8_t* window_ = nullptr;  // the byte at stream offset windowOffset_
    std::size_t windowOffset_ = 0;
    std::size_t readable_ = 0;  // bytes that may be read from window_ (copies read ahead)
    const std::uint8_t* p_ = nullptr;
    const std::uint8_t* end_ = nullptr;  // end of the payload bytes in the window
    OutputBuffer& out_;
    std::size_t pos_;
    std::size_t blockEnd_;
    std::size_t rawBytes_;
    std::size_t room_;
    std::size_t distance_ = 0;  // 0: no distance set in this block yet
    std::size_t blockOffset_;
};

// Appends L literals that follow the instruction's `headerBytes`, then M match bytes.
void LzvnBlock::emit(std::size_t headerBytes, std::size_t L, std::size_t M, bool matchNeedsDistance) {
    if (matchNeedsDistance && (distance_ == 0 || distance_ > pos_ + L)) {
        error(Kind::BadDistance, distance_ == 0 ? "match without a distance"
                                                : "distance " + std::to_string(distance_) +
                                                      " reaches before the start of the output (" +
                                                      std::to_string(pos_ + L) + " bytes)");
    }
    if (pos_ + L + M > room_) {
        if (L + M > blockEnd_ - pos_)
            error(Kind::SizeMismatch, "instructions produce more than the header's " + std::to_string(rawBytes_) +
                                          " bytes");
        out_.advance(pos_ - out_.size());
        const std::size_t moved = out_.ensure(L + M);
        pos_ -= moved;
        blockEnd_ -= moved;
        room_ = std::min(out_.capacity(), blockEnd_);
    }
    std::uint8_t* dst = out_.begin() + pos_;
    const std::uint8_t* src = p_ + headerBytes;
    if (L != 0) {
        if (readable_ - static_cast<std::size_t>(src - window_) >= L + 16) {
            wildCopy(dst, src, L);
        } else {
            std::memcpy(dst, src, L);
        }
    }
    if (M != 0) copyMatch(dst + L, distance_, M);
    pos_ += L + M;
    p_ += headerBytes + L;
}

void LzvnBlock::run() {
    for (;;) {
        if (p_ >= end_ && offsetOf(end_) != payloadEnd_) load(offsetOf(p_), 1);
        if (p_ >= end_) error(Kind::BadPayload, "payload ends without the end instruction");
        const unsigned op = *p_;
        switch (kOps[op]) {
        case Op::SmallDistance: {
            const std::size_t L = op >> 6;
            need(2 + L);
            distance_ = (op & 7u) << 8 | p_[1];
            emit(2, L, ((op >> 3) & 7) + 3, true);
            break;
        }
        case Op::MediumDistance: {
            const std::size_t L = (op >> 3) & 3;
            need(3 + L);
            const unsigned word = load16(p_ + 1);
            distance_ = word >> 2;
            emit(3, L, (((op & 7u) << 2) | (word & 3)) + 3, true);
            break;
        }
        case Op::LargeDistance: {
            const std::size_t L = op >> 6;
            need(3 + L);
            distance_ = load16(p_ + 1);
            emit(3, L, ((op >> 3) & 7) + 3, true);
            break;
        }
        case Op::PreviousDistance: {
            const std::size_t L = op >> 6;
            need(1 + L);
            emit(1, L, ((op >> 3) & 7) + 3, true);
            break;
        }
        case Op::SmallLiteral:
            need(1 + (op & 15));
            emit(1, op & 15, 0, false);
            break;
        case Op::LargeLiteral: {
            need(2);
            const std::size_t L = p_[1] + 16u;
            need(2 + L);
            emit(2, L, 0, false);
            break;
        }
        case Op::SmallMatch:
            need(1);
            emit(1, 0, op & 15, true);
            break;
        case Op::LargeMatch:
            need(2);
            emit(2, 0, p_[1] + 16u, true);
            break;
        case Op::Nop:
            need(1);
            ++p_;
            break;
        case Op::End:
            if (end_ - p_ < 8 && offsetOf(end_) != payloadEnd_) load(offsetOf(p_), 8);
            if (end_ - p_ < 8) error(Kind::BadPayload, "end instruction is cut short by the payload's end");
            p_ += 8;
            if (offsetOf(p_) != payloadEnd_)
                error(Kind::BadPayload,
                      std::to_string(payloadEnd_ - offsetOf(p_)) + " payload bytes follow the end instruction");
            out_.advance(pos_ - out_.size());
            if (pos_ != blockEnd_)
                error(Kind::SizeMismatch, "block produced " + std::to_string(pos_ - (blockEnd_ - rawBytes_)) +
                                              " bytes, the header says " + std::to_string(rawBytes_));
            return;
        case Op::Undefined:
            error(Kind::BadOpcode, "undefined opcode " + hexByte(op));
        }
    }
}

}  // namespace

std::size_t decodeLzvnBlock(BlockInput& input, std::size_t offset, OutputBuffer& out) {
    const std::uint8_t* header = input.require("bvxn block header", offset, kLzvnHeaderBytes);
    const std::uint32_t rawBytes = load32(header + 4);
    const std::uint32_t payloadBytes = load32(header + 8);
    out.checkLimit(rawBytes);
    out.expect(rawBytes);
    LzvnBlock(input, offset + kLzvnHeaderBytes, payloadBytes, rawBytes, offset, out).run();
    return offset + kLzvnHeaderBytes + payloadBytes;
}

}  // namespace gaugepoint::lzfse::detail
