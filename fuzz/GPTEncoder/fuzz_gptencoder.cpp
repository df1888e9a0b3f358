// libFuzzer target: arbitrary bytes as text through GPTEncoder::encode, decode and the quota
// estimator, and the same bytes read as token ids through decode. Besides not crashing, encoding
// must round-trip: decode(encode(x)) is x with ill-formed UTF-8 repaired, and is well-formed;
// a shared encoder with a warm merge cache gives the ids a fresh one does.

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "GPTEncoder/GPTEncoder.hpp"
#include "GPTEncoder/Utf8.hpp"
#include "gaugepoint/pricing/QuotaTokenEstimator.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace gaugepoint;
    static GPTEncoder encoder;
    const std::string_view text(reinterpret_cast<const char*>(data), size);

    const std::vector<int> ids = encoder.encode(text);
    if (GPTEncoder().encode(text) != ids) __builtin_trap();  // the warm cache changes nothing
    const std::string decoded = encoder.decode(ids);
    if (decoded != (utf8::isValid(text) ? std::string(text) : utf8::repaired(text))) __builtin_trap();

    std::vector<int> raw(size / sizeof(int));
    if (!raw.empty()) std::memcpy(raw.data(), data, raw.size() * sizeof(int));
    if (!utf8::isValid(encoder.decode(raw))) __builtin_trap();

    auto& estimator = QuotaTokenEstimator::shared();
    if (estimator.estimateTokens(text) < 0) __builtin_trap();
    return 0;
}
