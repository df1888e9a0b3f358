#include "gaugepoint/stores/StoreChangeStamp.hpp"

#include <sys/stat.h>

#include <string>
#include <string_view>

namespace gaugepoint {
namespace {

constexpr std::uint64_t kPrime = 1099511628211ull;  // 64-bit FNV-1a

void mix(std::uint64_t& hash, std::uint64_t value) {
    for (int shift = 0; shift < 64; shift += 8) {
        hash ^= (value >> shift) & 0xffu;
        hash *= kPrime;
    }
}

bool watched(std::string_view name) {
    return name.starts_with("quota-") && !name.ends_with("-shm");
}

}  // namespace

std::uint64_t storeChangeStamp(const std::filesystem::path& directory) noexcept {
    std::uint64_t hash = 14695981039346656037ull;
    std::error_code error;
    std::filesystem::directory_iterator entries(directory, error);
    if (error) return 0;
    for (const auto& entry : entries) {
        const std::string name = entry.path().filename().string();
        if (!watched(name)) continue;
        struct stat info {};
        if (::stat(entry.path().c_str(), &info) != 0) continue;
        // Order-independent: the directory lists its files in no fixed order.
        std::uint64_t one = 14695981039346656037ull;
        for (char c : name) {
            one ^= static_cast<unsigned char>(c);
            one *= kPrime;
        }
        mix(one, static_cast<std::uint64_t>(info.st_size));
        mix(one, static_cast<std::uint64_t>(info.st_mtim.tv_sec) * 1000000000ull +
                     static_cast<std::uint64_t>(info.st_mtim.tv_nsec));
        hash += one * kPrime;
    }
    return hash;
}

}  // namespace gaugepoint
