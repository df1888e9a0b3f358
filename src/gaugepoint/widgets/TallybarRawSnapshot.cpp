#include "gaugepoint/widgets/TallybarRawSnapshot.hpp"

namespace gaugepoint::json {

void Coding<tallybar::RawDailyUsage>::write(JsonWriter& w, const tallybar::RawDailyUsage& v) {
    w.beginObject();
    writeMember(w, "dayKey", v.dayKey);
    writeMember(w, "costUSD", v.costUSD);
    writeMember(w, "totalTokens", v.totalTokens);
    w.endObject();
}

tallybar::RawDailyUsage Coding<tallybar::RawDailyUsage>::read(const boost::json::value& v, const Path& path) {
    const auto& object = expectObject(v, path);
    tallybar::RawDailyUsage entry;
    readMember(object, "dayKey", entry.dayKey, path);
    std::optional<double> cost;
    for (const char* key : {"costUSD", "costUsd", "cost_usd"}) {
        readMember(object, key, cost, path);
        if (cost) break;
    }
    if (!cost) throw DecodingError(path.member("costUSD").toString(), "required key is missing (also read as costUsd or cost_usd)");
    entry.costUSD = *cost;
    readMember(object, "totalTokens", entry.totalTokens, path);
    return entry;
}

}  // namespace gaugepoint::json
