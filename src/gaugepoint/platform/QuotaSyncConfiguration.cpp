#include "gaugepoint/platform/QuotaSyncConfiguration.hpp"

#include <cstdlib>

namespace gaugepoint {
namespace {

std::optional<std::filesystem::path> environmentPath(const char* name) {
    const char* value = std::getenv(name);
    if (!value || !*value) return std::nullopt;
    return std::filesystem::path(value);
}

std::optional<std::filesystem::path> platformDefault(const std::string& identifier) {
    const auto home = environmentPath("HOME");
#if defined(__APPLE__)
    if (!home) return std::nullopt;
    return *home / "Library" / "Group Containers" / identifier;
#else
    (void)identifier;
    if (const auto dataHome = environmentPath("XDG_DATA_HOME")) return *dataHome / "gaugepoint";
    if (!home) return std::nullopt;
    return *home / ".local" / "share" / "gaugepoint";
#endif
}

}  // namespace

QuotaSyncConfiguration QuotaSyncConfiguration::standard() {
    QuotaSyncConfiguration configuration;
    configuration.ubiquityDirectory = environmentPath("GAUGEPOINT_UBIQUITY_DIR");
    configuration.userDefaults = std::make_shared<FileUserDefaults>(FileUserDefaults::standardLocation());
    return configuration;
}

std::optional<std::filesystem::path> QuotaSyncConfiguration::resolvedAppGroupDirectory() const {
    std::optional<std::filesystem::path> directory = appGroupDirectory;
    if (!directory || directory->empty()) directory = environmentPath("GAUGEPOINT_APP_GROUP_DIR");
    if (!directory) directory = platformDefault(appGroupIdentifier);
    if (!directory) return std::nullopt;
    std::error_code error;
    std::filesystem::create_directories(*directory, error);
    if (error || !std::filesystem::is_directory(*directory, error)) return std::nullopt;
    return directory;
}

std::shared_ptr<UbiquitousKeyValueStore> QuotaSyncConfiguration::resolvedUbiquitousKeyValueStore() const {
    if (ubiquitousKeyValueStore) return ubiquitousKeyValueStore;
    const auto directory = resolvedAppGroupDirectory();
    if (!directory) return nullptr;
    return std::make_shared<FileUbiquitousKeyValueStore>(*directory / FileUbiquitousKeyValueStore::defaultFilename);
}

}  // namespace gaugepoint
