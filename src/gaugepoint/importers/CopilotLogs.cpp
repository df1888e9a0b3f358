// GitHub Copilot CLI: session-state/<session id>/events.jsonl under ${COPILOT_HOME:-~/.copilot},
// one event per line. Usage is only on `session.shutdown` events, as running totals per model
// (data.modelMetrics.<model>.usage) since the session began. Each shutdown counts what grew since
// the previous one of the same session and model, dated at the later shutdown; a total smaller
// than before is a counter that restarted (older builds restart on resume), so it starts a new
// interval and counts whole. A shutdown repeated under its id adds nothing, wherever it lands. The totals seen are the parser's
// state, so a scan that reads on from the end of the file goes on from them.
//
// Copilot's input count holds the cached tokens (read and written), which are taken out of it;
// reasoning is already inside output. Premium requests (requests.cost) and AI units
// (totalNanoAiu / 10^9) of each model are running totals too, counted by the same rule as the
// tokens; they are not US dollars, are kept as the response's charges and never turned into a cost.

#include <charconv>
#include <cmath>
#include <fstream>
#include <map>
#include <sstream>

#include "gaugepoint/importers/CodingToolLogs.hpp"
#include "gaugepoint/importers/JsonLineParser.hpp"
#include "gaugepoint/platform/Text.hpp"

namespace gaugepoint {
namespace {

namespace fs = std::filesystem;
using simdjson::ondemand::object;
using simdjson::ondemand::value;

struct Totals {
    std::int64_t input = 0, output = 0, cacheRead = 0, cacheWrite = 0;
    double premiumRequests = 0;
    std::int64_t nanoAiu = 0;
    bool operator==(const Totals&) const = default;
};

std::string shortest(double value) {
    char text[32];
    const auto end = std::to_chars(text, text + sizeof text, value).ptr;
    return {text, end};
}

// Marks the id of a shutdown already counted, among the models of the state.
constexpr std::string_view kSeenEvent = "\x01event:";

// The running totals per model, as the state text keeps them, a line each:
// "model\tin out read write premium nanoAiu".
std::map<std::string, Totals> decodeState(std::string_view state) {
    std::map<std::string, Totals> totals;
    std::istringstream lines{std::string(state)};
    std::string line;
    while (std::getline(lines, line)) {
        const auto tab = line.find('\t');
        if (tab == std::string::npos) continue;
        std::istringstream in{line.substr(tab + 1)};
        Totals t;
        if (in >> t.input >> t.output >> t.cacheRead >> t.cacheWrite >> t.premiumRequests >> t.nanoAiu) {
            totals[line.substr(0, tab)] = t;
        }
    }
    return totals;
}

std::string encodeState(const std::map<std::string, Totals>& totals) {
    std::string state;
    for (const auto& [model, t] : totals) {
        state += model + "\t" + std::to_string(t.input) + " " + std::to_string(t.output) + " " + std::to_string(t.cacheRead) +
                 " " + std::to_string(t.cacheWrite) + " " + shortest(t.premiumRequests) + " " + std::to_string(t.nanoAiu) +
                 "\n";
    }
    return state;
}

// `-1m` and `-1m-internal` name the same model with a larger context window.
std::string modelName(std::string_view key) {
    for (const std::string_view suffix : {"-1m-internal", "-1m"}) {
        if (key.ends_with(suffix)) return std::string(key.substr(0, key.size() - suffix.size()));
    }
    return std::string(key);
}

bool readUsage(object usage, Totals& t) {
    return jsonline::tokenCounts(usage, {{"inputTokens", {}, &t.input},
                                         {"outputTokens", {}, &t.output},
                                         {"cacheReadTokens", {}, &t.cacheRead},
                                         {"cacheWriteTokens", {}, &t.cacheWrite}});
}

// requests.cost: the premium requests so far. False when it is not a number of zero or more.
bool readRequests(object requests, Totals& t) {
    for (auto field : requests) {
        std::string_view key;
        if (field.unescaped_key().get(key)) return false;
        if (key != "cost") continue;
        value v = field.value();
        if (jsonline::isNull(v)) continue;
        const auto cost = jsonline::number(v);
        if (!cost || !std::isfinite(*cost) || *cost < 0) return false;
        t.premiumRequests = *cost;
    }
    return true;
}

// One model's metrics: its usage, requests and totalNanoAiu. None when a figure is not a count.
std::optional<Totals> readModelMetrics(object metrics, bool& any) {
    Totals t;
    for (auto field : metrics) {
        std::string_view key;
        object inner;
        if (field.unescaped_key().get(key)) return std::nullopt;
        value v = field.value();
        if (key == "usage" && !v.get_object().get(inner)) {
            any = true;
            if (!readUsage(inner, t)) return std::nullopt;
        } else if (key == "requests" && !v.get_object().get(inner)) {
            if (!readRequests(inner, t)) return std::nullopt;
        } else if (key == "totalNanoAiu" && !jsonline::isNull(v)) {
            const auto nano = jsonline::integer(v);
            if (!nano || *nano < 0) return std::nullopt;
            t.nanoAiu = *nano;
        }
    }
    return t;
}

// The working directory of workspace.yaml beside the events ("" when it has none).
std::string workspaceDirectory(const fs::path& events) {
    std::ifstream in(events.parent_path() / "workspace.yaml");
    std::string line;
    while (std::getline(in, line)) {
        if (!line.starts_with("cwd:")) continue;
        std::string_view value = trimmed(std::string_view(line).substr(4));
        if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') && value.back() == value.front()) {
            value = value.substr(1, value.size() - 2);
        }
        return std::string(value);
    }
    return "";
}

class CopilotLogs final : public CodingToolLogs {
public:
    QuotaSessionProviderIdentity provider() const override { return {"copilot", "Copilot"}; }
    // 2: premium requests and AI units are kept.
    std::int64_t parserVersion() const override { return 2; }

