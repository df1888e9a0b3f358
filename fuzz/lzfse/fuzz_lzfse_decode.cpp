// Arbitrary bytes into the decoder: it must return or throw lzfse::Error, never touch memory
// it does not own, never hang, and never produce more than the limit.

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "lzfse/Lzfse.hpp"

namespace {
constexpr std::size_t kLimit = std::size_t{4} << 20;  // modest, so runs stay fast
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    try {
        const auto out = gaugepoint::lzfse::decompress({data, size}, kLimit);
        if (out.size() > kLimit) std::abort();
    } catch (const gaugepoint::lzfse::Error&) {
    }
    return 0;
}
