#include "gaugepoint/quota/QuotaReadingText.hpp"

#include <array>
#include <cmath>
#include <cstdio>
#include <ctime>

#include "gaugepoint/model/QuotaFormatting.hpp"
#include "gaugepoint/model/QuotaLanguagePreference.hpp"

namespace gaugepoint::QuotaReadingText {
namespace {

std::tm localTime(Date date) {
    const std::time_t seconds = std::time_t(std::floor(secondsSince1970(date)));
    std::tm local{};
    ::localtime_r(&seconds, &local);
    return local;
}

std::string clock(const std::tm& local) {
    char text[8];
    std::snprintf(text, sizeof text, "%02d:%02d", local.tm_hour, local.tm_min);
    return text;
}

// A span for people: minutes under an hour, hours under a day and a half, else days (rounded).
std::string span(double seconds, std::string_view language) {
    const bool zh = isChineseLanguage(language);
    if (seconds < 3600) {
        const long minutes = std::max(1L, std::lround(seconds / 60));
        return std::to_string(minutes) + (zh ? " 分钟" : " min");
    }
    if (seconds < 36 * 3600) return std::to_string(std::lround(seconds / 3600)) + (zh ? " 小时" : " h");
    const long days = std::lround(seconds / 86400);
    return std::to_string(days) + (zh ? " 天" : days == 1 ? " day" : " days");
}

std::string roundedPercent(double value) { return std::to_string(std::lround(std::fabs(value))) + "%"; }

}  // namespace

std::string ago(double seconds, std::string_view language) {
    return span(std::max(0.0, seconds), language) + (isChineseLanguage(language) ? "前" : " ago");
}

std::string asOf(double seconds, std::string_view language) {
    return (isChineseLanguage(language) ? "截至 " : "as of ") + ago(seconds, language);
}

std::string clockTime(Date date) { return clock(localTime(date)); }

std::string weekdayTime(Date date, std::string_view language) {
    static constexpr std::array<const char*, 7> kEnglish{"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    static constexpr std::array<const char*, 7> kChinese{"周日", "周一", "周二", "周三", "周四", "周五", "周六"};
    const std::tm local = localTime(date);
    const auto& names = isChineseLanguage(language) ? kChinese : kEnglish;
    return std::string(names[std::size_t(local.tm_wday) % 7]) + " " + clock(local);
}

std::string resetPassed(Date resetAt, Date now, std::string_view language) {
    const std::tm reset = localTime(resetAt);
    const std::tm today = localTime(now);
    const bool sameDay = reset.tm_year == today.tm_year && reset.tm_yday == today.tm_yday;
    const bool thisWeek = secondsSince1970(now) - secondsSince1970(resetAt) < 6 * 86400;
    const std::string when = sameDay    ? clock(reset)
                             : thisWeek ? weekdayTime(resetAt, language)
                                        : QuotaFormatting::resetDateTime(resetAt);
    if (isChineseLanguage(language)) return "已于 " + when + " 重置，此后无读数";
    return "reset at " + when + ", no reading since";
}

std::optional<std::string> paceSummary(const QuotaWindowNow& window, std::string_view language) {
    const bool zh = isChineseLanguage(language);
    if (window.paceStatus == QuotaPaceStatus::tooEarly) return zh ? "暂无节奏" : "no pace yet";
    if (!window.pace) return std::nullopt;
    const double delta = window.pace->deltaPercent;
    if (std::lround(delta) == 0) return zh ? "节奏均匀" : "on pace";
    if (delta > 0) return zh ? "比均速快 " + roundedPercent(delta) : roundedPercent(delta) + " ahead";
    return zh ? "比均速慢 " + roundedPercent(delta) : roundedPercent(delta) + " behind";
}

std::optional<std::string> runsOut(const QuotaWindowNow& window, std::string_view language) {
    if (!window.pace || !window.pace->runsOutAt || !window.window.resetsAt) return std::nullopt;
    const Date at = *window.pace->runsOutAt;
    const std::string lead = span(secondsSince1970(*window.window.resetsAt) - secondsSince1970(at), language);
    if (isChineseLanguage(language)) return "约 " + weekdayTime(at, language) + " 用完，比重置早 " + lead;
    return "runs out ~" + weekdayTime(at, language) + ", " + lead + " before reset";
}

std::optional<std::string> paceText(const QuotaWindowNow& window, std::string_view language) {
    auto summary = paceSummary(window, language);
    const auto out = runsOut(window, language);
    if (summary && out) return *summary + " · " + *out;
    return summary ? summary : out;
}

}  // namespace gaugepoint::QuotaReadingText
