#pragma once

// The small key-value store that the cloud shares between the user's machines (the sync epoch
// lives there). A real cloud backend implements this interface; until one is plugged in, a file
// in the App Group directory stands in for it, shared by every process of this machine.

#include <boost/json/value.hpp>

#include <filesystem>
#include <optional>
#include <string_view>

#include "gaugepoint/platform/JsonKeyValues.hpp"

namespace gaugepoint {

// JSON values under text keys, shared with the user's other machines. Implementations are safe
// to use from several threads.
class UbiquitousKeyValueStore {
public:
    virtual ~UbiquitousKeyValueStore() = default;
    // The value stored under `key`, or none.
    virtual std::optional<boost::json::value> value(std::string_view key) const = 0;
    // Stores `value` under `key`. Throws gaugepoint::Error when it cannot be kept.
    virtual void setValue(std::string_view key, const boost::json::value& value) = 0;
    // Removes `key`. Throws gaugepoint::Error when the change cannot be kept.
    virtual void removeValue(std::string_view key) = 0;
};

// A store that lives as long as the object: for tests.
class InMemoryUbiquitousKeyValueStore final : public UbiquitousKeyValueStore {
public:
    std::optional<boost::json::value> value(std::string_view key) const override;
    void setValue(std::string_view key, const boost::json::value& value) override;
    void removeValue(std::string_view key) override;

private:
    InMemoryJsonValues values_;
};

// The stand-in: one JSON object file, changed under a lock and replaced atomically, so a second
// process's changes are kept. A missing or damaged file reads as empty.
class FileUbiquitousKeyValueStore final : public UbiquitousKeyValueStore {
public:
    // The stand-in's file name in the App Group directory.
    static constexpr std::string_view defaultFilename = "quota-kvs.json";

    explicit FileUbiquitousKeyValueStore(std::filesystem::path file) : file_(std::move(file)) {}

    std::optional<boost::json::value> value(std::string_view key) const override;
    void setValue(std::string_view key, const boost::json::value& value) override;
    void removeValue(std::string_view key) override;

    const std::filesystem::path& file() const { return file_.file(); }

private:
    JsonObjectFile file_;
};

}  // namespace gaugepoint
