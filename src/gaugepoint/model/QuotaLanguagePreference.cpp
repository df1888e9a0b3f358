#include "gaugepoint/model/QuotaLanguagePreference.hpp"

#include <cstdlib>

namespace gaugepoint {
namespace {

// "zh_CN.UTF-8@x" -> "zh-CN"; "C" and "POSIX" -> "".
std::string languageFromLocaleName(std::string_view name) {
    name = name.substr(0, name.find_first_of(".@"));
    if (name == "C" || name == "POSIX") return {};
    std::string code{name};
    for (char& c : code) {
        if (c == '_') c = '-';
    }
    return code;
}

}  // namespace

std::string QuotaLanguagePreference::resolvedLanguageCode() const {
    if (explicitCode && !explicitCode->empty()) return *explicitCode;
    for (const char* variable : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        const char* value = std::getenv(variable);
        if (value && *value) {
            std::string code = languageFromLocaleName(value);
            return code.empty() ? "en" : code;
        }
    }
    return "en";
}

bool isChineseLanguage(std::string_view languageCode) {
    return languageCode.size() >= 2 && (languageCode[0] | 0x20) == 'z' && (languageCode[1] | 0x20) == 'h';
}

}  // namespace gaugepoint
