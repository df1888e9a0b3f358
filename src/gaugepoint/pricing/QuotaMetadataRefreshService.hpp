#pragma once

// Downloads newer copies of the two catalogue documents, keeps them as the cached copies in the
// App Group directory, and records how the last refresh went in "metadata-refresh-state.json".

#include <boost/describe/class.hpp>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "gaugepoint/platform/Error.hpp"
#include "gaugepoint/platform/QuotaSyncConfiguration.hpp"
#include "gaugepoint/platform/UrlFetch.hpp"
#include "gaugepoint/pricing/QuotaModelMetadata.hpp"

namespace gaugepoint {

class QuotaMetadataRefreshError : public Error {
public:
    enum class Kind { invalidResponse, missingAppGroupContainer, missingRemoteURL, invalidProviderCatalog, invalidModelCatalog };

    static QuotaMetadataRefreshError invalidResponse(const std::string& url) {
        return {Kind::invalidResponse, "Failed to fetch metadata from " + url + "."};
    }
    static QuotaMetadataRefreshError missingAppGroupContainer(const std::string& groupID) {
        return {Kind::missingAppGroupContainer, "Missing App Group container for " + groupID + "."};
    }
    static QuotaMetadataRefreshError missingRemoteURL() { return {Kind::missingRemoteURL, "Missing metadata catalog URL."}; }
    static QuotaMetadataRefreshError invalidProviderCatalog() {
        return {Kind::invalidProviderCatalog, "Provider metadata catalog is invalid."};
    }
    static QuotaMetadataRefreshError invalidModelCatalog() {
        return {Kind::invalidModelCatalog, "Model metadata catalog is invalid."};
    }
    Kind kind() const noexcept { return kind_; }

private:
    QuotaMetadataRefreshError(Kind kind, const std::string& message) : Error(message), kind_(kind) {}
    Kind kind_;
};

struct QuotaMetadataRefreshState {
    std::optional<Date> updatedAt;
    std::optional<Date> providerCatalogRefreshedAt;
    std::optional<Date> modelCatalogRefreshedAt;
    std::optional<std::string> lastErrorDescription;
    bool operator==(const QuotaMetadataRefreshState&) const = default;
};
BOOST_DESCRIBE_STRUCT(QuotaMetadataRefreshState, (),
                      (updatedAt, providerCatalogRefreshedAt, modelCatalogRefreshedAt, lastErrorDescription))

// Kept in the user defaults under "metadataRefresh". The addresses are deployment values: none
// is built in, so a refresh needs them set (or given) first.
struct QuotaMetadataRefreshSettings {
    static constexpr std::string_view defaultsKey = "metadataRefresh";

    bool isEnabled = false;
    std::string providerCatalogURL;
    std::string modelCatalogURL;
    std::int64_t refreshIntervalHours = 24;

    // The settings stored in `defaults`, or these defaults where none (or a damaged value) is.
    static QuotaMetadataRefreshSettings load(const UserDefaults& defaults);
    // Stores the settings. Throws gaugepoint::Error when they cannot be kept.
    void save(UserDefaults& defaults) const;

    bool operator==(const QuotaMetadataRefreshSettings&) const = default;
};
BOOST_DESCRIBE_STRUCT(QuotaMetadataRefreshSettings, (),
                      (isEnabled, providerCatalogURL, modelCatalogURL, refreshIntervalHours))

// What a refresh changed in one document: ids added, removed, and present in both with other
// contents; `count` is the number of entries of the new document.
struct QuotaMetadataCatalogChange {
    std::int64_t count = 0;
    std::vector<std::string> added;
    std::vector<std::string> removed;
    std::vector<std::string> changed;
    bool operator==(const QuotaMetadataCatalogChange&) const = default;
};
BOOST_DESCRIBE_STRUCT(QuotaMetadataCatalogChange, (), (count, added, removed, changed))

struct QuotaMetadataRefreshResult {
    QuotaMetadataRefreshState state;
    QuotaMetadataCatalogChange providers;
    QuotaMetadataCatalogChange models;
};
BOOST_DESCRIBE_STRUCT(QuotaMetadataRefreshResult, (), (state, providers, models))

class QuotaMetadataRefreshService {
public:
    static constexpr std::string_view stateFilename = "metadata-refresh-state.json";

    explicit QuotaMetadataRefreshService(QuotaSyncConfiguration configuration = QuotaSyncConfiguration::standard(),
                                         UrlFetchOptions fetchOptions = {});

    // Fetches both documents from the addresses of the settings, checks them (a document that
    // does not decode or lists nothing is invalid), writes both cached copies atomically,
    // records the refresh times and reloads the catalogue. Nothing is written unless both
    // documents are good. On failure the error's text is recorded as lastErrorDescription
    // (where the App Group directory exists) and the QuotaMetadataRefreshError is thrown.
    QuotaMetadataRefreshResult refresh() const;
    // The same with explicit addresses.
    QuotaMetadataRefreshResult refresh(const std::string& providerCatalogURL, const std::string& modelCatalogURL) const;
    // refresh() when the settings are enabled, name both addresses and the last successful
    // refresh is at least refreshIntervalHours old (or never happened); none otherwise.
    std::optional<QuotaMetadataRefreshResult> refreshIfDue() const;

    // The recorded state; empty when there is none or it does not decode.
    QuotaMetadataRefreshState state() const;
    QuotaMetadataRefreshSettings settings() const;

private:
    void recordFailure(const std::string& description) const;

    QuotaSyncConfiguration configuration_;
    UrlFetchOptions fetchOptions_;
};

}  // namespace gaugepoint
