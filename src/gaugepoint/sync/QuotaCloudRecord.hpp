#pragma once

// A record of the cloud record database as this program builds and reads it: a record type, an
// identifier (record name in a zone) and typed fields in the order they were written. It is the
// value a cloud backend adapter maps to and from its own record type, and its JSON form is what
// the commands print, the tests compare and the transport carries:
//
//   {"recordType": "...", "recordName": "...", "zoneName": "...", "ownerName": "...",
//    "fields": [{"key": "...", "type": "int64" | "double" | "string" | "date" | "bytes",
//                "value": ...}, ...]}
//
// with the fields in write order, bytes in standard padded base64 and dates as ISO 8601 texts.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "gaugepoint/platform/Date.hpp"
#include "gaugepoint/platform/Json.hpp"

namespace gaugepoint {

// A record zone: its name and the user who owns it.
struct QuotaCloudRecordZoneID {
    // The owner name by which the cloud database means the signed-in user.
    static constexpr std::string_view currentUserOwnerName = "__defaultOwner__";

    std::string zoneName;
    std::string ownerName{currentUserOwnerName};

    bool operator==(const QuotaCloudRecordZoneID&) const = default;
};

struct QuotaCloudRecordID {
    std::string recordName;
    QuotaCloudRecordZoneID zoneID;

    bool operator==(const QuotaCloudRecordID&) const = default;
};

using QuotaCloudRecordBytes = std::vector<std::uint8_t>;
// The value types a field may hold, in the order of their JSON type names: "int64", "double",
// "string", "date", "bytes".
using QuotaCloudRecordValue = std::variant<std::int64_t, double, std::string, Date, QuotaCloudRecordBytes>;

// "int64", "double", "string", "date" or "bytes".
std::string_view typeName(const QuotaCloudRecordValue& value);

struct QuotaCloudRecordField {
    std::string key;
    QuotaCloudRecordValue value;

    bool operator==(const QuotaCloudRecordField&) const = default;
};

// One record. Keys are unique: set() replaces a key's value where it stands.
struct QuotaCloudRecord {
    std::string recordType;
    QuotaCloudRecordID recordID;
    std::vector<QuotaCloudRecordField> fields;  // in write order

    // Replaces the value of `key` in place, or appends the field when the key is new.
    void set(std::string_view key, QuotaCloudRecordValue value);
    // Removes `key` when present; the other fields keep their order.
    void remove(std::string_view key);
    // The value of `key`, or null.
    const QuotaCloudRecordValue* value(std::string_view key) const;
    // The value of `key` when it holds a T; null when absent or of another type.
    template <class T>
    const T* get(std::string_view key) const {
        const QuotaCloudRecordValue* found = value(key);
        return found ? std::get_if<T>(found) : nullptr;
    }

    bool operator==(const QuotaCloudRecord&) const = default;
};

}  // namespace gaugepoint

namespace gaugepoint::json {

// The JSON form above. Reading is strict, since records come from other machines: every key of
// the form is required, the type names are exact, int64 values are integers, bytes are
// canonical base64, and a key may appear only once; any fault is a DecodingError naming where
// ("fields[3].value: expected standard base64").
template <>
struct Coding<QuotaCloudRecord> {
    static void write(JsonWriter& w, const QuotaCloudRecord& record);
    static QuotaCloudRecord read(const boost::json::value& v, const Path& path);
};

}  // namespace gaugepoint::json
