#include "gaugepoint/model/QuotaFormatting.hpp"

#include <cmath>
#include <cstdio>

#include "gaugepoint/platform/Text.hpp"

namespace gaugepoint::QuotaFormatting {
namespace {

// Whole-number text of an integral double, without overflow for huge values.
std::string wholeNumber(double value) {
    char buffer[400];
    std::snprintf(buffer, sizeof buffer, "%.0f", value);
    return buffer;
}

std::string formatted(const char* format, double value) {
    char buffer[400];
    std::snprintf(buffer, sizeof buffer, format, value);
    return buffer;
}

bool isIntegral(double value) { return value == std::trunc(value); }

struct RelativeUnit {
    double count;
    const char* standardEnglish;
    const char* compactEnglish;
    const char* standardChinese;
    const char* compactChinese;
};

RelativeUnit relativeUnit(double seconds) {
    if (seconds < 3600) return {std::fmax(1, std::ceil(seconds / 60)), " min", "m", " 分钟后刷新", " 分钟后"};
    if (seconds < 172800) return {std::fmax(1, std::ceil(seconds / 3600)), "h", "h", " 小时后刷新", " 小时后"};
    return {std::fmax(1, std::ceil(seconds / 86400)), "d", "d", " 天后刷新", " 天后"};
}

}  // namespace

std::string percent(double value) {
    if (isIntegral(value)) return wholeNumber(value == 0 ? 0.0 : value) + "%";
    return formatted("%.1f%%", value);
}

std::string windowLabel(std::optional<std::int64_t> minutes) {
    if (!minutes) return "-";
    const std::int64_t m = *minutes;
    if (m % 10080 == 0) return std::to_string(m / 10080) + "w";
    if (m % 1440 == 0) return std::to_string(m / 1440) + "d";
    if (m % 60 == 0) return std::to_string(m / 60) + "h";
    return std::to_string(m) + "m";
}

std::string resetRelativeText(std::optional<Date> resetsAt, Date relativeTo, std::string_view language,
                              ResetRelativeStyle style) {
    if (!resetsAt) return "-";
    const double seconds = (*resetsAt - relativeTo).count();
    if (std::isnan(seconds)) return "-";
    const bool chinese = isChineseLanguage(language);
    if (seconds <= 0) return chinese ? "已刷新" : "refreshed";
    const RelativeUnit unit = relativeUnit(seconds);
    const std::string n = wholeNumber(unit.count);
    if (style == ResetRelativeStyle::standard) {
        return chinese ? n + unit.standardChinese : "refresh in " + n + unit.standardEnglish;
    }
    return chinese ? n + unit.compactChinese : "in " + n + unit.compactEnglish;
}

std::string resetSummaryText(std::optional<Date> resetsAt, Date relativeTo, std::string_view language,
                             ResetRelativeStyle relative, ResetAbsoluteStyle absolute) {
    const std::string relativeText = resetRelativeText(resetsAt, relativeTo, language, relative);
    if (relativeText == "-" || absolute == ResetAbsoluteStyle::none) return relativeText;
    const std::string absoluteText =
        absolute == ResetAbsoluteStyle::timeOnly ? resetTime(resetsAt) : resetDateTime(resetsAt);
    if (absoluteText.empty() || absoluteText == "-") return relativeText;
    return relativeText + " · " + absoluteText;
}

std::optional<std::string> credits(std::optional<double> value, std::string_view language) {
    if (!value) return std::nullopt;
    const bool chinese = isChineseLanguage(language);
    if (isIntegral(*value)) return (chinese ? "积分 " : "Credits ") + wholeNumber(*value == 0 ? 0.0 : *value);
    return formatted(chinese ? "积分 %.2f" : "Credits %.2f", *value);
}

std::optional<std::string> compactCurrency(std::optional<double> value, std::string_view currencyCode) {
    if (!value || !(*value > 0)) return std::nullopt;
    const std::string code = uppercased(currencyCode);
    std::string prefix;
    if (code == "USD") prefix = "$";
    else if (code == "EUR") prefix = "€";
    else if (code == "GBP") prefix = "£";
    else if (code == "JPY" || code == "CNY") prefix = "¥";
    else if (code == "KRW") prefix = "₩";
    else if (code == "INR") prefix = "₹";
    else prefix = code + " ";
    return prefix + wholeNumber(std::round(*value));
}

std::optional<std::string> balance(std::optional<double> value, std::string_view currencyCode,
                                   std::string_view language) {
    const auto amount = currency(value, currencyCode);
    if (!amount) return std::nullopt;
    return (isChineseLanguage(language) ? "余额 " : "Balance ") + *amount;
}

std::optional<std::string> balance(std::optional<double> value, std::string_view currencyCode,
                                   std::string_view language, std::string_view localeID) {
    const auto amount = currency(value, currencyCode, localeID);
    if (!amount) return std::nullopt;
    return (isChineseLanguage(language) ? "余额 " : "Balance ") + *amount;
}

std::optional<double> convertedAmount(std::optional<double> amount, std::string_view fromCurrency,
                                      std::string_view toCurrency, const std::map<std::string, double>& ratesToUSD) {
    if (!amount) return std::nullopt;
    const auto rate = [&](const std::string& code) {
        if (code == "USD" || ratesToUSD.empty()) return 1.0;
        const auto found = ratesToUSD.find(code);
        return found == ratesToUSD.end() ? 1.0 : found->second;
    };
    const double fromRate = rate(uppercased(fromCurrency));
    const double toRate = rate(uppercased(toCurrency));
    if (toRate <= 0) return std::nullopt;
    return *amount * fromRate / toRate;
}

}  // namespace gaugepoint::QuotaFormatting
