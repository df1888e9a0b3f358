#pragma once

// The texts widgets show for percents, window lengths, reset times, credits and money, in
// English or Chinese (Chinese when the language code begins with "zh"). Every function is pure
// apart from the lazy creation of three shared ICU formatters per locale (time, date-time,
// currency), which are built once and safe to use from several threads.

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "gaugepoint/model/ProviderQuota.hpp"
#include "gaugepoint/model/QuotaLanguagePreference.hpp"
#include "gaugepoint/model/QuotaSnapshot.hpp"
#include "gaugepoint/model/QuotaWindow.hpp"
#include "gaugepoint/platform/Date.hpp"

namespace gaugepoint::QuotaFormatting {

enum class ResetRelativeStyle { standard, compact };     // "refresh in 2h" / "in 2h"
enum class ResetAbsoluteStyle { none, timeOnly, dateTime };  // no clock / "14:30" / "11/21, 2:30 PM"

// "42%" for an integral value, else one decimal: "42.4%", "100.0%" for 99.95.
std::string percent(double value);

// "-" for none; else weeks "w", days "d", hours "h" or minutes "m", the largest unit that divides.
std::string windowLabel(std::optional<std::int64_t> minutes);

// "refresh in 5 min" / "in 5m" / "refreshed" and the Chinese forms; "-" for none. Counts round up.
std::string resetRelativeText(std::optional<Date> resetsAt, Date relativeTo, std::string_view language,
                              ResetRelativeStyle style = ResetRelativeStyle::standard);

// The relative text, then " · " and the clock time or date-time unless `absolute` is none.
std::string resetSummaryText(std::optional<Date> resetsAt, Date relativeTo, std::string_view language,
                             ResetRelativeStyle relative, ResetAbsoluteStyle absolute);

// The clock time ("HH:mm") and the locale's month-day-hour-minute form, in the user's locale and
// time zone, or in the locale named by `localeID` ("en_US", "zh_Hans_CN"); "-" for none.
std::string resetTime(std::optional<Date> date);
std::string resetTime(std::optional<Date> date, std::string_view localeID);
std::string resetDateTime(std::optional<Date> date);
std::string resetDateTime(std::optional<Date> date, std::string_view localeID);

// "Credits 12" / "Credits 12.50" / "积分 12.50"; none for none.
std::optional<std::string> credits(std::optional<double> value, std::string_view language);

// The amount in the locale's currency format with at most 2 fraction digits ("$1,234.50");
// none for none or when the currency code cannot be used.
std::optional<std::string> currency(std::optional<double> value, std::string_view currencyCode);
std::optional<std::string> currency(std::optional<double> value, std::string_view currencyCode,
                                    std::string_view localeID);

// The narrow form of small widgets: symbol and whole units, "$13", "€1234", "CHF 7"; none for
// none, zero and negative amounts.
std::optional<std::string> compactCurrency(std::optional<double> value, std::string_view currencyCode);

// "Balance $12.50" / "余额 $12.50"; none when the amount cannot be formatted.
std::optional<std::string> balance(std::optional<double> value, std::string_view currencyCode,
                                   std::string_view language);
std::optional<std::string> balance(std::optional<double> value, std::string_view currencyCode,
                                   std::string_view language, std::string_view localeID);

// amount x fromRate / toRate, rates being US dollars per unit (code -> rate). A missing rate, an
// empty table or "USD" counts as 1; a to-rate <= 0 gives none.
std::optional<double> convertedAmount(std::optional<double> amount, std::string_view fromCurrency,
                                      std::string_view toCurrency, const std::map<std::string, double>& ratesToUSD);

}  // namespace gaugepoint::QuotaFormatting
