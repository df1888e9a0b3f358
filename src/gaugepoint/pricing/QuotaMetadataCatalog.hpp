#pragma once

// Which provider and which model a name stands for, and what the model costs.
//
// The answers come from two documents, the provider catalogue and the model catalogue, each
// taken from the first of these places that holds one that decodes and lists at least one entry:
//   1. the cached copy that a refresh wrote into the App Group directory
//      ("provider_metadata_catalog.cached.json", "model_metadata_catalog.cached.json");
//   2. the copy built into the library (resources/Metadata);
//   3. $GAUGEPOINT_REPO_ROOT/Shared/Metadata/<name>.json, for a source tree under development.
// Every lookup goes through one key (trimmed, lower-cased, "_" and " " as "-"). A lookup never
// fails: an unknown name gives none. Every operation is safe from any thread.

#include <cstddef>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

#include "gaugepoint/model/QuotaSessionMessage.hpp"
#include "gaugepoint/platform/QuotaSyncConfiguration.hpp"
#include "gaugepoint/pricing/QuotaModelMetadata.hpp"

namespace gaugepoint {

inline constexpr std::string_view QuotaProviderMetadataCacheFilename = "provider_metadata_catalog.cached.json";
inline constexpr std::string_view QuotaModelMetadataCacheFilename = "model_metadata_catalog.cached.json";

using QuotaProviderMetadataRef = std::shared_ptr<const QuotaProviderMetadata>;
using QuotaModelMetadataRef = std::shared_ptr<const QuotaModelMetadata>;

// The documents in force and their lookup tables. Every record is entered under the key of its
// id, of its display name and of each alias. Where two records claim one key, ids come first
// (an alias never hides another record's id), then the earlier record in the document.
struct QuotaMetadataCatalogStore {
    std::optional<QuotaProviderMetadataPayload> providerPayload;
    std::optional<QuotaModelMetadataPayload> modelPayload;
    std::unordered_map<std::string, QuotaProviderMetadataRef> providerLookup;
    std::unordered_map<std::string, QuotaModelMetadataRef> modelLookup;

    static QuotaMetadataCatalogStore make(std::optional<QuotaProviderMetadataPayload> providers,
                                          std::optional<QuotaModelMetadataPayload> models);
};

// A (raw id, display name) pair, both as lookup keys ("" for absent).
struct ModelLookupCacheKey {
    std::string rawID;
    std::string displayName;
    bool operator==(const ModelLookupCacheKey&) const = default;
};

// Hashes and compares a cache key without building one (heterogeneous lookup).
struct ModelLookupCacheKeyView {
    std::string_view rawID;
    std::string_view displayName;
};
struct ModelLookupCacheKeyHash {
    using is_transparent = void;
    std::size_t operator()(const ModelLookupCacheKeyView& key) const noexcept;
    std::size_t operator()(const ModelLookupCacheKey& key) const noexcept { return (*this)(ModelLookupCacheKeyView{key.rawID, key.displayName}); }
};
struct ModelLookupCacheKeyEqual {
    using is_transparent = void;
    template <class A, class B>
    bool operator()(const A& a, const B& b) const noexcept {
        return std::string_view(a.rawID) == std::string_view(b.rawID) &&
               std::string_view(a.displayName) == std::string_view(b.displayName);
    }
};

// The one process-wide owner of the catalogue in force and of the two name caches. `lock`
// guards `current` and both caches, and is never held while candidate names are matched.
class QuotaMetadataCatalogCoordinator {
public:
    static QuotaMetadataCatalogCoordinator& shared();

    std::mutex lock;
    std::shared_ptr<const QuotaMetadataCatalogStore> current;
    std::unordered_map<ModelLookupCacheKey, QuotaModelMetadataRef, ModelLookupCacheKeyHash, ModelLookupCacheKeyEqual>
        cachedResolvedModels;
    std::unordered_set<ModelLookupCacheKey, ModelLookupCacheKeyHash, ModelLookupCacheKeyEqual> cachedMissingModels;
    // Where the cached documents are looked for (its App Group directory).
    QuotaSyncConfiguration configuration = QuotaSyncConfiguration::standard();

    // The store in force, copied under the lock.
    std::shared_ptr<const QuotaMetadataCatalogStore> snapshot();

private:
    QuotaMetadataCatalogCoordinator();
};

namespace QuotaMetadataCatalog {

// Trimmed (white space and line breaks), lower-cased, every "_" and then every " " as "-".
std::string normalizeLookupKey(std::string_view name);

// The provider whose id, display name or alias has the key of `name`; none otherwise.
QuotaProviderMetadataRef provider(std::string_view name);
// The id of the provider found for `name`, else `name` itself.
std::string canonicalProviderID(std::string_view name);
// The same resolution for the provider id that a coding-session record carries.
std::string canonicalSessionProviderID(std::string_view providerID);
// The display name and brand asset of the provider found for `name`; none when none is found.
std::optional<std::string> providerDisplayName(std::string_view name);
std::optional<std::string> providerBrandAssetName(std::string_view name);

// The model whose id, display name or alias has exactly the key of `name`; none for none.
QuotaModelMetadataRef model(std::optional<std::string_view> name);

// The tolerant resolution used for pricing: the first candidate key (ModelNameCandidates.hpp) of
// `rawID`, then of `displayName`, that the model catalogue holds; none when none does. The
// answer, found or not, is cached per pair of keys until the next reload, so each name is
// matched once per process.
QuotaModelMetadataRef resolvedModel(std::optional<std::string_view> rawID,
                                    std::optional<std::string_view> displayName = std::nullopt);

// The model a person means by `name`: resolvedModel's answer, else, for a short name such as
// "sonnet", "opus" or "gemini-pro", the first model in catalogue order (newest first) whose id
// holds each of the name's words ("gemini-2.5-pro"). Never used for names a tool wrote: an
// unknown model there stays unpriced.
QuotaModelMetadataRef modelForTypedName(std::string_view name);

// Loads both documents again from their places (above), puts the new store in force and empties
// both caches, all under the coordinator's lock.
void reload();

// Looks for cached documents in the App Group directory of `configuration` from now on: reloads
// when the catalogue was loaded already, else only says where its first use will look.
void useConfiguration(const QuotaSyncConfiguration& configuration);

// The two documents as loaded from their places for `configuration`, none where no place
// yields one (what reload() puts in force).
QuotaMetadataCatalogStore loadStore(const QuotaSyncConfiguration& configuration);

// The documents built into the library.
std::string_view shippedProviderCatalog() noexcept;
std::string_view shippedModelCatalog() noexcept;

}  // namespace QuotaMetadataCatalog
}  // namespace gaugepoint
