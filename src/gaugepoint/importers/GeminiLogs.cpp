// Gemini CLI chats: tmp/<project hash>/chats/session-*.json under the home, one JSON document per
// session, rewritten as the chat grows (read again whole when it changes), and the newer
// append-only session-*.jsonl form (one message per line, read on from where the scan stopped).
//
// A "gemini" message with a "tokens" object is one response: input is the prompt without its
// cached part plus the tool-use prompt, output is the answer plus the reasoning ("thoughts"),
// cached input is cache read, and there is no cache write. Messages are identified by session
// and message id, so a grown document or a copied line counts each message once.

#include <cstdlib>

#include "gaugepoint/importers/CodingToolLogs.hpp"
#include "gaugepoint/importers/JsonLineParser.hpp"

namespace gaugepoint {
namespace {

namespace fs = std::filesystem;
using simdjson::ondemand::object;
using simdjson::ondemand::value;

struct Tokens {
    std::int64_t input = 0, output = 0, cached = 0, thoughts = 0, tool = 0;
};

// The counts of a "tokens" object; none when one is not a plausible whole number.
std::optional<Tokens> readTokens(object tokens) {
    Tokens t;
    for (auto field : tokens) {
        std::string_view key;
        if (field.unescaped_key().get(key)) return std::nullopt;
        std::int64_t* slot = key == "input"      ? &t.input
                             : key == "output"   ? &t.output
                             : key == "cached"   ? &t.cached
                             : key == "thoughts" ? &t.thoughts
                             : key == "tool"     ? &t.tool
                                                 : nullptr;
        if (!slot) continue;
        value v = field.value();
        if (jsonline::isNull(v)) continue;
        const auto n = jsonline::integer(v);
        if (!n || !isPlausibleTokenCount(*n)) return std::nullopt;
        *slot = *n;
    }
    if (t.cached > t.input) return std::nullopt;
    return t;
}

// Reads one message object of session `sessionID` into `sink`.
void readMessage(object message, const std::string& sessionID, std::int64_t offset, const LogFileContext& file,
                 LogRecordSink& sink) {
    std::string id, type, model, text;
    std::optional<Date> timestamp;
    std::optional<Tokens> tokens;
    bool hasText = false, badTokens = false;
    const bool wantText = file.capture != QuotaSessionContentCaptureMode::metadataOnly;
    for (auto field : message) {
        std::string_view key;
        if (field.unescaped_key().get(key)) return sink.badLine(offset, "malformed JSON");
        value v = field.value();
        if (key == "id") {
            id = std::string(jsonline::text(v).value_or(""));
        } else if (key == "type") {
            type = std::string(jsonline::text(v).value_or(""));
        } else if (key == "timestamp") {
            timestamp = jsonline::date(v);
        } else if (key == "model") {
            model = std::string(jsonline::text(v).value_or(""));
        } else if (key == "content") {
            auto summary = jsonline::content(v, "", wantText);
            hasText = summary.hasText;
            text = std::move(summary.text);
        } else if (key == "tokens") {
            object counts;
            if (jsonline::isNull(v) || v.get_object().get(counts)) continue;
            tokens = readTokens(counts);
            badTokens = !tokens;
        }
    }
    if (type.empty()) return;
    if (badTokens) return sink.badLine(offset, "a token count that is negative, fractional or absurd");
    const std::string key = sessionID + "/" + (id.empty() ? "@" + std::to_string(offset) : id);
    std::optional<QuotaSessionTokenUsage> counted;
    if (type == "gemini" && tokens) {
        if (!timestamp) return sink.badLine(offset, "no timestamp");
        QuotaUsageEntry entry;
        entry.providerID = "gemini";
        entry.sessionID = sessionID;
        entry.dedupKey = key;
        entry.timestamp = *timestamp;
        entry.model = model.empty() ? "unknown" : model;
        entry.tokens = {tokens->input - tokens->cached + tokens->tool, tokens->output + tokens->thoughts, tokens->cached, 0,
                        std::nullopt};
        counted = entry.tokens;
        sink.usage(std::move(entry));
    }
    QuotaImportedMessage m;
    m.sessionID = sessionID;
    m.messageKey = key;
    m.timestamp = timestamp;
    m.role = type == "user" ? QuotaSessionRole::user : type == "gemini" ? QuotaSessionRole::assistant : QuotaSessionRole::meta;
    m.isPrompt = m.role == QuotaSessionRole::user && hasText;
    if (m.role == QuotaSessionRole::assistant && !model.empty()) m.model = model;
    m.tokenUsage = counted;
    if (keepsText(file.capture, m.role, m.isPrompt) && !text.empty()) m.text = std::move(text);
    sink.message(std::move(m));
}

// A document {"sessionId", "messages": [...]}: its messages in order.
void readDocumentObject(object document, std::int64_t offset, const LogFileContext& file, std::string& sessionID,
                        LogRecordSink& sink) {
    for (auto field : document) {
        std::string_view key;
        if (field.unescaped_key().get(key)) return sink.badLine(offset, "malformed JSON");
        value v = field.value();
        if (key == "sessionId") {
            if (const auto id = jsonline::text(v)) sessionID = std::string(*id);
        } else if (key == "messages") {
            simdjson::ondemand::array messages;
            if (v.get_array().get(messages)) return sink.badLine(offset, "messages that are not a list");
            if (sessionID.empty()) sessionID = file.path.stem().string();  // the id comes first in every version seen
            for (auto element : messages) {
                object message;
                if (element.get_object().get(message)) return sink.badLine(offset, "malformed JSON");
                readMessage(message, sessionID, offset, file, sink);
            }
        }
    }
    if (!sessionID.empty()) sink.session(sessionID, "");  // the log keeps only a hash of the project's path
}

class GeminiLogs final : public CodingToolLogs {
public:
    QuotaSessionProviderIdentity provider() const override { return {"gemini", "Gemini"}; }
    std::int64_t parserVersion() const override { return 1; }

