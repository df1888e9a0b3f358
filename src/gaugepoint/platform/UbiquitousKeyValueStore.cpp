#include "gaugepoint/platform/UbiquitousKeyValueStore.hpp"

namespace gaugepoint {

std::optional<boost::json::value> InMemoryUbiquitousKeyValueStore::value(std::string_view key) const {
    return values_.value(key);
}

void InMemoryUbiquitousKeyValueStore::setValue(std::string_view key, const boost::json::value& value) {
    values_.update(key, value);
}

void InMemoryUbiquitousKeyValueStore::removeValue(std::string_view key) { values_.update(key, std::nullopt); }

std::optional<boost::json::value> FileUbiquitousKeyValueStore::value(std::string_view key) const {
    return file_.value(key);
}

void FileUbiquitousKeyValueStore::setValue(std::string_view key, const boost::json::value& value) {
    file_.update(key, value);
}

void FileUbiquitousKeyValueStore::removeValue(std::string_view key) { file_.update(key, std::nullopt); }

}  // namespace gaugepoint
