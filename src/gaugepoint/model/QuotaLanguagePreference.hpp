#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace gaugepoint {

// The user's interface-language choice: follow the system, or an explicit language code.
// Texts are Chinese when the resolved code begins with "zh", English otherwise.
struct QuotaLanguagePreference {
    std::optional<std::string> explicitCode;  // empty: follow the system

    static QuotaLanguagePreference system() { return {}; }
    static QuotaLanguagePreference explicitLanguage(std::string code) { return {std::move(code)}; }

    // The explicit code, else the system's (LC_ALL, then LC_MESSAGES, then LANG, as "zh-CN"
    // from "zh_CN.UTF-8"); "en" when none is set or it is "C" / "POSIX".
    std::string resolvedLanguageCode() const;

    bool operator==(const QuotaLanguagePreference&) const = default;
};

// True when texts for `languageCode` are Chinese: the code begins with "zh" (any case).
bool isChineseLanguage(std::string_view languageCode);

}  // namespace gaugepoint
