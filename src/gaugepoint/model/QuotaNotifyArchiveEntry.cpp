#include "gaugepoint/model/QuotaNotifyArchiveEntry.hpp"

#include <array>

namespace gaugepoint::json {
namespace {

using Members = boost::describe::describe_members<QuotaNotifyArchiveEntry, boost::describe::mod_public>;

// Members whose absence means the value's default rather than a broken document.
bool hasDefault(std::string_view name) {
    static constexpr std::array<std::string_view, 5> names{"title", "body", "category", "isArchive", "deliveredVia"};
    for (const auto candidate : names) {
        if (candidate == name) return true;
    }
    return false;
}

}  // namespace

void Coding<QuotaNotifyArchiveEntry>::write(JsonWriter& w, const QuotaNotifyArchiveEntry& v) {
    w.beginObject();
    boost::mp11::mp_for_each<Members>([&](auto member) { writeMember(w, member.name, v.*member.pointer); });
    w.endObject();
}

QuotaNotifyArchiveEntry Coding<QuotaNotifyArchiveEntry>::read(const boost::json::value& v, const Path& path) {
    const auto& object = expectObject(v, path);
    QuotaNotifyArchiveEntry entry;
    boost::mp11::mp_for_each<Members>([&](auto member) {
        if (hasDefault(member.name)) {
            const boost::json::value* found = object.if_contains(member.name);
            if (!found || found->is_null()) return;
        }
        readMember(object, member.name, entry.*member.pointer, path);
    });
    return entry;
}

}  // namespace gaugepoint::json