    std::vector<fs::path> defaultHomes() const override {
        if (const char* home = std::getenv("GEMINI_CLI_HOME"); home && *home) return {fs::path(home) / ".gemini"};
        const char* home = std::getenv("HOME");
        if (!home || !*home) return {};
        return {fs::path(home) / ".gemini"};
    }

    std::vector<fs::path> logFolders() const override { return {"tmp"}; }

    std::optional<LogLayout> layoutOf(const fs::path& file) const override {
        if (file.parent_path().filename() != "chats" || !file.filename().string().starts_with("session-")) return std::nullopt;
        if (file.extension() == ".json") return LogLayout::wholeDocument;
        if (file.extension() == ".jsonl") return LogLayout::appendedLines;
        return std::nullopt;
    }

    void parseDocument(std::string_view text, const LogFileContext& file, LogRecordSink& sink) const override {
        PendingRecords pending;
        const auto object = file.parser->object(text);
        if (!object) {
            sink.badLine(0, "not a complete JSON object");
            return;
        }
        std::string sessionID;
        readDocumentObject(*object, 0, file, sessionID, pending);
        pending.flushTo(sink);
    }

    // The .jsonl form: a line holding "messages" is a whole document; a line with a "type" is
    // one message; any other line names the session the following messages belong to.
    void parseLines(std::span<const LogLine> lines, const LogFileContext& file, std::string& state,
                    LogRecordSink& sink) const override {
        PendingRecords pending;
        for (const auto& line : lines) {
            const auto object = file.parser->object(line.text);
            if (!object) {
                sink.badLine(line.offset, "not a complete JSON object");
                continue;
            }
            readLine(*object, line.offset, file, state, pending);
            pending.flushTo(sink);
        }
    }

private:
    static void readLine(object record, std::int64_t offset, const LogFileContext& file, std::string& sessionID,
                         LogRecordSink& sink) {
        // A message line carries "type"; find out what kind of line this is without a second
        // parse by reading its session id and type first when they lead.
        std::string lineSession;
        for (auto field : record) {
            std::string_view key;
            if (field.unescaped_key().get(key)) return sink.badLine(offset, "malformed JSON");
            if (key == "sessionId") {
                if (const auto id = jsonline::text(field.value())) lineSession = std::string(*id);
            }
        }
        if (!lineSession.empty()) sessionID = lineSession;
        if (sessionID.empty()) sessionID = file.path.stem().string();
        record.reset();
        bool isMessage = false, isDocument = false;
        for (auto field : record) {
            std::string_view key;
            if (field.unescaped_key().get(key)) return sink.badLine(offset, "malformed JSON");
            if (key == "type") isMessage = true;
            if (key == "messages") isDocument = true;
        }
        record.reset();
        if (isDocument) return readDocumentObject(record, offset, file, sessionID, sink);
        if (isMessage) return readMessage(record, sessionID, offset, file, sink);
        sink.session(sessionID, "");
    }
};

}  // namespace

std::unique_ptr<CodingToolLogs> makeGeminiLogs() { return std::make_unique<GeminiLogs>(); }

}  // namespace gaugepoint
