#include <gtest/gtest.h>

#include "LoopbackHttpServer.hpp"
#include "PricingTestSupport.hpp"
#include "gaugepoint/pricing/QuotaMetadataRefreshService.hpp"

namespace gaugepoint {
namespace {

using testing::LoopbackHttpServer;
using testing::priced;
using Kind = QuotaMetadataRefreshError::Kind;

const std::string providers = json::encode(QuotaProviderMetadataPayload{
    3, "2026-11-22", {{"claude", "Claude", {}, "assistant", {}, {}, {}, {}, {}, {}}}});
const std::string models = json::encode(QuotaModelMetadataPayload{3, "2026-11-22", {priced("brand-new-model", {}, 7, 9)}});

class RefreshService : public ::testing::Test {
protected:
    RefreshService() {
        configuration.appGroupDirectory = directory.path();
        configuration.clock = Clock::fixedAt(testing::at("2026-11-22T08:00:00Z"));
        QuotaMetadataCatalog::useConfiguration(configuration);
        server.route("/providers.json", {200, providers});
        server.route("/models.json", {200, models});
        server.route("/broken.json", {200, R"({"version":1,"models":[{"id":)"});
        server.route("/empty.json", {200, R"({"version":1,"models":[]})"});
        server.route("/slow.json", {200, models, std::chrono::milliseconds(3000)});
    }

    QuotaMetadataRefreshService service() const {
        UrlFetchOptions options;
        options.totalTimeout = std::chrono::milliseconds(400);
        return QuotaMetadataRefreshService{configuration, options};
    }

    // The error a refresh from these two paths throws, checked against the recorded state.
    std::pair<Kind, std::string> failure(const std::string& providerPath, const std::string& modelPath) const {
        try {
            service().refresh(providerPath.empty() ? "" : server.url(providerPath), modelPath.empty() ? "" : server.url(modelPath));
        } catch (const QuotaMetadataRefreshError& e) {
            EXPECT_EQ(service().state().lastErrorDescription, e.what());
            return {e.kind(), e.what()};
        }
        ADD_FAILURE() << "refresh succeeded";
        return {};
    }

    testing::ScratchDirectory directory;
    QuotaSyncConfiguration configuration;
    LoopbackHttpServer server;
};

TEST_F(RefreshService, WritesBothCachedCopiesRecordsTheTimesAndReloads) {
    EXPECT_FALSE(QuotaMetadataCatalog::resolvedModel("brand-new-model"));
    const auto result = service().refresh(server.url("/providers.json"), server.url("/models.json"));
    EXPECT_EQ(testing::readFile(directory / QuotaModelMetadataCacheFilename), models);
    EXPECT_EQ(testing::readFile(directory / QuotaProviderMetadataCacheFilename), providers);
    const auto state = service().state();
    EXPECT_EQ(state, result.state);
    EXPECT_EQ(state.updatedAt, testing::at("2026-11-22T08:00:00Z"));
    EXPECT_EQ(state.modelCatalogRefreshedAt, state.updatedAt);
    EXPECT_EQ(state.providerCatalogRefreshedAt, state.updatedAt);
    EXPECT_FALSE(state.lastErrorDescription);
    ASSERT_TRUE(QuotaMetadataCatalog::resolvedModel("Brand New Model"));  // the miss cache was emptied
    EXPECT_EQ(result.models.added, std::vector<std::string>{"brand-new-model"});
    EXPECT_EQ(result.models.count, 1);
    EXPECT_FALSE(result.models.removed.empty());  // the shipped models are gone from the new copy
    EXPECT_EQ(result.providers.changed, std::vector<std::string>{"claude"});

    // file:// addresses work too, and an unchanged document reports no change.
    const auto again = service().refresh("file://" + (directory / QuotaProviderMetadataCacheFilename).string(),
                                         "file://" + (directory / QuotaModelMetadataCacheFilename).string());
    EXPECT_TRUE(again.models.added.empty() && again.models.removed.empty() && again.models.changed.empty());
}

TEST_F(RefreshService, EveryFailureIsRecordedWithItsTextAndWritesNoCopy) {
    EXPECT_EQ(failure("", "/models.json"), std::pair(Kind::missingRemoteURL, std::string("Missing metadata catalog URL.")));
    EXPECT_EQ(failure("/nowhere.json", "/models.json"),
              std::pair(Kind::invalidResponse, "Failed to fetch metadata from " + server.url("/nowhere.json") + "."));
    EXPECT_EQ(failure("/providers.json", "/slow.json").first, Kind::invalidResponse);
    EXPECT_EQ(failure("/models.json", "/models.json"),
              std::pair(Kind::invalidProviderCatalog, std::string("Provider metadata catalog is invalid.")));
    EXPECT_EQ(failure("/providers.json", "/broken.json"),
              std::pair(Kind::invalidModelCatalog, std::string("Model metadata catalog is invalid.")));
    EXPECT_EQ(failure("/providers.json", "/empty.json").first, Kind::invalidModelCatalog);
    EXPECT_FALSE(std::filesystem::exists(directory / QuotaModelMetadataCacheFilename));
    EXPECT_FALSE(std::filesystem::exists(directory / QuotaProviderMetadataCacheFilename));
    EXPECT_FALSE(service().state().updatedAt);

    QuotaSyncConfiguration nowhere = configuration;
    nowhere.appGroupDirectory = "/proc/no-such-dir/group";
    nowhere.appGroupIdentifier = "group.test";
    try {
        QuotaMetadataRefreshService{nowhere}.refresh(server.url("/providers.json"), server.url("/models.json"));
        ADD_FAILURE();
    } catch (const QuotaMetadataRefreshError& e) {
        EXPECT_EQ(std::string(e.what()), "Missing App Group container for group.test.");
    }
}

TEST_F(RefreshService, RunsWhenDueByTheSettings) {
    auto settings = service().settings();
    EXPECT_EQ(settings, QuotaMetadataRefreshSettings{});
    EXPECT_FALSE(service().refreshIfDue());  // disabled, no addresses
    settings = {true, server.url("/providers.json"), server.url("/models.json"), 6};
    settings.save(*configuration.userDefaults);
    EXPECT_EQ(service().settings(), settings);
    EXPECT_TRUE(service().refreshIfDue());
    const int requests = server.requests();
    EXPECT_FALSE(service().refreshIfDue());  // refreshed moments ago
    configuration.clock = Clock::fixedAt(testing::at("2026-11-22T14:00:00Z"));
    EXPECT_TRUE(service().refreshIfDue());
    EXPECT_EQ(server.requests(), requests + 2);
}

}  // namespace
}  // namespace gaugepoint
