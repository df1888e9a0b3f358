// Kimi CLI and Kimi Code: wire.jsonl files under sessions/ of ${KIMI_SHARE_DIR:-~/.kimi} (one per
// session: sessions/<workdir hash>/<session id>/wire.jsonl) and of ${KIMI_CODE_HOME:-~/.kimi-code}
// (sessions/<workspace>/<session id>/agents/main/wire.jsonl).
//
// Kimi CLI writes a response's usage on `StatusUpdate` messages (token_usage with input_other,
// output, input_cache_read, input_cache_creation: additive), without the model, which is the
// default model of <home>/config.json. Kimi Code writes `usage.record` lines with the model and a
// scope; only the "turn" scope is a response (others sum turns up and would count them twice).
// A response is keyed by session and message id (else by its content), so a repeated line adds
// nothing.

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "gaugepoint/importers/CodingToolLogs.hpp"
#include "gaugepoint/importers/JsonLineParser.hpp"

namespace gaugepoint {
namespace {

namespace fs = std::filesystem;
using simdjson::ondemand::object;
using simdjson::ondemand::value;

struct Usage {
    std::int64_t input = 0, output = 0, cacheRead = 0, cacheWrite = 0;
    bool bad = false;
};

void readUsage(object usage, Usage& u) {
    u.bad = !jsonline::tokenCounts(usage, {{"input_other", "inputOther", &u.input},
                                           {"output", {}, &u.output},
                                           {"input_cache_read", "inputCacheRead", &u.cacheRead},
                                           {"input_cache_creation", "inputCacheCreation", &u.cacheWrite}});
}

// The session a wire file belongs to: its folder, or the one above agents/<name>/.
std::string sessionOf(const fs::path& wire) {
    const fs::path dir = wire.parent_path();
    if (dir.parent_path().filename() == "agents") return dir.parent_path().parent_path().filename().string();
    return dir.filename().string();
}

// The default model named in <home>/config.json ("" when none): the home is above sessions/.
std::string configuredModel(const fs::path& wire) {
    for (fs::path dir = wire.parent_path(); dir.has_relative_path() && dir != dir.parent_path(); dir = dir.parent_path()) {
        if (dir.filename() != "sessions") continue;
        std::ifstream in(dir.parent_path() / "config.json");
        std::stringstream text;
        text << in.rdbuf();
        std::string json = text.str();
        const std::size_t length = json.size();
        json.resize(length + kJsonPadding);
        JsonLineParser parser;
        auto config = parser.object(std::string_view(json.data(), length));
        if (!config) return "";
        for (auto field : *config) {
            std::string_view key;
            if (field.unescaped_key().get(key)) return "";
            if (key == "model" || key == "default_model") {
                if (const auto model = jsonline::text(field.value())) return std::string(*model);
            }
        }
        return "";
    }
    return "";
}

class KimiLogs final : public CodingToolLogs {
public:
    QuotaSessionProviderIdentity provider() const override { return {"kimi", "Kimi"}; }
    std::int64_t parserVersion() const override { return 1; }

    std::vector<fs::path> defaultHomes() const override {
        std::vector<fs::path> homes;
        if (const char* dir = std::getenv("KIMI_SHARE_DIR"); dir && *dir) {
            homes.emplace_back(dir);
        } else if (const auto home = belowHome(".kimi")) {
            homes.push_back(*home);
        }
        if (const char* dir = std::getenv("KIMI_CODE_HOME"); dir && *dir) {
            homes.emplace_back(dir);
        } else if (const auto home = belowHome(".kimi-code")) {
            homes.push_back(*home);
        }
        return homes;
    }
    std::vector<fs::path> logFolders() const override { return {"sessions"}; }

    std::optional<LogLayout> layoutOf(LogPath file) const override {
        if (file.filename() == "wire.jsonl") return LogLayout::appendedLines;
        return std::nullopt;
    }

