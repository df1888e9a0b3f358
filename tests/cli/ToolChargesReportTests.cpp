#include <gtest/gtest.h>

#include <cstdlib>

#include "CommandRunner.hpp"
#include "gaugepoint/platform/Json.hpp"

namespace gaugepoint {
namespace {

using testing::gaugepoint;

// The sample's Copilot and Amp charges (scripts/make-sample-logs): premium requests 1 + 1.5 + 1
// + 1, AIU 2.5 + 1.5 + 0.75 + 1.2 + 0.3 + 0.8, credits 1.5 + 1.5 + 2.
TEST(ToolChargesReport, ChargesStandApartFromTheCostInJsonAndText) {
    testing::ScratchDirectory dir;
    ::setenv("XDG_CONFIG_HOME", (dir / "config").c_str(), 1);
    ::setenv("XDG_DATA_HOME", (dir / "data").c_str(), 1);
    const std::string logs = testing::testData("logs").string();
    const std::vector<std::string> common{"--app-group-dir", (dir / "group").string(), "--timezone", "UTC"};
    auto scan = common;
    for (const char* tool : {"copilot", "amp", "pi"}) scan.insert(scan.end(), {std::string("--") + tool + "-dir", logs + "/" + tool});
    auto json = scan;
    json.insert(json.begin(), {"report", "monthly", "--json"});
    const auto result = gaugepoint(json);
    ASSERT_EQ(result.exitCode, 0) << result.err;
    const auto doc = json::parse(result.out);
    const auto& totals = doc.at("totals").at("charges");
    EXPECT_NEAR(totals.at("premiumRequests").to_number<double>(), 4.5, 1e-9);
    EXPECT_NEAR(totals.at("aiu").to_number<double>(), 7.05, 1e-9);
    EXPECT_NEAR(totals.at("credits").to_number<double>(), 5, 1e-9);
    // Token prices only: 5 credits or 4.5 premium requests taken for dollars would pass $1.
    EXPECT_LT(doc.at("totals").at("totalCost").as_double(), 1.0);

    // pi charges nothing: its rows have no charges object.
    auto pi = common;
    pi.insert(pi.begin(), {"report", "daily", "--no-scan", "--provider", "pi", "--json"});
    const auto piDoc = json::parse(gaugepoint(pi).out);
    EXPECT_FALSE(piDoc.at("daily").as_array().at(0).as_object().contains("charges"));
    EXPECT_FALSE(piDoc.at("totals").as_object().contains("charges"));

    auto text = common;
    text.insert(text.begin(), {"report", "monthly", "--no-scan"});
    EXPECT_NE(gaugepoint(text).out.find("\nCharged in the tools' own units, not in the costs: 4.5 premium requests, "
                                        "7.05 AIU, 5 credits\n"),
              std::string::npos);
    pi.pop_back();
    EXPECT_EQ(gaugepoint(pi).out.find("Charged"), std::string::npos);
}

}  // namespace
}  // namespace gaugepoint
