#pragma once

// How both snapshot stores keep a QuotaSnapshot in a BLOB column: its JSON, compressed with
// LZFSE when compression succeeds, with the encoding's name in a TEXT column beside it.

#include <boost/describe/enum.hpp>

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "gaugepoint/model/QuotaSnapshot.hpp"

namespace gaugepoint {

enum class SnapshotEncoding { plain, lzfse };
BOOST_DESCRIBE_ENUM(SnapshotEncoding, plain, lzfse)

struct SnapshotBlob {
    std::vector<std::uint8_t> bytes;
    SnapshotEncoding encoding = SnapshotEncoding::plain;
};

// The stored form of `snapshot`: LZFSE-compressed JSON, or the JSON itself when compression
// fails. Throws json::EncodingError when the snapshot holds a value JSON cannot (infinity).
SnapshotBlob encodeSnapshotBlob(const QuotaSnapshot& snapshot);

// The snapshot in a stored row: decompressed when `encoding` is "lzfse" (any other name, or
// none, is plain JSON). None when the bytes do not decompress or decode, so one damaged row
// cannot hide the others from a widget.
std::optional<QuotaSnapshot> decodeSnapshotBlob(std::span<const std::uint8_t> bytes,
                                                std::optional<std::string_view> encoding);

}  // namespace gaugepoint
