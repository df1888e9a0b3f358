// Arbitrary bytes as coding-session documents and catalogue documents. Whatever decodes must
// price without a crash and survive encode -> decode -> encode unchanged; any text must go
// through model name resolution.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "gaugepoint/model/QuotaSessionCatalog.hpp"
#include "gaugepoint/model/QuotaSessionTranscript.hpp"
#include "gaugepoint/pricing/ModelNameCandidates.hpp"
#include "gaugepoint/pricing/QuotaMetadataCatalog.hpp"
#include "gaugepoint/pricing/QuotaModelCostEstimator.hpp"

namespace {

using namespace gaugepoint;

template <class T>
std::optional<T> decoded(std::string_view text) {
    try {
        T value = json::decode<T>(text);
        std::string once;
        try {
            once = json::encode(value);
        } catch (const json::EncodingError&) {
            return value;
        }
        if (json::encode(json::decode<T>(once)) != once) std::abort();
        return value;
    } catch (const json::DecodingError&) {
        return std::nullopt;
    }
}

// Token sums that overflow stop the program by design; the fuzzer only feeds sums that fit.
bool fits(const QuotaSessionTokenUsage& usage) {
    std::int64_t cache = 0, sum = 0;
    return !__builtin_add_overflow(usage.cacheReadTokens, usage.cacheWriteTokens, &cache) &&
           !__builtin_add_overflow(usage.inputTokens, usage.outputTokens, &sum) &&
           !__builtin_add_overflow(sum, cache, &sum);
}

void price(const QuotaSessionDescriptor& descriptor) {
    if (!fits(descriptor.tokenUsage)) return;
    for (const auto& entry : descriptor.topModels) {
        if (!fits(entry.tokenUsage)) return;
    }
    (void)QuotaModelCostEstimator::costMetrics(descriptor);
    (void)QuotaModelCostEstimator::resolvedCostUSDWithFamilyFallback(descriptor);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    if (auto descriptor = decoded<QuotaSessionDescriptor>(text)) price(*descriptor);
    if (auto catalog = decoded<QuotaSessionCatalog>(text)) {
        if (auto patch = decoded<QuotaSessionCatalogPatch>(text)) catalog->apply(*patch);
    }
    (void)decoded<QuotaSessionTranscriptEnvelope>(text);
    (void)decoded<QuotaSessionTranscriptShardManifest>(text);
    auto models = decoded<QuotaModelMetadataPayload>(text);
    auto providers = decoded<QuotaProviderMetadataPayload>(text);
    if (models || providers) (void)QuotaMetadataCatalogStore::make(providers, models);
    if (size < 4096) {
        const auto half = text.substr(0, size / 2);
        (void)modelLookupCandidates(half, text.substr(size / 2));
        (void)QuotaMetadataCatalog::resolvedModel(half, text.substr(size / 2));
    }
    return 0;
}
