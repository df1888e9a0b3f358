#pragma once

// How both snapshot stores keep a QuotaSnapshot in a BLOB column: its JSON, compressed with
// LZFSE when compression succeeds, with the encoding's name in a TEXT column beside it.

#include <boost/describe/enum.hpp>

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "gaugepoint/model/QuotaSnapshot.hpp"
#include "gaugepoint/platform/Json.hpp"

namespace gaugepoint {

enum class SnapshotEncoding { plain, lzfse };
BOOST_DESCRIBE_ENUM(SnapshotEncoding, plain, lzfse)

struct SnapshotBlob {
    std::vector<std::uint8_t> bytes;
    SnapshotEncoding encoding = SnapshotEncoding::plain;
};

// The stored form of `snapshot`: LZFSE-compressed JSON, or the JSON itself when compression
// fails. Throws json::EncodingError when the snapshot holds a value JSON cannot (infinity), or
// when its JSON is longer than a reader accepts (lzfse::kDefaultMaxOutputBytes).
SnapshotBlob encodeSnapshotBlob(const QuotaSnapshot& snapshot);

// The JSON text of a stored BLOB: decompressed when `encoding` is "lzfse" (any other name, or
// none, is plain JSON). Throws lzfse::Error for bytes that do not decompress.
std::string storedJSONText(std::span<const std::uint8_t> bytes, std::optional<std::string_view> encoding);

// The document in a stored row; none when the bytes do not decompress or decode, so one damaged
// row cannot hide the others.
template <class T>
std::optional<T> decodeStoredJSON(std::span<const std::uint8_t> bytes, std::optional<std::string_view> encoding) {
    try {
        return json::decode<T>(storedJSONText(bytes, encoding));
    } catch (const std::exception&) {  // lzfse::Error, json::DecodingError, std::bad_alloc
        return std::nullopt;
    }
}

// The snapshot in a stored row, as decodeStoredJSON.
inline std::optional<QuotaSnapshot> decodeSnapshotBlob(std::span<const std::uint8_t> bytes,
                                                       std::optional<std::string_view> encoding) {
    return decodeStoredJSON<QuotaSnapshot>(bytes, encoding);
}

}  // namespace gaugepoint
