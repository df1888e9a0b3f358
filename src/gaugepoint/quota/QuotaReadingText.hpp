#pragma once

// The words every face uses for freshness, passed resets and pace, in English or Chinese
// (Chinese when the language code begins with "zh"). Clock times are local ("14:00").

#include <optional>
#include <string>
#include <string_view>

#include "gaugepoint/quota/QuotaReading.hpp"

namespace gaugepoint::QuotaReadingText {

// "12 min ago", "3 h ago", "2 days ago"; Chinese "12 分钟前", "3 小时前", "2 天前".
std::string ago(double seconds, std::string_view language);
// "as of 12 min ago" / "截至 12 分钟前".
std::string asOf(double seconds, std::string_view language);
// "reset at 14:00, no reading since" / "已于 14:00 重置，此后无读数" (a date when not today).
std::string resetPassed(Date resetAt, Date now, std::string_view language);
// "14:00" in the local time zone.
std::string clockTime(Date date);
// "Thu 14:00" / "周四 14:00" in the local time zone.
std::string weekdayTime(Date date, std::string_view language);

// The pace in a few words: "12% ahead", "5% behind", "on pace", "no pace yet"; none when the
// window has no pace at all. "ahead" means used faster than an even burn.
std::optional<std::string> paceSummary(const QuotaWindowNow& window, std::string_view language);
// When the pace runs out before the reset: "runs out ~Thu 14:00, 1 day before reset"; else none.
std::optional<std::string> runsOut(const QuotaWindowNow& window, std::string_view language);
// paceSummary and runsOut joined with " · ", or none.
std::optional<std::string> paceText(const QuotaWindowNow& window, std::string_view language);

}  // namespace gaugepoint::QuotaReadingText
