#pragma once

// The two catalogue documents: providers (who a name stands for) and models (what a name stands
// for and what it costs). Prices are US dollars per million tokens; an absent price means
// "unknown", never zero.

#include <boost/describe/class.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "gaugepoint/platform/Hashing.hpp"
#include "gaugepoint/platform/Json.hpp"

namespace gaugepoint {

struct QuotaProviderMetadata {
    std::string id;
    std::string displayName;
    std::vector<std::string> aliases;
    std::string category;
    std::optional<std::string> brandAssetName;
    std::optional<std::string> iconDomain;
    std::vector<std::string> domains;
    std::vector<std::string> homepages;
    std::optional<std::string> metadataSourceURL;
    std::optional<std::string> notes;

    bool operator==(const QuotaProviderMetadata&) const = default;
};
BOOST_DESCRIBE_STRUCT(QuotaProviderMetadata, (),
                      (id, displayName, aliases, category, brandAssetName, iconDomain, domains, homepages,
                       metadataSourceURL, notes))

struct QuotaModelMetadata {
    std::string id;
    std::string displayName;
    std::vector<std::string> aliases;
    std::string providerID;
    std::string family;
    std::optional<std::string> organizationName;
    std::optional<std::string> brandAssetName;
    std::optional<std::string> logoURL;
    std::optional<double> inputCostPerMillionUSD;
    std::optional<double> outputCostPerMillionUSD;
    std::optional<double> cacheReadCostPerMillionUSD;
    std::optional<double> cacheWriteCostPerMillionUSD;
    std::optional<std::string> pricingSourceURL;
    std::optional<std::string> brandingSourceURL;
    std::vector<std::string> sourceURLs;
    std::optional<std::string> notes;
    // Price of one million tokens written to the one-hour cache, where the catalogue states one
    // (OneHourCacheWrites uses twice the input price otherwise). Not one of the four prices.
    std::optional<double> cacheWrite1hCostPerMillionUSD;

    // True when at least one of the four prices is known.
    bool hasAnyPrice() const {
        return inputCostPerMillionUSD || outputCostPerMillionUSD || cacheReadCostPerMillionUSD ||
               cacheWriteCostPerMillionUSD;
    }

    bool operator==(const QuotaModelMetadata&) const = default;
};
BOOST_DESCRIBE_STRUCT(QuotaModelMetadata, (),
                      (id, displayName, aliases, providerID, family, organizationName, brandAssetName, logoURL,
                       inputCostPerMillionUSD, outputCostPerMillionUSD, cacheReadCostPerMillionUSD,
                       cacheWriteCostPerMillionUSD, pricingSourceURL, brandingSourceURL, sourceURLs, notes,
                       cacheWrite1hCostPerMillionUSD))

struct QuotaProviderMetadataPayload {
    std::int64_t version = 1;
    std::optional<std::string> generatedAt;
    std::vector<QuotaProviderMetadata> providers;

    bool operator==(const QuotaProviderMetadataPayload&) const = default;
};
BOOST_DESCRIBE_STRUCT(QuotaProviderMetadataPayload, (), (version, generatedAt, providers))

struct QuotaModelMetadataPayload {
    std::int64_t version = 1;
    std::optional<std::string> generatedAt;
    std::vector<QuotaModelMetadata> models;

    bool operator==(const QuotaModelMetadataPayload&) const = default;
};
BOOST_DESCRIBE_STRUCT(QuotaModelMetadataPayload, (), (version, generatedAt, models))

}  // namespace gaugepoint

GAUGEPOINT_DECLARE_HASH(gaugepoint::QuotaProviderMetadata);
GAUGEPOINT_DECLARE_HASH(gaugepoint::QuotaModelMetadata);

// Lists a catalogue entry has nothing for may be left out.
template <>
struct gaugepoint::json::AbsentKeys<gaugepoint::QuotaProviderMetadata> {
    static constexpr std::string_view keys[] = {"aliases", "domains", "homepages"};
};
template <>
struct gaugepoint::json::AbsentKeys<gaugepoint::QuotaModelMetadata> {
    static constexpr std::string_view keys[] = {"aliases", "sourceURLs"};
};
