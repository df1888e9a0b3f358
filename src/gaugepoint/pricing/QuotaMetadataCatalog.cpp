#include "gaugepoint/pricing/QuotaMetadataCatalog.hpp"

#include <mutex>
#include <optional>

#include <algorithm>

#include <cstdlib>

#include "gaugepoint/platform/Files.hpp"
#include "gaugepoint/platform/InputFile.hpp"
#include "gaugepoint/platform/Text.hpp"
#include "gaugepoint/pricing/ModelNameCandidates.hpp"

namespace gaugepoint {
namespace {

// Caches beyond this many entries are emptied before the next insertion, so a log full of
// made-up model names cannot grow the process without bound.
constexpr std::size_t cacheLimit = 65536;

template <class Record>
void enter(std::unordered_map<std::string, std::shared_ptr<const Record>>& lookup,
           const std::vector<std::shared_ptr<const Record>>& records) {
    for (const auto& record : records) lookup.try_emplace(normalizedLookupKey(record->id), record);
    for (const auto& record : records) {
        lookup.try_emplace(normalizedLookupKey(record->displayName), record);
        for (const auto& alias : record->aliases) lookup.try_emplace(normalizedLookupKey(alias), record);
    }
    lookup.erase("");  // a blank name stands for nothing
}

template <class Record>
std::vector<std::shared_ptr<const Record>> shared(const std::vector<Record>& list) {
    std::vector<std::shared_ptr<const Record>> records;
    records.reserve(list.size());
    for (const auto& record : list) records.push_back(std::make_shared<const Record>(record));
    return records;
}

bool usable(const QuotaProviderMetadataPayload& payload) { return !payload.providers.empty(); }
bool usable(const QuotaModelMetadataPayload& payload) { return !payload.models.empty(); }

template <class Payload>
std::optional<Payload> decodeUsable(std::string_view text) {
    try {
        auto payload = json::decode<Payload>(text);
        if (usable(payload)) return payload;
    } catch (const Error&) {
    }
    return std::nullopt;
}

template <class Payload>
std::optional<Payload> decodeFile(const std::filesystem::path& file) {
    std::error_code error;
    if (!std::filesystem::is_regular_file(file, error)) return std::nullopt;
    try {
        return decodeUsable<Payload>(readInputFile(file, InputLimit::document("a catalogue document")));
    } catch (const Error&) {
        return std::nullopt;
    }
}

// The first place that yields a usable document: the cached copy, the built-in copy, the
// source tree named by GAUGEPOINT_REPO_ROOT.
template <class Payload>
std::optional<Payload> loadDocument(const std::optional<std::filesystem::path>& container, std::string_view cacheName,
                                    std::string_view shipped, std::string_view resourceName) {
    if (container) {
        if (auto cached = decodeFile<Payload>(*container / cacheName)) return cached;
    }
    if (auto builtIn = decodeUsable<Payload>(shipped)) return builtIn;
    if (const char* root = std::getenv("GAUGEPOINT_REPO_ROOT"); root && *root) {
        return decodeFile<Payload>(std::filesystem::path(root) / "Shared" / "Metadata" /
                                   (std::string(resourceName) + ".json"));
    }
    return std::nullopt;
}

QuotaModelMetadataRef findModel(const QuotaMetadataCatalogStore& store, const std::vector<std::string>& keys) {
    for (const auto& key : keys) {
        if (const auto found = store.modelLookup.find(key); found != store.modelLookup.end()) return found->second;
    }
    return nullptr;
}

}  // namespace

QuotaMetadataCatalogStore QuotaMetadataCatalogStore::make(std::optional<QuotaProviderMetadataPayload> providers,
                                                          std::optional<QuotaModelMetadataPayload> models) {
    QuotaMetadataCatalogStore store;
    if (providers) enter(store.providerLookup, shared(providers->providers));
    if (models) enter(store.modelLookup, shared(models->models));
    store.providerPayload = std::move(providers);
    store.modelPayload = std::move(models);
    return store;
}

std::size_t ModelLookupCacheKeyHash::operator()(const ModelLookupCacheKeyView& key) const noexcept {
    const std::size_t a = std::hash<std::string_view>{}(key.rawID);
    const std::size_t b = std::hash<std::string_view>{}(key.displayName);
    return a ^ (b + 0x9e3779b97f4a7c15ULL + (a << 6) + (a >> 2));
}

namespace {

// Where the catalogue will look once it is first used: a command names its directory before
// anything is priced, and a command that prices nothing loads nothing.
std::mutex pendingLock;
std::optional<QuotaSyncConfiguration> pendingConfiguration;
bool coordinatorMade = false;

}  // namespace

QuotaMetadataCatalogCoordinator::QuotaMetadataCatalogCoordinator() {
    {
        std::lock_guard guard{pendingLock};
        if (pendingConfiguration) configuration = *pendingConfiguration;
        coordinatorMade = true;
    }
    current = std::make_shared<const QuotaMetadataCatalogStore>(QuotaMetadataCatalog::loadStore(configuration));
}

QuotaMetadataCatalogCoordinator& QuotaMetadataCatalogCoordinator::shared() {
    static QuotaMetadataCatalogCoordinator coordinator;
    return coordinator;
}

std::shared_ptr<const QuotaMetadataCatalogStore> QuotaMetadataCatalogCoordinator::snapshot() {
    std::lock_guard guard{lock};
    return current;
}

namespace QuotaMetadataCatalog {

std::string normalizeLookupKey(std::string_view name) { return normalizedLookupKey(name); }

QuotaProviderMetadataRef provider(std::string_view name) {
    const auto store = QuotaMetadataCatalogCoordinator::shared().snapshot();
    const auto found = store->providerLookup.find(normalizeLookupKey(name));
    return found == store->providerLookup.end() ? nullptr : found->second;
}

std::string canonicalProviderID(std::string_view name) {
    const auto found = provider(name);
    return found ? found->id : std::string(name);
}

std::string canonicalSessionProviderID(std::string_view providerID) { return canonicalProviderID(providerID); }

std::optional<std::string> providerDisplayName(std::string_view name) {
    const auto found = provider(name);
    if (!found) return std::nullopt;
    return found->displayName;
}

std::optional<std::string> providerBrandAssetName(std::string_view name) {
    const auto found = provider(name);
    if (!found) return std::nullopt;
    return found->brandAssetName;
}

QuotaModelMetadataRef model(std::optional<std::string_view> name) {
    if (!name) return nullptr;
    const auto store = QuotaMetadataCatalogCoordinator::shared().snapshot();
    const auto found = store->modelLookup.find(normalizeLookupKey(*name));
    return found == store->modelLookup.end() ? nullptr : found->second;
}

namespace {

std::vector<std::string_view> wordsOf(std::string_view key) {
    std::vector<std::string_view> words;
    while (!key.empty()) {
        const auto end = key.find_first_of("-.");
        if (end != 0) words.push_back(key.substr(0, end));
        if (end == std::string_view::npos) break;
        key.remove_prefix(end + 1);
    }
    return words;
}

// Every word of `typed` among the words of `id`, in order.
bool holdsWords(std::string_view id, const std::vector<std::string_view>& typed) {
    const auto words = wordsOf(id);
    auto at = words.begin();
    for (const auto word : typed) {
        at = std::find(at, words.end(), word);
        if (at == words.end()) return false;
        ++at;
    }
    return true;
}

}  // namespace

QuotaModelMetadataRef modelForTypedName(std::string_view name) {
    if (auto found = resolvedModel(name)) return found;
    const std::string key = normalizeLookupKey(name);
    const auto typed = wordsOf(key);
    if (typed.empty()) return nullptr;
    const auto store = QuotaMetadataCatalogCoordinator::shared().snapshot();
    if (!store->modelPayload) return nullptr;
    for (const auto& candidate : store->modelPayload->models) {
        if (holdsWords(normalizeLookupKey(candidate.id), typed)) return model(candidate.id);
    }
    return nullptr;
}

QuotaModelMetadataRef resolvedModel(std::optional<std::string_view> rawID, std::optional<std::string_view> displayName) {
    // The keys are built in per-thread buffers, so a cached answer costs no allocation.
    thread_local std::string rawKey, nameKey;
    assignNormalizedLookupKey(rawKey, rawID.value_or(std::string_view{}));
    assignNormalizedLookupKey(nameKey, displayName.value_or(std::string_view{}));
    const ModelLookupCacheKeyView key{rawKey, nameKey};

    auto& coordinator = QuotaMetadataCatalogCoordinator::shared();
    std::shared_ptr<const QuotaMetadataCatalogStore> store;
    {
        std::lock_guard guard{coordinator.lock};
        if (const auto hit = coordinator.cachedResolvedModels.find(key); hit != coordinator.cachedResolvedModels.end()) {
            return hit->second;
        }
        if (coordinator.cachedMissingModels.contains(key)) return nullptr;
        store = coordinator.current;
    }

    QuotaModelMetadataRef found = findModel(*store, modelLookupCandidates(rawID, displayName));

    std::lock_guard guard{coordinator.lock};
    if (coordinator.current != store) return found;  // a reload came in between: keep its caches clean
    ModelLookupCacheKey owned{std::string(key.rawID), std::string(key.displayName)};
    if (found) {
        if (coordinator.cachedResolvedModels.size() >= cacheLimit) coordinator.cachedResolvedModels.clear();
        coordinator.cachedResolvedModels.insert_or_assign(std::move(owned), found);
    } else {
        if (coordinator.cachedMissingModels.size() >= cacheLimit) coordinator.cachedMissingModels.clear();
        coordinator.cachedMissingModels.insert(std::move(owned));
    }
    return found;
}

QuotaMetadataCatalogStore loadStore(const QuotaSyncConfiguration& configuration) {
    const auto container = configuration.resolvedAppGroupDirectory();
    return QuotaMetadataCatalogStore::make(
        loadDocument<QuotaProviderMetadataPayload>(container, QuotaProviderMetadataCacheFilename,
                                                   shippedProviderCatalog(), "provider_metadata_catalog"),
        loadDocument<QuotaModelMetadataPayload>(container, QuotaModelMetadataCacheFilename, shippedModelCatalog(),
                                                "model_metadata_catalog"));
}

void reload() {
    auto& coordinator = QuotaMetadataCatalogCoordinator::shared();
    std::lock_guard guard{coordinator.lock};
    coordinator.current = std::make_shared<const QuotaMetadataCatalogStore>(loadStore(coordinator.configuration));
    coordinator.cachedResolvedModels.clear();
    coordinator.cachedMissingModels.clear();
}

void useConfiguration(const QuotaSyncConfiguration& configuration) {
    {
        std::lock_guard guard{pendingLock};
        if (!coordinatorMade) {
            pendingConfiguration = configuration;
            return;
        }
    }
    auto& coordinator = QuotaMetadataCatalogCoordinator::shared();
    {
        std::lock_guard guard{coordinator.lock};
        coordinator.configuration = configuration;
    }
    reload();
}

}  // namespace QuotaMetadataCatalog
}  // namespace gaugepoint
