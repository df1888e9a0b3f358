#include "gaugepoint/platform/Sha256.hpp"

#include <openssl/err.h>
#include <openssl/evp.h>

#include "gaugepoint/platform/Error.hpp"

namespace gaugepoint {

Sha256Digest sha256(std::span<const std::uint8_t> bytes) {
    Sha256Digest digest{};
    unsigned int length = 0;
    if (EVP_Digest(bytes.data(), bytes.size(), digest.data(), &length, EVP_sha256(), nullptr) != 1 ||
        length != digest.size()) {
        char reason[256];
        ERR_error_string_n(ERR_get_error(), reason, sizeof reason);
        throw Error(std::string("SHA-256 digest failed: ") + reason);
    }
    return digest;
}

Sha256Digest sha256(std::string_view bytes) {
    return sha256(std::span(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()));
}

std::string lowercaseHex(std::span<const std::uint8_t> bytes) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(bytes.size() * 2);
    for (const std::uint8_t byte : bytes) {
        text.push_back(digits[byte >> 4]);
        text.push_back(digits[byte & 0x0f]);
    }
    return text;
}

std::string sha256Hex(std::span<const std::uint8_t> bytes) { return lowercaseHex(sha256(bytes)); }

std::string sha256Hex(std::string_view bytes) { return lowercaseHex(sha256(bytes)); }

}  // namespace gaugepoint
