#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "gaugepoint/platform/Clock.hpp"
#include "gaugepoint/platform/UbiquitousKeyValueStore.hpp"
#include "gaugepoint/platform/UserDefaults.hpp"

namespace gaugepoint {

// Where the shared stores live and what they take from their surroundings: the App Group
// directory, the clock, the standard user defaults and the optional ubiquity directory (the
// cloud documents folder that earlier versions kept data in, read once for legacy imports).
struct QuotaSyncConfiguration {
    // The App Group identifier; names the directory on macOS.
    std::string appGroupIdentifier = "group.gaugepoint.shared";
    // An explicit App Group directory; wins over everything else.
    std::optional<std::filesystem::path> appGroupDirectory;
    // Absent: there is nothing to import from earlier versions.
    std::optional<std::filesystem::path> ubiquityDirectory;
    Clock clock;
    std::shared_ptr<UserDefaults> userDefaults = std::make_shared<InMemoryUserDefaults>();
    // The key-value store shared with the user's other machines; absent: the file-backed
    // stand-in FileUbiquitousKeyValueStore::defaultFilename in the App Group directory.
    std::shared_ptr<UbiquitousKeyValueStore> ubiquitousKeyValueStore;
    // This machine as a publishing source; absent: see localSourceID() and localSourceName().
    std::optional<std::string> sourceID;
    std::optional<std::string> sourceName;
    // How long the snapshot history keeps what this machine publishes, in days.
    double historyRetentionDays = 30;

    // The configuration of this user: defaults in FileUserDefaults::standardLocation(), the
    // ubiquity directory from GAUGEPOINT_UBIQUITY_DIR, the system clock.
    static QuotaSyncConfiguration standard();

    // The App Group directory, created when missing: appGroupDirectory, else
    // GAUGEPOINT_APP_GROUP_DIR, else on macOS ~/Library/Group Containers/<appGroupIdentifier>,
    // elsewhere $XDG_DATA_HOME/gaugepoint (default ~/.local/share/gaugepoint). None when it
    // cannot be resolved or created.
    std::optional<std::filesystem::path> resolvedAppGroupDirectory() const;
    // The directory resolvedAppGroupDirectory() would use, without creating it; none when
    // nothing names one (no override, no environment, no home).
    std::optional<std::filesystem::path> intendedAppGroupDirectory() const;

    // ubiquitousKeyValueStore, else the stand-in file in the App Group directory; none when
    // that directory cannot be resolved or created.
    std::shared_ptr<UbiquitousKeyValueStore> resolvedUbiquitousKeyValueStore() const;

    // This machine's source id, stable across runs: sourceID, else GAUGEPOINT_SOURCE_ID, else
    // "machine-" and the first 16 hex digits of the SHA-256 of "gaugepoint:" and the system's
    // machine id (/etc/machine-id; the raw id is never shown), else a UUID kept in the user
    // defaults under "quota.localSourceID". Never the bare host name, which machines share.
    std::string localSourceID() const;
    // sourceName, else the host name without its domain ("workstation"), else "This machine".
    std::string localSourceName() const;
    // The host name as the system reports it; "" when it has none.
    static std::string hostName();

    // The user default that names the sync server (a libpq connection string, never one with
    // a password).
    static constexpr std::string_view syncServerKey = "quota.sync.url";
    // The sync server of this user: GAUGEPOINT_SYNC_URL when set and not empty, else the user
    // default syncServerKey; none: sync is off.
    std::optional<std::string> syncServer() const;
    // Keeps `connectionString` as the sync server, or forgets it (sync off) for none.
    void setSyncServer(const std::optional<std::string>& connectionString) const;
};

}  // namespace gaugepoint
