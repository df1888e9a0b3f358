// The stream driver of the decoder: walks the blocks up to the end marker.

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>

#include "lzfse/BlockHeader.hpp"
#include "lzfse/BlockInput.hpp"
#include "lzfse/ByteOrder.hpp"
#include "lzfse/Fail.hpp"
#include "lzfse/Format.hpp"
#include "lzfse/Lzfse.hpp"
#include "lzfse/LzfseBlockDecoder.hpp"
#include "lzfse/LzvnDecoder.hpp"
#include "lzfse/OutputBuffer.hpp"

namespace gaugepoint::lzfse {

namespace {

using detail::OutputBuffer;

using detail::BlockInput;

// Raw bytes, copied in pieces when streaming so a large block is never held whole.
std::size_t decodeRawBlock(BlockInput& input, std::size_t offset, OutputBuffer& out) {
    const std::uint32_t n = detail::load32(input.require("bvx- block header", offset, detail::kRawHeaderBytes) + 4);
    out.checkLimit(n);
    const std::size_t start = offset + detail::kRawHeaderBytes;
    std::size_t at = start;
    for (std::size_t left = n; left != 0;) {
        const std::size_t piece = input.piece(left);
        // A missing piece is reported as the whole block's data missing, as when it is read
        // in one piece.
        if (!input.has(at + piece - 1)) detail::failTruncated("bvx- block data", start, n, input.heldEnd() - start);
        const std::uint8_t* data = input.require("bvx- block data", at, piece);
        out.ensure(piece);
        std::memcpy(out.end(), data, piece);
        out.advance(piece);
        at += piece;
        left -= piece;
        input.release(at);
    }
    return at;
}

[[noreturn]] void badMagic(const std::uint8_t* magic, std::size_t offset) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string shown, hex;
    for (std::size_t i = 0; i < 4; ++i) {
        const unsigned char c = magic[i];
        shown += (c >= 0x20 && c < 0x7F) ? static_cast<char>(c) : '.';
        hex += kDigits[c >> 4];
        hex += kDigits[c & 15];
    }
    detail::fail(Error::Kind::BadMagic, "LZFSE stream: unknown block magic \"" + shown + "\" (bytes " + hex +
                                            ")" + detail::at(offset));
}

// Walks the blocks up to the end marker, appending their bytes to `out`.
void decodeBlocks(BlockInput& input, OutputBuffer& out) {
    std::unique_ptr<detail::LzfseBlockDecoder> lzfse;  // ~50 KiB of tables, made on first use
    std::size_t offset = 0;
    for (;;) {
        input.release(offset);
        if (offset != 0 && !input.has(offset)) {
            detail::fail(Error::Kind::Truncated, "LZFSE stream truncated: ends" + detail::at(offset) +
                                                     " without the end-of-stream marker bvx$");
        }
        const std::uint8_t* magicBytes = input.require("block magic", offset, 4);
        const std::uint32_t magic = detail::load32(magicBytes);
        switch (magic) {
        case detail::kMagicEnd:
            return;
        case detail::kMagicRaw:
            offset = decodeRawBlock(input, offset, out);
            break;
        case detail::kMagicLzvn:
            offset = detail::decodeLzvnBlock(input, offset, out);
            break;
        case detail::kMagicV1:
        case detail::kMagicV2: {
            const bool v2 = magic == detail::kMagicV2;
            const detail::LzfseHeader h = v2 ? detail::parseV2Header(input, offset)
                                             : detail::parseV1Header(input, offset);
            if (!lzfse) lzfse = std::make_unique_for_overwrite<detail::LzfseBlockDecoder>();
            const std::uint8_t* block = input.require("", offset, h.headerBytes);  // held by the parse
            offset = lzfse->decode(block, offset, v2 ? "bvx2" : "bvx1", h, out);
            break;
        }
        default:
            badMagic(magicBytes, offset);
        }
    }
}

// Sum of the sizes the block headers announce, read without decoding anything; stops
// quietly at the first block it cannot walk (decoding proper reports that). Used only as an
// allocation hint.
std::uint64_t announcedSize(std::span<const std::uint8_t> input) {
    std::uint64_t total = 0;
    std::size_t offset = 0;
    const std::uint8_t* p = input.data();
    while (input.size() - offset >= 8) {
        const std::uint32_t magic = detail::load32(p + offset);
        const std::uint32_t raw = detail::load32(p + offset + 4);
        std::uint64_t blockBytes;
        if (magic == detail::kMagicRaw) {
            blockBytes = std::uint64_t{detail::kRawHeaderBytes} + raw;
        } else if (magic == detail::kMagicLzvn && input.size() - offset >= detail::kLzvnHeaderBytes) {
            blockBytes = std::uint64_t{detail::kLzvnHeaderBytes} + detail::load32(p + offset + 8);
        } else if (magic == detail::kMagicV2 && input.size() - offset >= detail::kV2FixedHeaderBytes) {
            const std::uint64_t w0 = detail::load64(p + offset + 8), w1 = detail::load64(p + offset + 16);
            const std::uint32_t headerBytes = detail::load32(p + offset + 24);
            if (headerBytes < detail::kV2FixedHeaderBytes) break;  // else no progress
            blockBytes = std::uint64_t{headerBytes} + ((w0 >> 20) & 0xFFFFF) + ((w1 >> 40) & 0xFFFFF);
        } else if (magic == detail::kMagicV1 && input.size() - offset >= detail::kV1HeaderBytes) {
            blockBytes = std::uint64_t{detail::kV1HeaderBytes} + detail::load32(p + offset + 20) +
                         detail::load32(p + offset + 24);
        } else {
            break;
        }
        total += raw;
        if (blockBytes > input.size() - offset) break;
        offset += static_cast<std::size_t>(blockBytes);
    }
    return total;
}

}  // namespace

std::vector<std::uint8_t> decompress(std::span<const std::uint8_t> input, std::size_t maxOutputBytes) {
    std::vector<std::uint8_t> output;
    decompressInto(input, output, maxOutputBytes);
    return output;
}

void decompressInto(std::span<const std::uint8_t> input, std::vector<std::uint8_t>& output,
                    std::size_t maxOutputBytes) {
    OutputBuffer out(maxOutputBytes, std::move(output),
                     static_cast<std::size_t>(std::min<std::uint64_t>(announcedSize(input), maxOutputBytes)));
    BlockInput blocks(input);
    decodeBlocks(blocks, out);
    output = std::move(out).release();
}

void decompress(Source& input, Sink& output, std::uint64_t maxOutputBytes) {
    OutputBuffer out(maxOutputBytes, output);
    BlockInput blocks(input);
    decodeBlocks(blocks, out);
    out.finish();
}

std::string decompressString(std::string_view input, std::size_t maxOutputBytes) {
    const auto bytes = decompress(
        std::span(reinterpret_cast<const std::uint8_t*>(input.data()), input.size()), maxOutputBytes);
    return std::string(bytes.begin(), bytes.end());
}

}  // namespace gaugepoint::lzfse
