#include "gaugepoint/platform/UserDefaults.hpp"

#include <cstdlib>

namespace gaugepoint {

bool UserDefaults::boolValue(std::string_view key) const {
    const auto stored = value(key);
    return stored && stored->is_bool() && stored->get_bool();
}

std::optional<boost::json::value> InMemoryUserDefaults::value(std::string_view key) const { return values_.value(key); }

void InMemoryUserDefaults::setValue(std::string_view key, const boost::json::value& value) { values_.update(key, value); }

void InMemoryUserDefaults::removeValue(std::string_view key) { values_.update(key, std::nullopt); }

std::filesystem::path FileUserDefaults::standardLocation() {
    const char* configHome = std::getenv("XDG_CONFIG_HOME");
    const char* home = std::getenv("HOME");
    std::filesystem::path base = configHome && *configHome ? std::filesystem::path(configHome)
                                                           : std::filesystem::path(home ? home : "/") / ".config";
    return base / "gaugepoint" / "defaults.json";
}

std::optional<boost::json::value> FileUserDefaults::value(std::string_view key) const { return file_.value(key); }

void FileUserDefaults::setValue(std::string_view key, const boost::json::value& value) { file_.update(key, value); }

void FileUserDefaults::removeValue(std::string_view key) { file_.update(key, std::nullopt); }

}  // namespace gaugepoint
