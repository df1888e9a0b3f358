#include <gtest/gtest.h>

#include <set>
#include <thread>

#include "PricingTestSupport.hpp"
#include "gaugepoint/pricing/ModelNameCandidates.hpp"

namespace gaugepoint {
namespace {

using testing::CatalogFixture;
using testing::priced;
using testing::ScratchDirectory;
namespace Catalog = QuotaMetadataCatalog;

std::string resolvedID(std::optional<std::string_view> raw, std::optional<std::string_view> display = std::nullopt) {
    const auto model = Catalog::resolvedModel(raw, display);
    return model ? model->id : "(none)";
}

TEST(QuotaMetadataCatalog, LookupKeysTrimLowerCaseAndJoinWithHyphens) {
    const std::pair<const char*, const char*> cases[] = {
        {"Claude Sonnet 4.6", "claude-sonnet-4.6"}, {"claude_sonnet_4.6", "claude-sonnet-4.6"},
        {" \tCLAUDE-SONNET-4.6\n", "claude-sonnet-4.6"}, {"\u00a0Ünïcode\u3000", "ünïcode"},
        {"ＧＰＴ_5", "ｇｐｔ-5"}, {"a  b", "a--b"}, {"", ""}, {"\r\n", ""},
    };
    for (const auto& [name, key] : cases) EXPECT_EQ(Catalog::normalizeLookupKey(name), key) << name;
}

TEST(QuotaMetadataCatalog, CandidatesTryPlainKeysFirstThenRewritesRawBeforeDisplayName) {
    const auto list = modelLookupCandidates("Claude-Sonnet-4-6 (1M context)", "Sonnet High");
    ASSERT_GE(list.size(), 4u);
    EXPECT_EQ(list[0], "claude-sonnet-4-6-(1m-context)");
    EXPECT_EQ(list[1], "claude-sonnet-4-6");
    const auto position = [&](std::string_view key) { return std::find(list.begin(), list.end(), key) - list.begin(); };
    EXPECT_LT(position("claude-4-6-sonnet"), position("sonnet-high"));
    EXPECT_LT(position("claude-sonnet-4.6"), position("sonnet"));
    EXPECT_LT(position("sonnet-high"), position("sonnet"));
    EXPECT_EQ(std::set<std::string>(list.begin(), list.end()).size(), list.size());  // each once
    EXPECT_TRUE(modelLookupCandidates(std::nullopt, std::nullopt).empty());
    EXPECT_TRUE(modelLookupCandidates("  ", "").empty());
    EXPECT_LE(modelLookupCandidates(std::string(5000, 'x') + "-1-2-3-4-5-6-7-8-9-high-thinking", "\xff\xfe(").size(), 128u);
}

TEST(QuotaMetadataCatalog, ResolvesTheNamesToolsAndPeopleWrite) {
    CatalogFixture catalog{{priced("claude-sonnet-4-6", {}, 3, 15), priced("claude-sonnet-3.5", {}, 3, 15),
                            priced("gpt-5-codex", {"gpt5-codex"}, 1.25, 10), priced("o4-mini", {}, 1.1, 4.4),
                            priced("unpriced-model", {}, std::nullopt, std::nullopt)}};
    const std::pair<const char*, const char*> cases[] = {
        {"claude_sonnet_4_6", "claude-sonnet-4-6"},
        {"Claude Sonnet 4-6", "claude-sonnet-4-6"},
        {"claude-sonnet-4-6-thinking", "claude-sonnet-4-6"},
        {"claude-sonnet-4-6-high-thinking", "claude-sonnet-4-6"},
        {"claude-sonnet-4-6 (1M context)", "claude-sonnet-4-6"},
        {"claude-sonnet-4-6-context1m", "claude-sonnet-4-6"},
        {"claude-4-6-sonnet", "claude-sonnet-4-6"},
        {"claude-3-5-sonnet", "claude-sonnet-3.5"},
        {"claude-3.5-sonnet-20241022", "claude-sonnet-3.5"},
        {"anthropic/claude-sonnet-4-6", "claude-sonnet-4-6"},
        {"us.anthropic.claude-sonnet-4-6-20260101-v1:0", "claude-sonnet-4-6"},
        {"gpt-5-codex-spark", "gpt-5-codex"},
        {"GPT5_Codex", "gpt-5-codex"},
        {"gpt-5-codex-reasoning", "gpt-5-codex"},
        {"o4-mini-high", "o4-mini"},
        {"unpriced-model", "unpriced-model"},  // resolves for branding; pricing treats it as unpriced
        {"claude-sonnet-9", "(none)"},
        {"sonnet", "(none)"},
    };
    for (const auto& [name, id] : cases) EXPECT_EQ(resolvedID(name), id) << name;
    EXPECT_EQ(resolvedID("whatever-tool-id", "Claude Sonnet 4-6"), "claude-sonnet-4-6");
    EXPECT_EQ(resolvedID("o4-mini", "Claude Sonnet 4-6"), "o4-mini");  // the raw id comes first

    // Exact lookup knows no rewrites.
    EXPECT_TRUE(Catalog::model("GPT5 Codex"));
    EXPECT_FALSE(Catalog::model("claude-sonnet-4-6-thinking"));
    EXPECT_FALSE(Catalog::model(std::nullopt));
}

TEST(QuotaMetadataCatalog, CachesMissesUntilAReloadBringsTheModel) {
    CatalogFixture catalog{{priced("known", {}, 1, 1)}};
    auto& coordinator = QuotaMetadataCatalogCoordinator::shared();
    EXPECT_FALSE(Catalog::resolvedModel(std::nullopt, std::nullopt));
    EXPECT_TRUE(coordinator.cachedMissingModels.contains(ModelLookupCacheKey{"", ""}));
    EXPECT_EQ(resolvedID("Fresh_Model"), "(none)");
    EXPECT_TRUE(coordinator.cachedMissingModels.contains(ModelLookupCacheKey{"fresh-model", ""}));
    EXPECT_EQ(resolvedID(" known "), "known");
    EXPECT_TRUE(coordinator.cachedResolvedModels.contains(ModelLookupCacheKey{"known", ""}));

    catalog.install({priced("known", {}, 1, 1), priced("fresh-model", {}, 2, 2)});
    EXPECT_TRUE(coordinator.cachedMissingModels.empty());
    EXPECT_TRUE(coordinator.cachedResolvedModels.empty());
    EXPECT_EQ(resolvedID("Fresh_Model"), "fresh-model");
}

TEST(QuotaMetadataCatalog, IdsWinOverAliasesAndEarlierRecordsOverLaterOnes) {
    CatalogFixture catalog{{priced("alpha", {"beta", "shared"}, 1, 1), priced("beta", {"shared"}, 2, 2)}};
    EXPECT_EQ(resolvedID("beta"), "beta");
    EXPECT_EQ(resolvedID("shared"), "alpha");
}

TEST(QuotaMetadataCatalog, DocumentsComeFromTheCacheElseTheShippedCopy) {
    ScratchDirectory directory;
    QuotaSyncConfiguration configuration;
    configuration.appGroupDirectory = directory.path();
    const auto shipped = Catalog::loadStore(configuration);
    ASSERT_TRUE(shipped.providerPayload && shipped.modelPayload);

    testing::writeFile(directory / QuotaModelMetadataCacheFilename, R"({"version":1,"models":[{"id":"x"}]})");
    testing::writeFile(directory / QuotaProviderMetadataCacheFilename, R"({"version":1,"providers":[]})");
    const auto fallback = Catalog::loadStore(configuration);
    EXPECT_EQ(fallback.modelPayload, shipped.modelPayload);  // undecodable cache: skipped
    EXPECT_EQ(fallback.providerPayload, shipped.providerPayload);  // empty list: skipped

    testing::writeFile(directory / QuotaModelMetadataCacheFilename,
                       json::encode(QuotaModelMetadataPayload{2, "now", {priced("only", {}, 1, 2)}}));
    const auto cached = Catalog::loadStore(configuration);
    EXPECT_EQ(cached.modelPayload->version, 2);
    EXPECT_EQ(cached.modelLookup.size(), 1u);
    EXPECT_EQ(cached.providerPayload, shipped.providerPayload);  // each document on its own
}

TEST(QuotaMetadataCatalog, ProvidersResolveByIdNameAndAlias) {
    QuotaProviderMetadata claude{"claude", "Claude", {"Anthropic", "claude_code"}, "assistant", "claude-mark", {}, {}, {}, {}, {}};
    CatalogFixture catalog{{priced("m", {}, 1, 1)}, {claude}};
    EXPECT_EQ(Catalog::canonicalProviderID("ANTHROPIC"), "claude");
    EXPECT_EQ(Catalog::canonicalSessionProviderID("claude code"), "claude");
    EXPECT_EQ(Catalog::canonicalProviderID("My Tool"), "My Tool");
    EXPECT_EQ(Catalog::providerDisplayName("claude-code"), "Claude");
    EXPECT_EQ(Catalog::providerBrandAssetName("Claude"), "claude-mark");
    EXPECT_FALSE(Catalog::providerDisplayName("nobody"));
    EXPECT_FALSE(Catalog::provider(""));
}

// The shipped documents carry the published prices (US dollars per million tokens).
TEST(QuotaMetadataCatalog, ShippedPricesMatchThePublishedOnes) {
    ScratchDirectory directory;
    QuotaSyncConfiguration configuration;
    configuration.appGroupDirectory = directory.path();
    Catalog::useConfiguration(configuration);
    struct Case { const char* name; std::optional<double> in, out, read, write; };
    const Case cases[] = {
        {"claude-opus-4-1-20250805", 15, 75, 1.5, 18.75}, {"claude-opus-4-20250514", 15, 75, 1.5, 18.75},
        {"claude-opus-4-5-20251101", 5, 25, 0.5, 6.25},  {"claude-opus-4-6", 5, 25, 0.5, 6.25},
        {"claude-opus-4.7", 5, 25, 0.5, 6.25},           {"claude-sonnet-4-20250514", 3, 15, 0.3, 3.75},
        {"claude-sonnet-4-5-20250929", 3, 15, 0.3, 3.75}, {"Claude Sonnet 4.6", 3, 15, 0.3, 3.75},
        {"claude-haiku-4-5-20251001", 1, 5, 0.1, 1.25},  {"claude-3-5-haiku-20241022", 0.8, 4, 0.08, 1.0},
        {"gpt-5", 1.25, 10, 0.125, {}},                  {"gpt-5-codex", 1.25, 10, 0.125, {}},
        {"gpt-4.1", 2, 8, 0.5, {}},                      {"o3", 2, 8, 0.5, {}},
        {"o4-mini", 1.1, 4.4, 0.275, {}},                {"gemini-2.5-pro", 1.25, 10, 0.125, {}},
        {"gemini-2.5-flash", 0.30, 2.50, 0.03, {}},
    };
    for (const auto& c : cases) {
        const auto m = Catalog::resolvedModel(c.name);
        ASSERT_TRUE(m) << c.name;
        EXPECT_EQ(m->inputCostPerMillionUSD, c.in) << c.name;
        EXPECT_EQ(m->outputCostPerMillionUSD, c.out) << c.name;
        EXPECT_EQ(m->cacheReadCostPerMillionUSD, c.read) << c.name;
        EXPECT_EQ(m->cacheWriteCostPerMillionUSD, c.write) << c.name;
    }
    const auto store = QuotaMetadataCatalogCoordinator::shared().snapshot();
    std::set<std::string> providerIDs;
    for (const auto& p : store->providerPayload->providers) providerIDs.insert(p.id);
    for (const char* id : {"claude", "codex", "gemini", "cursor", "openrouter", "copilot", "warp", "kiro", "kilo",
                           "antigravity", "xai", "deepseek", "mistral"}) {
        EXPECT_TRUE(providerIDs.contains(id)) << id;
    }
    // No key stands for two records, no price is written as 0 for "unknown", every priced
    // model says where its prices came from, and every model names a known provider.
    std::map<std::string, std::string> owner;
    for (const auto& m : store->modelPayload->models) {
        std::vector<std::string> names = m.aliases;
        names.push_back(m.id);
        names.push_back(m.displayName);
        for (const auto& name : names) {
            const auto [it, inserted] = owner.try_emplace(Catalog::normalizeLookupKey(name), m.id);
            EXPECT_TRUE(inserted || it->second == m.id) << name << " names " << it->second << " and " << m.id;
        }
        for (const auto& price : {m.inputCostPerMillionUSD, m.outputCostPerMillionUSD, m.cacheReadCostPerMillionUSD,
                                  m.cacheWriteCostPerMillionUSD}) {
            EXPECT_NE(price, 0.0) << m.id;
        }
        EXPECT_TRUE(!m.hasAnyPrice() || m.pricingSourceURL) << m.id;
        EXPECT_TRUE(providerIDs.contains(m.providerID)) << m.id;
    }
}

TEST(QuotaMetadataCatalog, ConcurrentResolutionAndReloadsAgree) {
    CatalogFixture catalog{{priced("claude-sonnet-4-6", {}, 3, 15)}};
    std::atomic<bool> wrong{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 300; ++i) {
                const std::string name = "claude_sonnet_4_6" + std::string(i % 7 == 0 ? "-thinking" : "");
                if (resolvedID(name) != "claude-sonnet-4-6") wrong = true;
                if (resolvedID("nothing-" + std::to_string((t * 1000 + i) % 50)) != "(none)") wrong = true;
            }
        });
    }
    for (int i = 0; i < 20; ++i) Catalog::reload();
    for (auto& thread : threads) thread.join();
    EXPECT_FALSE(wrong);
}

}  // namespace
}  // namespace gaugepoint
