#include "gaugepoint/pricing/QuotaMetadataRefreshService.hpp"

#include <algorithm>
#include <map>

#include "gaugepoint/platform/Files.hpp"
#include "gaugepoint/platform/InputFile.hpp"
#include "gaugepoint/platform/Json.hpp"
#include "gaugepoint/pricing/QuotaMetadataCatalog.hpp"

namespace gaugepoint {
namespace {

template <class Payload>
std::optional<Payload> decodeListing(const std::string& body) {
    try {
        auto payload = json::decode<Payload>(body);
        return payload;
    } catch (const Error&) {
        return std::nullopt;
    }
}

template <class Record>
QuotaMetadataCatalogChange changeBetween(const std::vector<Record>* before, const std::vector<Record>& after) {
    QuotaMetadataCatalogChange change;
    change.count = std::int64_t(after.size());
    std::map<std::string_view, const Record*> old;
    if (before) {
        for (const auto& record : *before) old.try_emplace(record.id, &record);
    }
    std::map<std::string_view, const Record*> now;
    for (const auto& record : after) now.try_emplace(record.id, &record);
    for (const auto& [id, record] : now) {
        const auto found = old.find(id);
        if (found == old.end()) {
            change.added.emplace_back(id);
        } else if (!(*found->second == *record)) {
            change.changed.emplace_back(id);
        }
    }
    for (const auto& [id, record] : old) {
        if (!now.contains(id)) change.removed.emplace_back(id);
    }
    return change;
}

}  // namespace

QuotaMetadataRefreshSettings QuotaMetadataRefreshSettings::load(const UserDefaults& defaults) {
    if (const auto stored = defaults.value(defaultsKey)) {
        try {
            return json::fromValue<QuotaMetadataRefreshSettings>(*stored);
        } catch (const json::DecodingError&) {
            // A damaged value is as good as none; the next save replaces it.
        }
    }
    return {};
}

void QuotaMetadataRefreshSettings::save(UserDefaults& defaults) const {
    defaults.setValue(defaultsKey, json::parse(json::encode(*this)));
}

QuotaMetadataRefreshService::QuotaMetadataRefreshService(QuotaSyncConfiguration configuration,
                                                         UrlFetchOptions fetchOptions)
    : configuration_(std::move(configuration)), fetchOptions_(fetchOptions) {}

QuotaMetadataRefreshSettings QuotaMetadataRefreshService::settings() const {
    return QuotaMetadataRefreshSettings::load(*configuration_.userDefaults);
}

QuotaMetadataRefreshState QuotaMetadataRefreshService::state() const {
    const auto container = configuration_.resolvedAppGroupDirectory();
    if (!container) return {};
    try {
        return json::decode<QuotaMetadataRefreshState>(readInputFile(*container / stateFilename, InputLimit::document("a refresh state document")));
    } catch (const Error&) {
        return {};
    }
}

void QuotaMetadataRefreshService::recordFailure(const std::string& description) const {
    const auto container = configuration_.resolvedAppGroupDirectory();
    if (!container) return;
    QuotaMetadataRefreshState recorded = state();
    recorded.lastErrorDescription = description;
    try {
        writeFileAtomically(*container / stateFilename, json::encode(recorded, true) + "\n");
    } catch (const Error&) {
        // The refresh error is what the caller needs to hear about; a state file that cannot be
        // written only loses the record of it.
    }
}

namespace {

// The most a million tokens of any kind may cost, in US dollars: well above any model sold, and
// low enough that a report never adds up to a figure no one could be billed.
constexpr double kMaxPricePerMillionUSD = 100000;

// Whether every price the model has is one a seller could ask: known prices are finite, not
// negative and at most kMaxPricePerMillionUSD. A catalogue with one impossible price is refused
// whole, so the catalogue in force stays as it was.
bool pricesPossible(const QuotaModelMetadata& model) {
    for (const auto& price : {model.inputCostPerMillionUSD, model.outputCostPerMillionUSD,
                              model.cacheReadCostPerMillionUSD, model.cacheWriteCostPerMillionUSD,
                              model.cacheWrite1hCostPerMillionUSD}) {
        if (price && !(*price >= 0 && *price <= kMaxPricePerMillionUSD)) return false;
    }
    return true;
}

}  // namespace

QuotaMetadataRefreshResult QuotaMetadataRefreshService::refresh() const {
    const auto current = settings();
    return refresh(current.providerCatalogURL, current.modelCatalogURL);
}

QuotaMetadataRefreshResult QuotaMetadataRefreshService::refresh(const std::string& providerCatalogURL,
                                                                const std::string& modelCatalogURL) const {
    const auto fail = [&](const QuotaMetadataRefreshError& error) -> QuotaMetadataRefreshError {
        recordFailure(error.what());
        return error;
    };
    if (providerCatalogURL.empty() || modelCatalogURL.empty()) throw fail(QuotaMetadataRefreshError::missingRemoteURL());
    const auto container = configuration_.resolvedAppGroupDirectory();
    if (!container) throw QuotaMetadataRefreshError::missingAppGroupContainer(configuration_.appGroupIdentifier);

    const auto providerBody = fetchURL(providerCatalogURL, fetchOptions_);
    if (!providerBody) throw fail(QuotaMetadataRefreshError::invalidResponse(providerCatalogURL));
    const auto providers = decodeListing<QuotaProviderMetadataPayload>(*providerBody);
    if (!providers || providers->providers.empty()) throw fail(QuotaMetadataRefreshError::invalidProviderCatalog());
    const auto modelBody = fetchURL(modelCatalogURL, fetchOptions_);
    if (!modelBody) throw fail(QuotaMetadataRefreshError::invalidResponse(modelCatalogURL));
    const auto models = decodeListing<QuotaModelMetadataPayload>(*modelBody);
    if (!models || models->models.empty() || !std::all_of(models->models.begin(), models->models.end(), pricesPossible)) {
        throw fail(QuotaMetadataRefreshError::invalidModelCatalog());
    }

    const QuotaMetadataCatalogStore before = QuotaMetadataCatalog::loadStore(configuration_);
    QuotaMetadataRefreshResult result;
    result.providers = changeBetween(before.providerPayload ? &before.providerPayload->providers : nullptr,
                                     providers->providers);
    result.models = changeBetween(before.modelPayload ? &before.modelPayload->models : nullptr, models->models);

    writeFileAtomically(*container / QuotaProviderMetadataCacheFilename, *providerBody);
    writeFileAtomically(*container / QuotaModelMetadataCacheFilename, *modelBody);
    const Date now = configuration_.clock.now();
    result.state = state();
    result.state.updatedAt = now;
    result.state.providerCatalogRefreshedAt = now;
    result.state.modelCatalogRefreshedAt = now;
    result.state.lastErrorDescription.reset();
    writeFileAtomically(*container / stateFilename, json::encode(result.state, true) + "\n");
    QuotaMetadataCatalog::useConfiguration(configuration_);
    return result;
}

std::optional<QuotaMetadataRefreshResult> QuotaMetadataRefreshService::refreshIfDue() const {
    const auto current = settings();
    if (!current.isEnabled || current.providerCatalogURL.empty() || current.modelCatalogURL.empty()) return std::nullopt;
    const auto last = state().updatedAt;
    const double interval = double(std::max<std::int64_t>(current.refreshIntervalHours, 0)) * 3600;
    if (last && secondsSince1970(configuration_.clock.now()) - secondsSince1970(*last) < interval) return std::nullopt;
    return refresh(current.providerCatalogURL, current.modelCatalogURL);
}

}  // namespace gaugepoint
