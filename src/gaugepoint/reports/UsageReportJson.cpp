#include "gaugepoint/reports/UsageReportJson.hpp"

#include "gaugepoint/platform/Json.hpp"
#include "gaugepoint/platform/JsonWriter.hpp"

namespace gaugepoint::UsageReportJson {
namespace {

using json::JsonWriter;

void field(JsonWriter& w, const char* key, std::int64_t value) {
    w.key(key);
    w.integer(value);
}

void field(JsonWriter& w, const char* key, double value) {
    w.key(key);
    w.number(value);
}

void field(JsonWriter& w, const char* key, std::string_view value) {
    w.key(key);
    w.string(value);
}

void strings(JsonWriter& w, const char* key, const std::vector<std::string>& values) {
    w.key(key);
    w.beginArray();
    for (const auto& value : values) w.string(value);
    w.endArray();
}

// `cacheCreation1hTokens` is the part of `cacheCreationTokens` kept for an hour (not added twice).
void tokenFields(JsonWriter& w, const QuotaSessionTokenUsage& t, std::int64_t cacheWrite1h) {
    field(w, "inputTokens", t.inputTokens);
    field(w, "outputTokens", t.outputTokens);
    field(w, "cacheCreationTokens", t.cacheWriteTokens);
    field(w, "cacheCreation1hTokens", cacheWrite1h);
    field(w, "cacheReadTokens", t.cacheReadTokens);
    field(w, "totalTokens", t.totalTokens());
}

void costFields(JsonWriter& w, const UsageTotals& totals) {
    field(w, "totalCost", totals.totalCost);
    field(w, "unpricedTokens", totals.unpricedTokens);
    field(w, "costSource", json::rawValue(totals.costSource));
    // What the tools charged in their own units, apart from the cost: only when there is some.
    if (!totals.charges.any()) return;
    w.key("charges");
    w.beginObject();
    for (const auto& [key, amount] : {std::pair{"premiumRequests", totals.charges.premiumRequests},
                                      std::pair{"aiu", totals.charges.aiu}, std::pair{"credits", totals.charges.credits}}) {
        if (amount != 0) field(w, key, amount);
    }
    w.endObject();
}

void breakdowns(JsonWriter& w, const UsageTotals& totals) {
    strings(w, "modelsUsed", totals.modelsUsed);
    w.key("modelBreakdowns");
    w.beginArray();
    for (const auto& b : totals.modelBreakdowns) {
        w.beginObject();
        field(w, "modelName", b.modelName);
        tokenFields(w, b.tokens, b.cacheWrite1hTokens);
        if (b.priced) {
            field(w, "cost", b.cost);
        } else {
            w.key("cost");  // no price: unknown, never $0
            w.null();
        }
        w.endObject();
    }
    w.endArray();
}

void totalsObject(JsonWriter& w, const UsageTotals& totals) {
    w.key("totals");
    w.beginObject();
    tokenFields(w, totals.tokens, totals.cacheWrite1hTokens);
    costFields(w, totals);
    w.endObject();
}

const char* arrayKey(UsagePeriod period) {
    switch (period) {
        case UsagePeriod::daily: return "daily";
        case UsagePeriod::weekly: return "weekly";
        case UsagePeriod::monthly: return "monthly";
    }
    return "daily";
}

const char* rowKey(UsagePeriod period) {
    switch (period) {
        case UsagePeriod::daily: return "date";
        case UsagePeriod::weekly: return "week";
        case UsagePeriod::monthly: return "month";
    }
    return "date";
}

void time(JsonWriter& w, const char* key, const std::optional<Date>& date) {
    w.key(key);
    if (date) {
        w.string(formatISO8601Milliseconds(*date));
    } else {
        w.null();
    }
}

// {"<key>": [a row each], "totals": {...}}: the frame of the period and session documents.
template <class Row, class WriteRow>
std::string rowsDocument(const char* key, const std::vector<Row>& rows, const UsageTotals& totals, bool pretty,
                         WriteRow&& writeRow) {
    JsonWriter w{pretty};
    w.beginObject();
    w.key(key);
    w.beginArray();
    for (const auto& row : rows) {
        w.beginObject();
        writeRow(w, row);
        tokenFields(w, row.totals.tokens, row.totals.cacheWrite1hTokens);
        costFields(w, row.totals);
        breakdowns(w, row.totals);
        w.endObject();
    }
    w.endArray();
    totalsObject(w, totals);
    w.endObject();
    return w.take();
}

}  // namespace

std::string periods(const UsagePeriodReport& report, UsagePeriod period, bool pretty) {
    return rowsDocument(arrayKey(period), report.rows, report.totals, pretty,
                        [&](JsonWriter& w, const UsagePeriodRow& row) { field(w, rowKey(period), row.period); });
}

std::string sessions(const UsageSessionReport& report, bool pretty) {
    return rowsDocument("sessions", report.rows, report.totals, pretty, [](JsonWriter& w, const UsageSessionRow& row) {
        field(w, "sessionId", row.sessionID);
        field(w, "provider", row.providerID);
        w.key("projectPath");
        if (row.projectPath) {
            w.string(*row.projectPath);
        } else {
            w.null();
        }
        time(w, "lastActivity", row.lastActivity);
    });
}

std::string blocks(const std::vector<UsageBlock>& blocks, bool pretty) {
    JsonWriter w{pretty};
    w.beginObject();
    w.key("blocks");
    w.beginArray();
    for (const auto& b : blocks) {
        const auto& t = b.totals.tokens;
        w.beginObject();
        field(w, "id", formatISO8601Milliseconds(b.startTime));
        time(w, "startTime", b.startTime);
        time(w, "endTime", b.endTime);
        time(w, "actualEndTime", b.actualEndTime);
        w.key("isActive");
        w.boolean(b.isActive);
        w.key("isGap");
        w.boolean(b.isGap);
        field(w, "entries", b.totals.entries);
        w.key("tokenCounts");
        w.beginObject();
        field(w, "inputTokens", t.inputTokens);
        field(w, "outputTokens", t.outputTokens);
        field(w, "cacheCreationInputTokens", t.cacheWriteTokens);
        field(w, "cacheReadInputTokens", t.cacheReadTokens);
        w.endObject();
        field(w, "totalTokens", t.totalTokens());
        field(w, "costUSD", b.totals.totalCost);
        field(w, "unpricedTokens", b.totals.unpricedTokens);
        field(w, "costSource", json::rawValue(b.totals.costSource));
        strings(w, "models", b.totals.modelsUsed);
        if (b.burnRate) {
            w.key("burnRate");
            w.beginObject();
            field(w, "tokensPerMinute", b.burnRate->tokensPerMinute);
            field(w, "costPerHour", b.burnRate->costPerHour);
            w.endObject();
        }
        if (b.projection) {
            w.key("projection");
            w.beginObject();
            field(w, "totalTokens", b.projection->totalTokens);
            field(w, "totalCost", b.projection->totalCost);
            field(w, "remainingMinutes", b.projection->remainingMinutes);
            w.endObject();
        }
        w.endObject();
    }
    w.endArray();
    w.endObject();
    return w.take();
}

}  // namespace gaugepoint::UsageReportJson
