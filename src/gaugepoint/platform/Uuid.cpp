#include "gaugepoint/platform/Uuid.hpp"

#include <uuid/uuid.h>

namespace gaugepoint {

Uuid Uuid::random() {
    Uuid id;
    ::uuid_generate_random(id.bytes.data());
    return id;
}

std::optional<Uuid> Uuid::parse(std::string_view text) {
    constexpr std::size_t canonicalLength = 36;
    if (text.size() != canonicalLength) return std::nullopt;
    char terminated[canonicalLength + 1] = {};
    text.copy(terminated, canonicalLength);
    Uuid id;
    if (::uuid_parse(terminated, id.bytes.data()) != 0) return std::nullopt;
    return id;
}

std::string Uuid::lowercaseText() const {
    char text[37];
    ::uuid_unparse_lower(bytes.data(), text);
    return text;
}

}  // namespace gaugepoint
