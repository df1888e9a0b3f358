// Qwen Code chats: projects/<project>/chats/<session id>.jsonl under ~/.qwen, one record per line.
//
// An assistant record with `usageMetadata` is one response (Gemini-shaped counts). Qwen's prompt
// count already holds the cached tokens, so input is the prompt less its cached part; output is
// the answer plus the reasoning ("thoughts"); cached is cache read; there is no cache write. A
// resumed or branched session copies records under their uuid into another file: a response is
// counted once by its uuid. System records (UI telemetry) may repeat counts and count nothing.

#include "gaugepoint/importers/CodingToolLogs.hpp"
#include "gaugepoint/importers/JsonLineParser.hpp"

namespace gaugepoint {
namespace {

namespace fs = std::filesystem;
using simdjson::ondemand::object;
using simdjson::ondemand::value;

struct Usage {
    std::int64_t prompt = 0, candidates = 0, thoughts = 0, cached = 0;
};

std::optional<Usage> readUsage(object usage) {
    Usage u;
    if (!jsonline::tokenCounts(usage, {{"promptTokenCount", {}, &u.prompt},
                                       {"candidatesTokenCount", {}, &u.candidates},
                                       {"thoughtsTokenCount", {}, &u.thoughts},
                                       {"cachedContentTokenCount", {}, &u.cached}})) {
        return std::nullopt;
    }
    if (u.cached > u.prompt) return std::nullopt;
    return u;
}

class QwenLogs final : public CodingToolLogs {
public:
    QuotaSessionProviderIdentity provider() const override { return {"qwen", "Qwen"}; }
    std::int64_t parserVersion() const override { return 1; }

    std::vector<fs::path> defaultHomes() const override {
        if (auto homes = homesFromEnvironment("QWEN_DATA_DIR"); !homes.empty()) return homes;
        if (const auto home = belowHome(".qwen")) return {*home};
        return {};
    }
    std::vector<fs::path> logFolders() const override { return {"projects"}; }

    std::optional<LogLayout> layoutOf(LogPath file) const override {
        if (file.parts() == 3 && file.parent().filename() == "chats" && file.extension() == ".jsonl") return LogLayout::appendedLines;
        return std::nullopt;
    }

    void parseLines(std::span<const LogLine> lines, const LogFileContext& file, std::string& announced,
                    LogRecordSink& sink) const override {
        PendingRecords pending;
        jsonline::forEachObject(lines, file, sink, [&](simdjson::ondemand::object record, const LogLine& line) {
            readRecord(record, line.offset, file, announced, pending);
            pending.flushTo(sink);
        });
    }
    bool parseDocument(std::string_view, const LogFileContext&, LogRecordSink&) const override { return true; }

private:
    // `announced` holds the session whose project was last given, so each piece names it once.
    static void readRecord(object record, std::int64_t offset, const LogFileContext& file, std::string& announced,
                           LogRecordSink& sink) {
        std::string type, uuid, sessionID, cwd, model, text;
        std::optional<Date> timestamp;
        std::optional<Usage> usage;
        bool badUsage = false, hasText = false;
        const bool wantText = file.capture != QuotaSessionContentCaptureMode::metadataOnly;
        for (auto field : record) {
            std::string_view key;
            if (field.unescaped_key().get(key)) return sink.badLine(offset, "malformed JSON");
            value v = field.value();
            if (key == "type") {
                type = std::string(jsonline::text(v).value_or(""));
            } else if (key == "uuid") {
                uuid = std::string(jsonline::text(v).value_or(""));
            } else if (key == "sessionId") {
                sessionID = std::string(jsonline::text(v).value_or(""));
            } else if (key == "cwd") {
                cwd = std::string(jsonline::text(v).value_or(""));
            } else if (key == "model") {
                model = std::string(jsonline::text(v).value_or(""));
            } else if (key == "timestamp") {
                timestamp = jsonline::date(v);
            } else if (key == "usageMetadata") {
                object counts;
                if (jsonline::isNull(v) || v.get_object().get(counts)) continue;
                usage = readUsage(counts);
                badUsage = !usage;
            } else if (key == "message" && wantText) {
                object message;
                if (v.get_object().get(message)) continue;
                for (auto part : message) {
                    std::string_view name;
                    if (part.unescaped_key().get(name)) return sink.badLine(offset, "malformed JSON");
                    if (name != "parts" && name != "content") continue;
                    auto summary = jsonline::content(part.value(), "", true);
                    hasText = hasText || summary.hasText;
                    text += summary.text;
                }
            }
        }
        if (type != "user" && type != "assistant") return;
        if (badUsage) return sink.badLine(offset, "a token count that is negative, fractional or absurd");
        if (!timestamp) return sink.badLine(offset, "no timestamp");
        if (sessionID.empty()) sessionID = file.path.parent_path().parent_path().filename().string() + "-" + file.path.stem().string();
        if (announced != sessionID && !cwd.empty()) {
            announced = sessionID;
            sink.session(sessionID, cwd);
        }
        const std::string key = uuid.empty() ? sessionID + "@" + std::to_string(offset) : uuid;
        QuotaImportedMessage m;
        m.sessionID = sessionID;
        m.messageKey = key;
        m.timestamp = timestamp;
        m.role = type == "user" ? QuotaSessionRole::user : QuotaSessionRole::assistant;
        m.isPrompt = m.role == QuotaSessionRole::user && (hasText || !wantText);
        if (type == "assistant" && usage) {
            QuotaUsageEntry entry;
            entry.providerID = "qwen";
            entry.sessionID = sessionID;
            entry.dedupKey = key;
            entry.timestamp = *timestamp;
            entry.model = model.empty() ? "unknown" : model;
            entry.tokens = {usage->prompt - usage->cached, usage->candidates + usage->thoughts, usage->cached, 0, std::nullopt};
            m.tokenUsage = entry.tokens;
            if (!model.empty()) m.model = model;
            sink.usage(std::move(entry));
        }
        if (keepsText(file.capture, m.role, m.isPrompt) && !text.empty()) m.text = std::move(text);
        sink.message(std::move(m));
    }
};

}  // namespace

std::unique_ptr<CodingToolLogs> makeQwenLogs() { return std::make_unique<QwenLogs>(); }

}  // namespace gaugepoint
