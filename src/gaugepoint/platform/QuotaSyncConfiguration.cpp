#include "gaugepoint/platform/QuotaSyncConfiguration.hpp"

#include <unistd.h>

#include <cstdlib>

#include "gaugepoint/platform/InputFile.hpp"
#include "gaugepoint/platform/Sha256.hpp"
#include "gaugepoint/platform/Text.hpp"
#include "gaugepoint/platform/Uuid.hpp"

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

std::optional<std::filesystem::path> QuotaSyncConfiguration::intendedAppGroupDirectory() const {
    std::optional<std::filesystem::path> directory = appGroupDirectory;
    if (!directory || directory->empty()) directory = environmentPath("GAUGEPOINT_APP_GROUP_DIR");
    if (!directory) directory = platformDefault(appGroupIdentifier);
    return directory;
}

std::optional<std::filesystem::path> QuotaSyncConfiguration::resolvedAppGroupDirectory() const {
    const std::optional<std::filesystem::path> directory = intendedAppGroupDirectory();
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

namespace {

constexpr std::string_view kLocalSourceKey = "quota.localSourceID";

std::optional<std::string> machineID() {
    for (const char* file : {"/etc/machine-id", "/var/lib/dbus/machine-id"}) {
        try {
            const std::string text{trimmed(readInputFile(file, InputLimit::document("a machine id file")))};
            if (!text.empty()) return text;
        } catch (const Error&) {
        }
    }
    return std::nullopt;
}

}  // namespace

std::string QuotaSyncConfiguration::localSourceID() const {
    if (sourceID && !sourceID->empty()) return *sourceID;
    if (const auto fromEnvironment = environmentPath("GAUGEPOINT_SOURCE_ID")) return fromEnvironment->string();
    if (const auto machine = machineID()) return "machine-" + sha256Hex("gaugepoint:" + *machine).substr(0, 16);
    if (const auto stored = userDefaults->value(kLocalSourceKey); stored && stored->is_string() && !stored->get_string().empty()) {
        return std::string(stored->get_string());
    }
    const std::string made = Uuid::random().lowercaseText();
    try {
        userDefaults->setValue(kLocalSourceKey, boost::json::value(made));
    } catch (const Error&) {
        // Without the defaults the id is new each run; reports still work, per run.
    }
    return made;
}

std::string QuotaSyncConfiguration::hostName() {
    char name[256] = {};
    if (::gethostname(name, sizeof name - 1) != 0) return {};
    return name;
}

std::string QuotaSyncConfiguration::localSourceName() const {
    if (sourceName && !sourceName->empty()) return *sourceName;
    std::string host = hostName();
    host = host.substr(0, host.find('.'));
    return host.empty() ? "This machine" : host;
}

std::optional<std::string> QuotaSyncConfiguration::syncServer() const {
    if (const char* env = std::getenv("GAUGEPOINT_SYNC_URL"); env && *env) return std::string(env);
    const auto stored = userDefaults->value(syncServerKey);
    if (stored && stored->is_string() && !stored->as_string().empty()) return std::string(stored->as_string());
    return std::nullopt;
}

void QuotaSyncConfiguration::setSyncServer(const std::optional<std::string>& connectionString) const {
    if (connectionString) {
        userDefaults->setValue(syncServerKey, boost::json::value(*connectionString));
    } else {
        userDefaults->removeValue(syncServerKey);
    }
}

}  // namespace gaugepoint
