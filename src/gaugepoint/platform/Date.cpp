#include "gaugepoint/platform/Date.hpp"

#include <cmath>
#include <cstdint>
#include <cstdio>

namespace gaugepoint {
namespace {

using namespace std::chrono;

constexpr double kMinSeconds = -62167219200.0;  // 0000-01-01T00:00:00Z
constexpr double kMaxSeconds = 253402300799.0;  // 9999-12-31T23:59:59Z

struct Civil {
    int year, month, day, hour, minute, second;
};

Civil civilFromSeconds(std::int64_t seconds) {
    const auto days = sys_days{} + std::chrono::days{static_cast<long>(std::floor(seconds / 86400.0))};
    const std::int64_t secondOfDay = seconds - std::int64_t(days.time_since_epoch().count()) * 86400;
    const year_month_day ymd{days};
    return {int(ymd.year()), int(unsigned(ymd.month())), int(unsigned(ymd.day())),
            int(secondOfDay / 3600), int(secondOfDay / 60 % 60), int(secondOfDay % 60)};
}

// Writes `value` as exactly `width` decimal digits (it fits: callers clamp it) and returns the end.
char* putDigits(char* out, int value, int width) {
    for (int i = width - 1; i >= 0; --i, value /= 10) out[i] = char('0' + value % 10);
    return out + width;
}

// "YYYY-MM-DDTHH:MM:SS" at `out` (19 bytes); returns the end. Years are 0 to 9999 (clamped).
char* putCivil(char* out, const Civil& c) {
    out = putDigits(out, c.year, 4);
    *out++ = '-';
    out = putDigits(out, c.month, 2);
    *out++ = '-';
    out = putDigits(out, c.day, 2);
    *out++ = 'T';
    out = putDigits(out, c.hour, 2);
    *out++ = ':';
    out = putDigits(out, c.minute, 2);
    *out++ = ':';
    return putDigits(out, c.second, 2);
}

double clampSeconds(double s) { return std::isnan(s) ? 0.0 : std::fmin(std::fmax(s, kMinSeconds), kMaxSeconds); }

// Reads exactly `width` decimal digits at `pos`.
std::optional<int> digits(std::string_view text, std::size_t& pos, int width) {
    if (pos + width > text.size()) return std::nullopt;
    int value = 0;
    for (int i = 0; i < width; ++i) {
        const char c = text[pos + i];
        if (c < '0' || c > '9') return std::nullopt;
        value = value * 10 + (c - '0');
    }
    pos += width;
    return value;
}

bool expect(std::string_view text, std::size_t& pos, char c) {
    if (pos < text.size() && text[pos] == c) {
        ++pos;
        return true;
    }
    return false;
}

// Seconds east of UTC from "Z", "+HH:MM" or "+HHMM"; nothing when malformed.
std::optional<int> parseOffset(std::string_view text, std::size_t& pos) {
    if (pos >= text.size()) return std::nullopt;
    const char sign = text[pos++];
    if (sign == 'Z' || sign == 'z') return 0;
    if (sign != '+' && sign != '-') return std::nullopt;
    const auto hours = digits(text, pos, 2);
    expect(text, pos, ':');
    const auto minutes = digits(text, pos, 2);
    if (!hours || !minutes || *hours > 23 || *minutes > 59) return std::nullopt;
    const int offset = *hours * 3600 + *minutes * 60;
    return sign == '+' ? offset : -offset;
}

}  // namespace

std::string formatInternetDateTime(Date date) {
    const auto seconds = static_cast<std::int64_t>(std::floor(clampSeconds(secondsSince1970(date))));
    char buffer[24];
    char* end = putCivil(buffer, civilFromSeconds(seconds));
    *end++ = 'Z';
    return std::string(buffer, end);
}

// Formatted in place, with one allocation: every date of every JSON document goes through here.
std::string formatISO8601(Date date) {
    const double total = clampSeconds(secondsSince1970(date));
    auto whole = static_cast<std::int64_t>(std::floor(total));
    auto micros = static_cast<std::int64_t>(std::llround((total - double(whole)) * 1e6));
    if (micros >= 1000000) {
        whole += 1;
        micros -= 1000000;
    }
    char buffer[32];
    char* end = putCivil(buffer, civilFromSeconds(whole));
    if (micros > 0) {
        int width = 6;  // microseconds, trailing zeros dropped
        for (; micros % 10 == 0; micros /= 10) --width;
        *end++ = '.';
        end = putDigits(end, int(micros), width);
    }
    *end++ = 'Z';
    return std::string(buffer, end);
}

std::string formatISO8601Milliseconds(Date date) {
    const std::int64_t millis = millisecondsSince1970(dateFromSeconds(clampSeconds(secondsSince1970(date))));
    const std::int64_t whole = millis >= 0 ? millis / 1000 : -((-millis + 999) / 1000);
    char buffer[32];
    char* end = putCivil(buffer, civilFromSeconds(whole));
    *end++ = '.';
    end = putDigits(end, int(millis - whole * 1000), 3);
    *end++ = 'Z';
    return std::string(buffer, end);
}

std::optional<std::int64_t> dayNumber(std::string_view dayKey) {
    std::size_t pos = 0;
    const auto y = digits(dayKey, pos, 4);
    if (!y || !expect(dayKey, pos, '-')) return std::nullopt;
    const auto m = digits(dayKey, pos, 2);
    if (!m || !expect(dayKey, pos, '-')) return std::nullopt;
    const auto d = digits(dayKey, pos, 2);
    if (!d || pos != dayKey.size()) return std::nullopt;
    const year_month_day ymd{year{*y}, month{unsigned(*m)}, day{unsigned(*d)}};
    if (!ymd.ok()) return std::nullopt;
    return sys_days{ymd}.time_since_epoch().count();
}

std::string dayKeyOfNumber(std::int64_t dayNumber) {
    const year_month_day ymd{sys_days{std::chrono::days{dayNumber}}};
    char buffer[16];
    std::snprintf(buffer, sizeof buffer, "%04d-%02u-%02u", int(ymd.year()), unsigned(ymd.month()), unsigned(ymd.day()));
    return buffer;
}

int weekdayOfNumber(std::int64_t dayNumber) {
    return int(weekday{sys_days{std::chrono::days{dayNumber}}}.c_encoding());
}

std::optional<Date> parseISO8601(std::string_view text) {
    std::size_t pos = 0;
    const auto y = digits(text, pos, 4);
    if (!y || !expect(text, pos, '-')) return std::nullopt;
    const auto mo = digits(text, pos, 2);
    if (!mo || !expect(text, pos, '-')) return std::nullopt;
    const auto d = digits(text, pos, 2);
    if (!d || !(expect(text, pos, 'T') || expect(text, pos, 't'))) return std::nullopt;
    const auto h = digits(text, pos, 2);
    if (!h || !expect(text, pos, ':')) return std::nullopt;
    const auto mi = digits(text, pos, 2);
    if (!mi || !expect(text, pos, ':')) return std::nullopt;
    const auto s = digits(text, pos, 2);
    if (!s) return std::nullopt;

    double fraction = 0;
    if (expect(text, pos, '.') || expect(text, pos, ',')) {
        double scale = 0.1;
        const std::size_t start = pos;
        while (pos < text.size() && text[pos] >= '0' && text[pos] <= '9') {
            fraction += (text[pos++] - '0') * scale;
            scale /= 10;
        }
        if (pos == start) return std::nullopt;
    }
    const auto offset = parseOffset(text, pos);
    if (!offset || pos != text.size()) return std::nullopt;

    const year_month_day ymd{year{*y}, month{unsigned(*mo)}, day{unsigned(*d)}};
    if (!ymd.ok() || *h > 23 || *mi > 59 || *s > 59) return std::nullopt;
    const auto days = sys_days{ymd}.time_since_epoch().count();
    const double seconds = double(days) * 86400.0 + *h * 3600.0 + *mi * 60.0 + *s - *offset;
    return dateFromSeconds(seconds + fraction);
}

std::int64_t millisecondsSince1970(Date date) {
    const double millis = secondsSince1970(date) * 1000.0;
    if (std::isnan(millis)) return 0;
    // ±2^63 as doubles; llround is defined only inside that range.
    if (millis >= 9223372036854775808.0) return INT64_MAX;
    if (millis <= -9223372036854775808.0) return INT64_MIN;
    return std::llround(millis);
}

}  // namespace gaugepoint
