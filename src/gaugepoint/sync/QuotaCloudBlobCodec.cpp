#include "gaugepoint/sync/QuotaCloudBlobCodec.hpp"

#include "lzfse/Lzfse.hpp"

namespace gaugepoint {

QuotaCloudBlobCodecError QuotaCloudBlobCodecError::decompressionFailed(const std::string& underlying) {
    return {Kind::decompressionFailed, underlying, "Cloud blob decompression failed: " + underlying};
}

QuotaCloudBlobCodecError QuotaCloudBlobCodecError::compressionFailed() {
    return {Kind::compressionFailed, {}, "Cloud blob compression failed."};
}

namespace QuotaCloudBlobCodec {
namespace {

QuotaCloudEncodedBlob plain(std::span<const std::uint8_t> payload) {
    const auto n = static_cast<std::int64_t>(payload.size());
    return {{payload.begin(), payload.end()}, QuotaCloudBlobEncoding::plain, n, n};
}

}  // namespace

QuotaCloudEncodedBlob encode(std::span<const std::uint8_t> payload, std::int64_t minimumCompression,
                             std::int64_t minimumSavings) {
    const auto n = static_cast<std::int64_t>(payload.size());
    if (n < minimumCompression) return plain(payload);
    std::vector<std::uint8_t> compressed;
    try {
        compressed = lzfse::compress(payload);
    } catch (const std::exception&) {
        throw QuotaCloudBlobCodecError::compressionFailed();  // the compressor's reason is not kept
    }
    const auto c = static_cast<std::int64_t>(compressed.size());
    if (c + minimumSavings >= n) return plain(payload);
    return {std::move(compressed), QuotaCloudBlobEncoding::lzfse, n, c};
}

QuotaCloudEncodedBlob encode(std::string_view payload, std::int64_t minimumCompression, std::int64_t minimumSavings) {
    return encode(std::span(reinterpret_cast<const std::uint8_t*>(payload.data()), payload.size()), minimumCompression,
                  minimumSavings);
}

std::vector<std::uint8_t> decodeData(std::span<const std::uint8_t> stored,
                                     std::optional<std::string_view> encodingRawValue) {
    if (encodingRawValue != "lzfse") return {stored.begin(), stored.end()};
    try {
        return lzfse::decompress(stored);
    } catch (const lzfse::Error& e) {
        throw QuotaCloudBlobCodecError::decompressionFailed(e.what());
    } catch (const std::bad_alloc&) {
        throw QuotaCloudBlobCodecError::decompressionFailed("not enough memory for the decompressed payload");
    }
}

}  // namespace QuotaCloudBlobCodec
}  // namespace gaugepoint
