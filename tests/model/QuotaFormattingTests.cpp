#include <gtest/gtest.h>

#include <thread>

#include "TestSupport.hpp"
#include "gaugepoint/model/QuotaFormatting.hpp"

namespace gaugepoint {
namespace {

namespace F = QuotaFormatting;
using F::ResetAbsoluteStyle;
using F::ResetRelativeStyle;
using testing::at;

TEST(QuotaFormatting, Percent) {
    EXPECT_EQ(F::percent(42), "42%");
    EXPECT_EQ(F::percent(42.375), "42.4%");
    EXPECT_EQ(F::percent(100), "100%");
    EXPECT_EQ(F::percent(99.95), "100.0%");
    EXPECT_EQ(F::percent(-3), "-3%");
    EXPECT_EQ(F::percent(-0.0), "0%");
    EXPECT_EQ(F::percent(1e20), "100000000000000000000%");
}

TEST(QuotaFormatting, WindowLabel) {
    EXPECT_EQ(F::windowLabel(std::nullopt), "-");
    EXPECT_EQ(F::windowLabel(0), "0w");
    EXPECT_EQ(F::windowLabel(300), "5h");
    EXPECT_EQ(F::windowLabel(43200), "30d");
    EXPECT_EQ(F::windowLabel(59), "59m");
    EXPECT_EQ(F::windowLabel(-60), "-1h");
}

struct RelativeCase {
    double seconds;
    const char* standard;
    const char* compact;
    const char* chineseStandard;
    const char* chineseCompact;
};

TEST(QuotaFormatting, RelativeResetRoundsUpInEachUnit) {
    const Date now = at("2026-11-21T12:00:00Z");
    const RelativeCase cases[] = {
        {-5, "refreshed", "refreshed", "已刷新", "已刷新"},
        {0, "refreshed", "refreshed", "已刷新", "已刷新"},
        {1, "refresh in 1 min", "in 1m", "1 分钟后刷新", "1 分钟后"},
        {61, "refresh in 2 min", "in 2m", "2 分钟后刷新", "2 分钟后"},
        {3570, "refresh in 60 min", "in 60m", "60 分钟后刷新", "60 分钟后"},
        {3600, "refresh in 1h", "in 1h", "1 小时后刷新", "1 小时后"},
        {3601, "refresh in 2h", "in 2h", "2 小时后刷新", "2 小时后"},
        {10800, "refresh in 3h", "in 3h", "3 小时后刷新", "3 小时后"},
        {47 * 3600, "refresh in 47h", "in 47h", "47 小时后刷新", "47 小时后"},
        {172799, "refresh in 48h", "in 48h", "48 小时后刷新", "48 小时后"},
        {172800, "refresh in 2d", "in 2d", "2 天后刷新", "2 天后"},
        {172801, "refresh in 3d", "in 3d", "3 天后刷新", "3 天后"},
    };
    for (const auto& c : cases) {
        const Date reset = now + std::chrono::duration<double>(c.seconds);
        EXPECT_EQ(F::resetRelativeText(reset, now, "en", ResetRelativeStyle::standard), c.standard) << c.seconds;
        EXPECT_EQ(F::resetRelativeText(reset, now, "en-US", ResetRelativeStyle::compact), c.compact) << c.seconds;
        EXPECT_EQ(F::resetRelativeText(reset, now, "zh-Hans", ResetRelativeStyle::standard), c.chineseStandard);
        EXPECT_EQ(F::resetRelativeText(reset, now, "zh-Hans", ResetRelativeStyle::compact), c.chineseCompact);
    }
    EXPECT_EQ(F::resetRelativeText(std::nullopt, now, "zh", ResetRelativeStyle::compact), "-");
}

TEST(QuotaFormatting, SummaryAddsTheClockTimeUnlessThereIsNone) {
    const Date now = at("2026-11-21T13:00:00Z");  // tests run with TZ=UTC
    const Date reset = at("2026-11-21T14:30:00Z");
    EXPECT_EQ(F::resetSummaryText(reset, now, "en", ResetRelativeStyle::standard, ResetAbsoluteStyle::timeOnly),
              "refresh in 2h · 14:30");
    EXPECT_EQ(F::resetSummaryText(reset, now, "zh", ResetRelativeStyle::compact, ResetAbsoluteStyle::none),
              "2 小时后");
    EXPECT_EQ(F::resetSummaryText(std::nullopt, now, "en", ResetRelativeStyle::standard, ResetAbsoluteStyle::dateTime), "-");
    const std::string withDate =
        F::resetSummaryText(reset, now, "en", ResetRelativeStyle::compact, ResetAbsoluteStyle::dateTime);
    EXPECT_EQ(withDate, "in 2h · " + F::resetDateTime(reset));
}

TEST(QuotaFormatting, ClockTextsFollowTheLocale) {
    const Date date = at("2026-11-21T14:30:00Z");
    EXPECT_EQ(F::resetTime(date, "en_US"), "14:30");
    EXPECT_EQ(F::resetTime(date, "ar_EG"), "١٤:٣٠");  // the locale's own digits
    EXPECT_EQ(F::resetDateTime(date, "en_US"), "11/21, 2:30\u202fPM");
    EXPECT_EQ(F::resetDateTime(date, "en_GB"), "21/11, 14:30");
    EXPECT_EQ(F::resetDateTime(date, "zh_Hans_CN"), "11/21 14:30");
    EXPECT_EQ(F::resetDateTime(std::nullopt, "en_US"), "-");
    EXPECT_EQ(F::resetTime(std::nullopt), "-");
}

TEST(QuotaFormatting, Credits) {
    EXPECT_EQ(F::credits(12, "en"), "Credits 12");
    EXPECT_EQ(F::credits(12.5, "en"), "Credits 12.50");
    EXPECT_EQ(F::credits(12.5, "zh-Hans"), "积分 12.50");
    EXPECT_EQ(F::credits(0.004, "en"), "Credits 0.00");
    EXPECT_EQ(F::credits(std::nullopt, "en"), std::nullopt);
}

TEST(QuotaFormatting, CurrencyAndBalanceUseTheLocaleFormat) {
    EXPECT_EQ(F::currency(1234.5, "USD", "en_US"), "$1,234.50");
    EXPECT_EQ(F::currency(1234.567, "usd", "en_US"), "$1,234.57");
    EXPECT_EQ(F::currency(12, "EUR", "de_DE"), "12,00\u00a0€");
    EXPECT_EQ(F::balance(12.5, "USD", "en", "en_US"), "Balance $12.50");
    EXPECT_EQ(F::balance(12.5, "USD", "zh-Hans", "en_US"), "余额 $12.50");
    EXPECT_EQ(F::currency(std::nullopt, "USD", "en_US"), std::nullopt);
    EXPECT_EQ(F::currency(1, "dollars", "en_US"), std::nullopt);
    EXPECT_EQ(F::balance(1, "", "en", "en_US"), std::nullopt);
}

TEST(QuotaFormatting, CompactCurrencyRoundsHalfAwayAndHidesNonPositive) {
    EXPECT_EQ(F::compactCurrency(12.5, "USD"), "$13");
    EXPECT_EQ(F::compactCurrency(1234, "EUR"), "€1234");
    EXPECT_EQ(F::compactCurrency(7, "chf"), "CHF 7");
    EXPECT_EQ(F::compactCurrency(0.4, "USD"), "$0");
    EXPECT_EQ(F::compactCurrency(9.5, "jpy"), "¥10");
    EXPECT_EQ(F::compactCurrency(3, "CNY"), "¥3");
    EXPECT_EQ(F::compactCurrency(3, "GBP"), "£3");
    EXPECT_EQ(F::compactCurrency(3, "KRW"), "₩3");
    EXPECT_EQ(F::compactCurrency(3, "INR"), "₹3");
    EXPECT_EQ(F::compactCurrency(0, "USD"), std::nullopt);
    EXPECT_EQ(F::compactCurrency(-5, "USD"), std::nullopt);
    EXPECT_EQ(F::compactCurrency(std::nullopt, "USD"), std::nullopt);
}

TEST(QuotaFormatting, ConvertedAmountChecksOnlyTheToRate) {
    const std::map<std::string, double> rates{{"EUR", 1.1}, {"GBP", 0}, {"XAU", -2}};
    EXPECT_DOUBLE_EQ(*F::convertedAmount(10, "EUR", "USD", rates), 11);
    EXPECT_DOUBLE_EQ(*F::convertedAmount(10, "eur", "CHF", rates), 11);  // missing to-rate counts as 1
    EXPECT_EQ(F::convertedAmount(10, "EUR", "GBP", rates), std::nullopt);
    EXPECT_DOUBLE_EQ(*F::convertedAmount(10, "XAU", "USD", rates), -20);  // a bad from-rate is used as it is
    EXPECT_DOUBLE_EQ(*F::convertedAmount(10, "EUR", "GBP", {}), 10);     // empty table: all rates 1
    EXPECT_DOUBLE_EQ(*F::convertedAmount(11, "USD", "EUR", rates), 10);
    EXPECT_EQ(F::convertedAmount(std::nullopt, "EUR", "USD", rates), std::nullopt);
}

TEST(QuotaFormatting, SharedFormattersAreSafeAcrossThreads) {
    const Date date = at("2026-11-21T14:30:00Z");
    std::vector<std::thread> threads;
    std::atomic<int> wrong{0};
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 300; ++i) {
                if (F::resetTime(date + std::chrono::minutes(t), "en_US") != "14:3" + std::to_string(t)) ++wrong;
                if (F::currency(t, "USD", "en_US") != "$" + std::to_string(t) + ".00") ++wrong;
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(wrong.load(), 0);
}

}  // namespace
}  // namespace gaugepoint