    std::vector<fs::path> defaultHomes() const override {
        if (const char* home = std::getenv("COPILOT_HOME"); home && *home) return {fs::path(home)};
        if (const auto home = belowHome(".copilot")) return {*home};
        return {};
    }
    std::vector<fs::path> logFolders() const override { return {"session-state"}; }

    std::optional<LogLayout> layoutOf(LogPath file) const override {
        if (file.filename() == "events.jsonl" && file.parts() == 2) return LogLayout::appendedLines;
        return std::nullopt;
    }

    void parseLines(std::span<const LogLine> lines, const LogFileContext& file, std::string& state,
                    LogRecordSink& sink) const override {
        const std::string sessionID = file.path.parent_path().filename().string();
        auto totals = decodeState(state);
        bool announced = false;
        jsonline::forEachObject(lines, file, sink, [&](simdjson::ondemand::object record, const LogLine& line) {
            PendingRecords pending;
            auto seen = totals;
            readEvent(record, line.offset, sessionID, seen, pending);
            if (!pending.isBad()) totals = std::move(seen);
            if (!announced) {
                announced = true;
                pending.session(sessionID, workspaceDirectory(file.path));
            }
            pending.flushTo(sink);
        });
        state = encodeState(totals);
    }
    bool parseDocument(std::string_view, const LogFileContext&, LogRecordSink&) const override { return true; }

private:
    static void readEvent(object event, std::int64_t offset, const std::string& sessionID, std::map<std::string, Totals>& totals,
                          LogRecordSink& sink) {
        std::string type, id;
        std::optional<Date> timestamp;
        for (auto field : event) {
            std::string_view key;
            if (field.unescaped_key().get(key)) return sink.badLine(offset, "malformed JSON");
            value v = field.value();
            if (key == "type") type = std::string(jsonline::text(v).value_or(""));
            if (key == "id") id = std::string(jsonline::text(v).value_or(""));
            if (key == "timestamp") timestamp = jsonline::date(v);
        }
        if (type != "session.shutdown") return;
        if (!timestamp) return sink.badLine(offset, "no timestamp");
        // A shutdown seen before (a copied line, wherever it lands) adds nothing; its id is kept
        // beside the totals, under a key no model has.
        if (!id.empty() && !totals.try_emplace(std::string(kSeenEvent) + id).second) return;
        event.reset();
        for (auto field : event) {
            std::string_view key;
            object data, metrics;
            if (field.unescaped_key().get(key)) return sink.badLine(offset, "malformed JSON");
            if (key != "data" || field.value().get_object().get(data)) continue;
            for (auto d : data) {
                std::string_view name;
                if (d.unescaped_key().get(name)) return sink.badLine(offset, "malformed JSON");
                if (name != "modelMetrics" || d.value().get_object().get(metrics)) continue;
                for (auto m : metrics) {
                    std::string_view rawModel;
                    object perModel;
                    if (m.unescaped_key().get(rawModel) || m.value().get_object().get(perModel)) {
                        return sink.badLine(offset, "malformed JSON");
                    }
                    bool hasUsage = false;
                    const auto now = readModelMetrics(perModel, hasUsage);
                    if (!now) return sink.badLine(offset, "a token count or charge that is negative, fractional or absurd");
                    if (!hasUsage) continue;
                    count(*now, modelName(rawModel), id.empty() ? std::to_string(offset) : id, *timestamp, sessionID, totals,
                          sink);
                }
            }
        }
    }

    static void count(const Totals& now, const std::string& model, const std::string& eventID, Date at,
                      const std::string& sessionID, std::map<std::string, Totals>& totals, LogRecordSink& sink) {
        const Totals before = totals[model];
        const bool restarted = now.input < before.input || now.output < before.output || now.cacheRead < before.cacheRead ||
                               now.cacheWrite < before.cacheWrite || now.premiumRequests < before.premiumRequests ||
                               now.nanoAiu < before.nanoAiu;
        const Totals from = restarted ? Totals{} : before;
        totals[model] = now;
        const Totals grew{now.input - from.input,          now.output - from.output,
                          now.cacheRead - from.cacheRead,  now.cacheWrite - from.cacheWrite,
                          now.premiumRequests - from.premiumRequests, now.nanoAiu - from.nanoAiu};
        if (grew == Totals{}) return;
        QuotaUsageEntry entry;
        entry.providerID = "copilot";
        entry.sessionID = sessionID;
        entry.dedupKey = sessionID + "/" + eventID + "/" + model;
        entry.timestamp = at;
        entry.model = model;
        entry.tokens = {std::max<std::int64_t>(0, grew.input - grew.cacheRead - grew.cacheWrite), grew.output, grew.cacheRead,
                        grew.cacheWrite, std::nullopt};
        entry.charges.premiumRequests = grew.premiumRequests;
        entry.charges.aiu = double(grew.nanoAiu) / 1e9;  // nano-AIU to AIU
        recordResponse(sink, std::move(entry));
    }
};

}  // namespace

std::unique_ptr<CodingToolLogs> makeCopilotLogs() { return std::make_unique<CopilotLogs>(); }

}  // namespace gaugepoint
