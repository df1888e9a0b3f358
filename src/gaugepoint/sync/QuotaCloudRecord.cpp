#include "gaugepoint/sync/QuotaCloudRecord.hpp"

#include <algorithm>
#include <array>
#include <unordered_set>

#include "gaugepoint/platform/Base64.hpp"

namespace gaugepoint {
namespace {

constexpr std::array<std::string_view, std::variant_size_v<QuotaCloudRecordValue>> kTypeNames = {
    "int64", "double", "string", "date", "bytes"};

}  // namespace

std::string_view typeName(const QuotaCloudRecordValue& value) { return kTypeNames[value.index()]; }

void QuotaCloudRecord::set(std::string_view key, QuotaCloudRecordValue value) {
    const auto found = std::find_if(fields.begin(), fields.end(), [&](const auto& field) { return field.key == key; });
    if (found != fields.end()) {
        found->value = std::move(value);
    } else {
        fields.push_back({std::string(key), std::move(value)});
    }
}

void QuotaCloudRecord::remove(std::string_view key) {
    std::erase_if(fields, [&](const auto& field) { return field.key == key; });
}

const QuotaCloudRecordValue* QuotaCloudRecord::value(std::string_view key) const {
    const auto found = std::find_if(fields.begin(), fields.end(), [&](const auto& field) { return field.key == key; });
    return found != fields.end() ? &found->value : nullptr;
}

}  // namespace gaugepoint

namespace gaugepoint::json {
namespace {

void writeValue(JsonWriter& w, const QuotaCloudRecordValue& value) {
    std::visit(
        [&](const auto& v) {
            using T = std::decay_t<decltype(v)>;
            if constexpr (std::is_same_v<T, QuotaCloudRecordBytes>) {
                w.string(base64Encode(v));
            } else {
                Coding<T>::write(w, v);
            }
        },
        value);
}

const boost::json::value& member(const boost::json::object& object, std::string_view name, const Path& path) {
    const boost::json::value* found = object.if_contains(name);
    if (!found) throw DecodingError(path.member(name).toString(), "required key is missing");
    return *found;
}

QuotaCloudRecordValue readValue(std::string_view type, const boost::json::value& v, const Path& typePath,
                                const Path& path) {
    if (type == "int64") return Coding<std::int64_t>::read(v, path);
    if (type == "double") return Coding<double>::read(v, path);
    if (type == "string") return Coding<std::string>::read(v, path);
    if (type == "date") return Coding<Date>::read(v, path);
    if (type == "bytes") {
        if (auto bytes = base64Decode(Coding<std::string>::read(v, path))) return std::move(*bytes);
        throw DecodingError(path.toString(), "expected standard base64");
    }
    std::string quoted;
    appendQuoted(quoted, type);
    throw DecodingError(typePath.toString(),
                        "unknown field type " + quoted + " (expected int64, double, string, date or bytes)");
}

}  // namespace

void Coding<QuotaCloudRecord>::write(JsonWriter& w, const QuotaCloudRecord& record) {
    w.beginObject();
    writeMember(w, "recordType", record.recordType);
    writeMember(w, "recordName", record.recordID.recordName);
    writeMember(w, "zoneName", record.recordID.zoneID.zoneName);
    writeMember(w, "ownerName", record.recordID.zoneID.ownerName);
    w.key("fields");
    w.beginArray();
    for (const auto& field : record.fields) {
        w.beginObject();
        writeMember(w, "key", field.key);
        w.key("type");
        w.string(typeName(field.value));
        w.key("value");
        writeValue(w, field.value);
        w.endObject();
    }
    w.endArray();
    w.endObject();
}

QuotaCloudRecord Coding<QuotaCloudRecord>::read(const boost::json::value& v, const Path& path) {
    const auto& object = expectObject(v, path);
    QuotaCloudRecord record;
    readMember(object, "recordType", record.recordType, path);
    readMember(object, "recordName", record.recordID.recordName, path);
    readMember(object, "zoneName", record.recordID.zoneID.zoneName, path);
    readMember(object, "ownerName", record.recordID.zoneID.ownerName, path);
    const Path fieldsPath = path.member("fields");
    const auto& fields = member(object, "fields", path);
    if (!fields.is_array()) throwTypeMismatch(fieldsPath, "an array", fields);
    std::unordered_set<std::string> seen;  // a record from elsewhere may hold very many fields
    for (std::size_t i = 0; i < fields.get_array().size(); ++i) {
        const Path fieldPath = fieldsPath.element(i);
        const auto& field = expectObject(fields.get_array()[i], fieldPath);
        std::string key, type;
        readMember(field, "key", key, fieldPath);
        readMember(field, "type", type, fieldPath);
        if (!seen.insert(key).second) {
            std::string quoted;
            appendQuoted(quoted, key);
            throw DecodingError(fieldPath.member("key").toString(), "duplicate field key " + quoted);
        }
        auto value = readValue(type, member(field, "value", fieldPath), fieldPath.member("type"), fieldPath.member("value"));
        record.fields.push_back({std::move(key), std::move(value)});
    }
    return record;
}

}  // namespace gaugepoint::json
