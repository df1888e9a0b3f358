#pragma once

// Turns a JSON payload into the bytes stored in a cloud record's payload field and back,
// compressing with LZFSE (a raw stream, nothing added) only when that is worth it.

#include <boost/describe/enum.hpp>

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "gaugepoint/platform/Error.hpp"
#include "gaugepoint/platform/Json.hpp"

namespace gaugepoint {

// How stored bytes relate to the payload. Raw values "plain" and "lzfse".
enum class QuotaCloudBlobEncoding { plain, lzfse };
BOOST_DESCRIBE_ENUM(QuotaCloudBlobEncoding, plain, lzfse)

// The result of encoding: what to store, how, and both byte counts for reporting.
struct QuotaCloudEncodedBlob {
    std::vector<std::uint8_t> data;
    QuotaCloudBlobEncoding encoding = QuotaCloudBlobEncoding::plain;
    std::int64_t originalBytes = 0;
    std::int64_t storedBytes = 0;  // equals originalBytes when plain

    bool operator==(const QuotaCloudEncodedBlob&) const = default;
};

class QuotaCloudBlobCodecError : public Error {
public:
    enum class Kind { decompressionFailed, compressionFailed };

    // "Cloud blob decompression failed: " and the decompressor's own description.
    static QuotaCloudBlobCodecError decompressionFailed(const std::string& underlying);
    // "Cloud blob compression failed."
    static QuotaCloudBlobCodecError compressionFailed();

    Kind kind() const noexcept { return kind_; }
    const std::string& underlying() const noexcept { return underlying_; }

private:
    QuotaCloudBlobCodecError(Kind kind, std::string underlying, const std::string& message)
        : Error(message), kind_(kind), underlying_(std::move(underlying)) {}
    Kind kind_;
    std::string underlying_;
};

namespace QuotaCloudBlobCodec {

// Payloads shorter than this (bytes) are never compressed.
inline constexpr std::int64_t minimumCompressionBytes = 1024;
// The compressed form is kept only when it saves more than this many bytes.
inline constexpr std::int64_t minimumSavingsBytes = 96;

// The stored form of `payload`: LZFSE when the payload has at least `minimumCompression` bytes
// and compression saves more than `minimumSavings`, else the payload itself as plain. Throws
// QuotaCloudBlobCodecError(compressionFailed) only when the compressor itself fails.
QuotaCloudEncodedBlob encode(std::span<const std::uint8_t> payload,
                             std::int64_t minimumCompression = minimumCompressionBytes,
                             std::int64_t minimumSavings = minimumSavingsBytes);
QuotaCloudEncodedBlob encode(std::string_view payload, std::int64_t minimumCompression = minimumCompressionBytes,
                             std::int64_t minimumSavings = minimumSavingsBytes);

// The payload of stored bytes: decompressed for "lzfse"; returned unchanged for "plain", an
// absent name, or any unknown name. Throws QuotaCloudBlobCodecError(decompressionFailed).
std::vector<std::uint8_t> decodeData(std::span<const std::uint8_t> stored,
                                     std::optional<std::string_view> encodingRawValue);

// decodeData, then the JSON document as a T. JSON errors pass through as json::DecodingError.
template <class T>
T decode(std::span<const std::uint8_t> stored, std::optional<std::string_view> encodingRawValue) {
    const std::vector<std::uint8_t> payload = decodeData(stored, encodingRawValue);
    return json::decode<T>(std::string_view(reinterpret_cast<const char*>(payload.data()), payload.size()));
}

}  // namespace QuotaCloudBlobCodec
}  // namespace gaugepoint