    void parseLines(std::span<const LogLine> lines, const LogFileContext& file, std::string&,
                    LogRecordSink& sink) const override {
        if (lines.empty()) return;
        const std::string sessionID = sessionOf(file.path);
        const std::string model = configuredModel(file.path);
        sink.session(sessionID, "");
        PendingRecords pending;
        jsonline::forEachObject(lines, file, sink, [&](simdjson::ondemand::object record, const LogLine& line) {
            readLine(record, line.offset, sessionID, model, pending);
            pending.flushTo(sink);
        });
    }
    bool parseDocument(std::string_view, const LogFileContext&, LogRecordSink&) const override { return true; }

private:
    static void readLine(object record, std::int64_t offset, const std::string& sessionID, const std::string& configured,
                         LogRecordSink& sink) {
        std::string type, scope, model, messageID, messageType;
        std::optional<Date> timestamp;
        std::optional<Usage> usage;
        for (auto field : record) {
            std::string_view key;
            if (field.unescaped_key().get(key)) return sink.badLine(offset, "malformed JSON");
            value v = field.value();
            object inner;
            if (key == "type") {
                type = std::string(jsonline::text(v).value_or(""));
            } else if (key == "usageScope") {
                scope = std::string(jsonline::text(v).value_or(""));
            } else if (key == "model") {
                model = std::string(jsonline::text(v).value_or(""));
            } else if (key == "time") {  // Kimi Code: epoch milliseconds
                if (const auto ms = jsonline::number(v)) timestamp = dateFromSeconds(*ms / 1000.0);
            } else if (key == "timestamp") {  // Kimi CLI: epoch seconds
                if (const auto seconds = jsonline::number(v)) timestamp = dateFromSeconds(*seconds);
            } else if (key == "usage") {
                if (!v.get_object().get(inner)) readUsage(inner, usage.emplace());
            } else if (key == "message") {
                if (v.get_object().get(inner)) continue;
                for (auto m : inner) {
                    std::string_view name;
                    if (m.unescaped_key().get(name)) return sink.badLine(offset, "malformed JSON");
                    object payload;
                    if (name == "type") messageType = std::string(jsonline::text(m.value()).value_or(""));
                    if (name != "payload" || m.value().get_object().get(payload)) continue;
                    for (auto p : payload) {
                        std::string_view part;
                        if (p.unescaped_key().get(part)) return sink.badLine(offset, "malformed JSON");
                        object counts;
                        if (part == "message_id") messageID = std::string(jsonline::text(p.value()).value_or(""));
                        if (part == "token_usage" && !p.value().get_object().get(counts)) readUsage(counts, usage.emplace());
                    }
                }
            }
        }
        const bool kimiCode = type == "usage.record";
        if (kimiCode ? scope != "turn" : messageType != "StatusUpdate") return;
        if (!usage) return;
        if (usage->bad) return sink.badLine(offset, "a token count that is negative, fractional or absurd");
        if (!timestamp) return sink.badLine(offset, "no timestamp");
        if (kimiCode && model.starts_with("kimi-code/")) model.erase(0, 10);
        if (!kimiCode) model = configured;
        QuotaUsageEntry e;
        e.providerID = "kimi";
        e.sessionID = sessionID;
        e.timestamp = *timestamp;
        e.model = model.empty() ? "unknown" : model;
        e.tokens = {usage->input, usage->output, usage->cacheRead, usage->cacheWrite, std::nullopt};
        if (e.tokens.totalTokens() == 0) return;
        e.dedupKey = sessionID + "/" +
                     (!messageID.empty() ? messageID
                                         : std::to_string(secondsSince1970(*timestamp)) + "/" + e.model + "/" +
                                               std::to_string(usage->input) + "/" + std::to_string(usage->output) + "/" +
                                               std::to_string(usage->cacheRead) + "/" + std::to_string(usage->cacheWrite));
        recordResponse(sink, std::move(e));
    }
};

}  // namespace

std::unique_ptr<CodingToolLogs> makeKimiLogs() { return std::make_unique<KimiLogs>(); }

}  // namespace gaugepoint
