#pragma once

// Universally unique identifiers (libuuid).

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace gaugepoint {

struct Uuid {
    std::array<std::uint8_t, 16> bytes{};

    // A random (version 4) identifier. Thread-safe.
    static Uuid random();
    // The identifier of a canonical text "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx" in either case;
    // none for any other text.
    static std::optional<Uuid> parse(std::string_view text);

    // The canonical text in lower case: 36 characters.
    std::string lowercaseText() const;

    bool operator==(const Uuid&) const = default;
};

}  // namespace gaugepoint
