#pragma once

// A catalogue of the test's own making, put in force through cached copies in a scratch App
// Group directory.

#include <string>
#include <vector>

#include "TestSupport.hpp"
#include "gaugepoint/platform/Json.hpp"
#include "gaugepoint/pricing/QuotaMetadataCatalog.hpp"

namespace gaugepoint::testing {

inline QuotaModelMetadata priced(std::string id, std::vector<std::string> aliases, std::optional<double> input,
                                 std::optional<double> output, std::optional<double> cacheRead = std::nullopt,
                                 std::optional<double> cacheWrite = std::nullopt) {
    QuotaModelMetadata m;
    m.id = id;
    m.displayName = id;
    m.aliases = std::move(aliases);
    m.providerID = "test";
    m.family = "test";
    m.inputCostPerMillionUSD = input;
    m.outputCostPerMillionUSD = output;
    m.cacheReadCostPerMillionUSD = cacheRead;
    m.cacheWriteCostPerMillionUSD = cacheWrite;
    return m;
}

class CatalogFixture {
public:
    explicit CatalogFixture(std::vector<QuotaModelMetadata> models, std::vector<QuotaProviderMetadata> providers = {}) {
        configuration.appGroupDirectory = directory.path();
        install(std::move(models), std::move(providers));
    }

    // Writes the cached copies and reloads; an empty list leaves the built-in document in force.
    void install(std::vector<QuotaModelMetadata> models, std::vector<QuotaProviderMetadata> providers = {}) {
        writeFile(directory / QuotaModelMetadataCacheFilename, json::encode(QuotaModelMetadataPayload{1, {}, std::move(models)}));
        writeFile(directory / QuotaProviderMetadataCacheFilename,
                  json::encode(QuotaProviderMetadataPayload{1, {}, std::move(providers)}));
        QuotaMetadataCatalog::useConfiguration(configuration);
    }

    ScratchDirectory directory;
    QuotaSyncConfiguration configuration;
};

}  // namespace gaugepoint::testing
