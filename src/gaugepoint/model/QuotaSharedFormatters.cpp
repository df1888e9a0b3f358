// The three ICU formatters behind QuotaFormatting: the clock time ("HH:mm"), the locale's
// month-day-hour-minute form and the currency format. Each is built once per locale on first
// use and kept; ICU formatters mutate internal state while formatting, so every use holds the
// formatter's lock.

#include <unicode/datefmt.h>
#include <unicode/dtptngen.h>
#include <unicode/numfmt.h>
#include <unicode/smpdtfmt.h>
#include <unicode/unistr.h>

#include <map>
#include <memory>
#include <mutex>

#include "gaugepoint/model/QuotaFormatting.hpp"

namespace gaugepoint::QuotaFormatting {
namespace {

struct LocaleFormatters {
    std::mutex lock;
    icu::Locale locale;
    std::unique_ptr<icu::SimpleDateFormat> time;
    std::unique_ptr<icu::SimpleDateFormat> dateTime;
    std::unique_ptr<icu::NumberFormat> currency;
    bool triedTime = false, triedDateTime = false, triedCurrency = false;
};

// One entry per locale ever asked for; entries are never removed, so references stay valid.
LocaleFormatters& formattersFor(std::string_view localeID) {
    static std::mutex registryLock;
    static std::map<std::string, std::unique_ptr<LocaleFormatters>, std::less<>> registry;
    std::lock_guard guard{registryLock};
    auto found = registry.find(localeID);
    if (found == registry.end()) {
        auto entry = std::make_unique<LocaleFormatters>();
        entry->locale = icu::Locale::createCanonical(std::string(localeID).c_str());
        found = registry.emplace(std::string(localeID), std::move(entry)).first;
    }
    return *found->second;
}

// The user's locale from LC_ALL / LC_MESSAGES / LANG. The C and POSIX locales state no
// preference, so they format as US English rather than ICU's programmer-oriented en_US_POSIX
// ("$ 18.42").
std::string_view defaultLocaleID() {
    const std::string_view id = icu::Locale::getDefault().getName();
    return id == "en_US_POSIX" ? "en_US" : id;
}

std::unique_ptr<icu::SimpleDateFormat> makeTimeFormatter(const icu::Locale& locale) {
    UErrorCode status = U_ZERO_ERROR;
    auto formatter = std::make_unique<icu::SimpleDateFormat>(icu::UnicodeString(u"HH:mm"), locale, status);
    return U_SUCCESS(status) ? std::move(formatter) : nullptr;
}

// The month, day, hour and minute in the locale's own order. The hour follows the locale's clock
// convention (12 or 24 hours), which is what the "Mdhm" template means to a date formatter that
// resolves templates per locale; ICU spells that hour field "j".
std::unique_ptr<icu::SimpleDateFormat> makeDateTimeFormatter(const icu::Locale& locale) {
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::DateTimePatternGenerator> generator{icu::DateTimePatternGenerator::createInstance(locale, status)};
    if (U_FAILURE(status)) return nullptr;
    const icu::UnicodeString pattern = generator->getBestPattern(icu::UnicodeString(u"Mdjm"), status);
    if (U_FAILURE(status)) return nullptr;
    auto formatter = std::make_unique<icu::SimpleDateFormat>(pattern, locale, status);
    return U_SUCCESS(status) ? std::move(formatter) : nullptr;
}

std::unique_ptr<icu::NumberFormat> makeCurrencyFormatter(const icu::Locale& locale) {
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::NumberFormat> formatter{icu::NumberFormat::createCurrencyInstance(locale, status)};
    if (U_FAILURE(status)) return nullptr;
    formatter->setMaximumFractionDigits(2);
    return formatter;
}

std::string formatDate(std::optional<Date> date, std::string_view localeID, bool withDate) {
    if (!date) return "-";
    LocaleFormatters& f = formattersFor(localeID);
    std::lock_guard guard{f.lock};
    auto& formatter = withDate ? f.dateTime : f.time;
    bool& tried = withDate ? f.triedDateTime : f.triedTime;
    if (!tried) {
        tried = true;
        formatter = withDate ? makeDateTimeFormatter(f.locale) : makeTimeFormatter(f.locale);
    }
    if (!formatter) return "-";
    icu::UnicodeString text;
    formatter->format(secondsSince1970(*date) * 1000.0, text);
    std::string out;
    return text.toUTF8String(out);
}

bool isCurrencyCode(std::string_view code) {
    if (code.size() != 3) return false;
    for (char c : code) {
        if (!((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'))) return false;
    }
    return true;
}

}  // namespace

std::string resetTime(std::optional<Date> date) { return formatDate(date, defaultLocaleID(), false); }
std::string resetTime(std::optional<Date> date, std::string_view localeID) { return formatDate(date, localeID, false); }
std::string resetDateTime(std::optional<Date> date) { return formatDate(date, defaultLocaleID(), true); }
std::string resetDateTime(std::optional<Date> date, std::string_view localeID) {
    return formatDate(date, localeID, true);
}

std::optional<std::string> currency(std::optional<double> value, std::string_view currencyCode) {
    return currency(value, currencyCode, defaultLocaleID());
}

std::optional<std::string> currency(std::optional<double> value, std::string_view currencyCode,
                                    std::string_view localeID) {
    if (!value || !isCurrencyCode(currencyCode)) return std::nullopt;
    LocaleFormatters& f = formattersFor(localeID);
    std::lock_guard guard{f.lock};
    if (!f.triedCurrency) {
        f.triedCurrency = true;
        f.currency = makeCurrencyFormatter(f.locale);
    }
    if (!f.currency) return std::nullopt;
    icu::UnicodeString code = icu::UnicodeString::fromUTF8({currencyCode.data(), 3});
    code.toUpper();
    UErrorCode status = U_ZERO_ERROR;
    f.currency->setCurrency(code.getTerminatedBuffer(), status);
    if (U_FAILURE(status)) return std::nullopt;
    icu::UnicodeString text;
    f.currency->format(*value, text);
    std::string out;
    return text.toUTF8String(out);
}

}  // namespace gaugepoint::QuotaFormatting
