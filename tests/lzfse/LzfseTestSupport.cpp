#include "LzfseTestSupport.hpp"

#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>

namespace lzfse_test {

Bytes readVector(const std::string& file) {
    const std::string path = std::string(GAUGEPOINT_TEST_DATA_DIR) + "/lzfse/" + file;
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("cannot open " + path);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

Bytes randomBytes(std::size_t n, std::uint32_t seed) {
    std::mt19937 rng(seed);
    Bytes b(n);
    for (auto& x : b) x = static_cast<std::uint8_t>(rng());
    return b;
}

Bytes wordText(std::size_t n, std::uint32_t seed) {
    static const char* const kWords[] = {"quota", "widget", "the", "gauge", "of", "sync", "price",
                                         "and", "snapshot", "token", "limit", "cloud", "a", "store"};
    std::mt19937 rng(seed);
    Bytes b;
    while (b.size() < n) {
        const std::string w = kWords[rng() % std::size(kWords)];
        b.insert(b.end(), w.begin(), w.end());
        b.push_back(rng() % 11 == 0 ? '\n' : rng() % 7 == 0 ? ',' : ' ');
    }
    b.resize(n);
    return b;
}

Bytes run(std::size_t n, std::uint8_t value) { return Bytes(n, value); }

void put32(Bytes& b, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) b.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
}

std::uint64_t get64(const Bytes& b, std::size_t at) {
    std::uint64_t v = 0;
    for (int i = 7; i >= 0; --i) v = v << 8 | b.at(at + i);
    return v;
}

void set64(Bytes& b, std::size_t at, std::uint64_t v) {
    for (int i = 0; i < 8; ++i) b.at(at + i) = static_cast<std::uint8_t>(v >> (8 * i));
}

}  // namespace lzfse_test
