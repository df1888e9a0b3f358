#include "gaugepoint/stores/SnapshotBlob.hpp"

#include "gaugepoint/platform/Json.hpp"
#include "lzfse/Lzfse.hpp"

namespace gaugepoint {

SnapshotBlob encodeSnapshotBlob(const QuotaSnapshot& snapshot) {
    const std::string text = json::encode(snapshot);
    // Readers decompress no more than this; a row above it would be stored and then never read,
    // and would replace the readable row of the same id.
    if (text.size() > lzfse::kDefaultMaxOutputBytes) {
        throw json::EncodingError("the snapshot is " + std::to_string(text.size() >> 20) +
                                  " MiB as JSON, more than the " +
                                  std::to_string(lzfse::kDefaultMaxOutputBytes >> 20) +
                                  " MiB a stored snapshot may have to be read back; nothing was stored");
    }
    const std::span bytes(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
    try {
        return {lzfse::compress(bytes), SnapshotEncoding::lzfse};
    } catch (const std::exception&) {
        return {{bytes.begin(), bytes.end()}, SnapshotEncoding::plain};  // the compressor's reason is dropped
    }
}

std::string storedJSONText(std::span<const std::uint8_t> bytes, std::optional<std::string_view> encoding) {
    if (encoding == "lzfse") {
        const std::vector<std::uint8_t> json = lzfse::decompress(bytes);
        return {reinterpret_cast<const char*>(json.data()), json.size()};
    }
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

}  // namespace gaugepoint
