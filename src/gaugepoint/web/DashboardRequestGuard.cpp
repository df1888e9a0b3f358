#include "gaugepoint/web/DashboardRequestGuard.hpp"

#include <cctype>
#include <random>

namespace gaugepoint::web {

bool isOwnHost(std::string_view host, int port) noexcept {
    const std::string suffix = ":" + std::to_string(port);
    if (host.size() <= suffix.size() || host.substr(host.size() - suffix.size()) != suffix) return false;
    const std::string_view name = host.substr(0, host.size() - suffix.size());
    if (name == "127.0.0.1") return true;
    constexpr std::string_view localhost = "localhost";
    if (name.size() != localhost.size()) return false;
    for (std::size_t i = 0; i < name.size(); ++i) {
        if (std::tolower(static_cast<unsigned char>(name[i])) != localhost[i]) return false;
    }
    return true;
}

std::string newAccessToken() {
    std::random_device random;  // getrandom(2) on Linux
    static const char* const hex = "0123456789abcdef";
    std::string token;
    for (int word = 0; word < 4; ++word) {
        std::uint32_t bits = random();
        for (int digit = 0; digit < 8; ++digit, bits >>= 4) token += hex[bits & 15];
    }
    return token;
}

bool sameToken(std::string_view given, std::string_view expected) noexcept {
    if (given.size() != expected.size()) return false;
    unsigned char difference = 0;
    for (std::size_t i = 0; i < given.size(); ++i) difference |= static_cast<unsigned char>(given[i] ^ expected[i]);
    return difference == 0;
}

}  // namespace gaugepoint::web
