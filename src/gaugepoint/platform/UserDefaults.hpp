#pragma once

// Preferences and markers shared by the app and its extensions ("quota.historyStore.migratedFromICloud").

#include <boost/json/value.hpp>

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "gaugepoint/platform/JsonKeyValues.hpp"

namespace gaugepoint {

// A key-value store of JSON values. Implementations are safe to use from several threads.
class UserDefaults {
public:
    virtual ~UserDefaults() = default;
    // The value stored under `key`, or none.
    virtual std::optional<boost::json::value> value(std::string_view key) const = 0;
    // Stores `value` under `key`. Throws gaugepoint::Error when it cannot be kept.
    virtual void setValue(std::string_view key, const boost::json::value& value) = 0;
    // Removes `key`. Throws gaugepoint::Error when the change cannot be kept.
    virtual void removeValue(std::string_view key) = 0;

    // The boolean under `key`; false when absent or not a boolean.
    bool boolValue(std::string_view key) const;
    void setBool(std::string_view key, bool flag) { setValue(key, boost::json::value(flag)); }
};

// Defaults that live as long as the object: for tests and throw-away configurations.
class InMemoryUserDefaults final : public UserDefaults {
public:
    std::optional<boost::json::value> value(std::string_view key) const override;
    void setValue(std::string_view key, const boost::json::value& value) override;
    void removeValue(std::string_view key) override;

private:
    InMemoryJsonValues values_;
};

// Defaults kept in one JSON object file. Every change re-reads the file under an exclusive
// lock on "<file>.lock" and replaces it atomically, so a second process's changes are kept.
// A missing or unreadable file reads as empty.
class FileUserDefaults final : public UserDefaults {
public:
    explicit FileUserDefaults(std::filesystem::path file) : file_(std::move(file)) {}

    // $XDG_CONFIG_HOME/gaugepoint/defaults.json (default ~/.config/gaugepoint/defaults.json).
    static std::filesystem::path standardLocation();

    std::optional<boost::json::value> value(std::string_view key) const override;
    void setValue(std::string_view key, const boost::json::value& value) override;
    void removeValue(std::string_view key) override;

    const std::filesystem::path& file() const { return file_.file(); }

private:
    JsonObjectFile file_;
};

}  // namespace gaugepoint
