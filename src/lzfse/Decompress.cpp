// The stream driver of the decoder: walks the blocks up to the end marker.

#include <cstring>
#include <memory>
#include <string>

#include "lzfse/BlockHeader.hpp"
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

std::size_t decodeRawBlock(std::span<const std::uint8_t> input, std::size_t offset, OutputBuffer& out) {
    detail::requireBytes("bvx- block header", offset, detail::kRawHeaderBytes, input.size());
    const std::uint32_t n = detail::load32(input.data() + offset + 4);
    detail::requireBytes("bvx- block data", offset + detail::kRawHeaderBytes, n, input.size());
    out.ensure(n);
    std::memcpy(out.end(), input.data() + offset + detail::kRawHeaderBytes, n);
    out.advance(n);
    return offset + detail::kRawHeaderBytes + n;
}

[[noreturn]] void badMagic(std::span<const std::uint8_t> input, std::size_t offset) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string shown, hex;
    for (std::size_t i = 0; i < 4; ++i) {
        const unsigned char c = input[offset + i];
        shown += (c >= 0x20 && c < 0x7F) ? static_cast<char>(c) : '.';
        hex += kDigits[c >> 4];
        hex += kDigits[c & 15];
    }
    detail::fail(Error::Kind::BadMagic, "LZFSE stream: unknown block magic \"" + shown + "\" (bytes " + hex +
                                            ")" + detail::at(offset));
}

}  // namespace

std::vector<std::uint8_t> decompress(std::span<const std::uint8_t> input, std::size_t maxOutputBytes) {
    OutputBuffer out(maxOutputBytes);
    std::unique_ptr<detail::LzfseBlockDecoder> lzfse;  // ~50 KiB of tables, made on first use
    std::size_t offset = 0;
    for (;;) {
        if (offset == input.size() && offset != 0) {
            detail::fail(Error::Kind::Truncated, "LZFSE stream truncated: ends" + detail::at(offset) +
                                                     " without the end-of-stream marker bvx$");
        }
        detail::requireBytes("block magic", offset, 4, input.size());
        const std::uint32_t magic = detail::load32(input.data() + offset);
        switch (magic) {
        case detail::kMagicEnd:
            return std::move(out).release();
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
            if (!lzfse) lzfse = std::make_unique<detail::LzfseBlockDecoder>();
            offset = lzfse->decode(input, offset, v2 ? "bvx2" : "bvx1", h, out);
            break;
        }
        default:
            badMagic(input, offset);
        }
    }
}

std::string decompressString(std::string_view input, std::size_t maxOutputBytes) {
    const auto bytes = decompress(
        std::span(reinterpret_cast<const std::uint8_t*>(input.data()), input.size()), maxOutputBytes);
    return std::string(bytes.begin(), bytes.end());
}

}  // namespace gaugepoint::lzfse
