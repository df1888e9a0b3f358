// Gemini CLI chats: tmp/<project>/chats/session-*.json under the home, one JSON document per
// session, rewritten as the chat grows (read again whole when it changes), and the newer
// append-only session-*.jsonl form (a header, then one message per line, read on from where the
// scan stopped), with subagent chats in chats/<parent session>/<session>.jsonl.
//
// A "gemini" message with a "tokens" object is one response: input is the prompt without its
// cached part plus the tool-use prompt, output is the answer plus the reasoning ("thoughts"),
// cached input is cache read, and there is no cache write. Messages are identified by session
// and message id, so a grown document or a copied line counts each message once. A session's
// `summary` (in the document or header, or patched in by a "$set" line) is its title.

#include <cstdlib>
#include <fstream>

#include "gaugepoint/importers/CodingToolLogs.hpp"
#include "gaugepoint/importers/JsonLineParser.hpp"
#include "gaugepoint/platform/Text.hpp"

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
    if (!jsonline::tokenCounts(tokens, {{"input", {}, &t.input},
                                        {"output", {}, &t.output},
                                        {"cached", {}, &t.cached},
                                        {"thoughts", {}, &t.thoughts},
                                        {"tool", {}, &t.tool}})) {
        return std::nullopt;
    }
    if (t.cached > t.input) return std::nullopt;
    return t;
}

enum class Read { counted, invalid, malformed };

// Reads one message object of session `sessionID` into `sink`: `invalid` (reported to `sink`)
// when its own fields are wrong, `malformed` (nothing reported) when the JSON around it breaks.
Read readMessage(object message, const std::string& sessionID, std::int64_t offset, const LogFileContext& file,
                 LogRecordSink& sink) {
    std::string id, type, model, text;
    std::optional<Date> timestamp;
    std::optional<Tokens> tokens;
    bool hasText = false, badTokens = false;
    const bool wantText = file.capture != QuotaSessionContentCaptureMode::metadataOnly;
    for (auto field : message) {
        std::string_view key;
        if (field.unescaped_key().get(key)) return Read::malformed;
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
    if (type.empty()) return Read::counted;
    if (badTokens) {
        sink.badLine(offset, "a token count that is negative, fractional or absurd");
        return Read::invalid;
    }
    // Messages are keyed by session and id: a message written again (its tokens arrived or grew)
    // and the same session in both generations of file count once.
    const std::string key = sessionID + "/" + (id.empty() ? "@" + std::to_string(offset) : id);
    std::optional<QuotaSessionTokenUsage> counted;
    if (type == "gemini" && tokens) {
        if (!timestamp) {
            sink.badLine(offset, "no timestamp");
            return Read::invalid;
        }
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
    return Read::counted;
}

// Reads a list of messages; false when the list itself is broken. A message with a wrong field is
// reported and skipped, the others count.
bool readMessages(value list, const std::string& sessionID, std::int64_t offset, const LogFileContext& file,
                  LogRecordSink& sink) {
    simdjson::ondemand::array messages;
    if (list.get_array().get(messages)) return false;
    for (auto element : messages) {
        object message;
        if (element.get_object().get(message)) return false;
        PendingRecords one;
        if (readMessage(message, sessionID, offset, file, one) == Read::malformed) return false;
        one.flushTo(sink);
    }
    return true;
}

// The project a chat file belongs to: newer versions write its absolute path into
// tmp/<slug>/.project_root; older ones keep only a hash of it ("" then).
std::string projectRootOf(const fs::path& chatFile) {
    for (fs::path dir = chatFile.parent_path(); dir.has_relative_path() && dir != dir.parent_path(); dir = dir.parent_path()) {
        if (dir.filename() != "chats") continue;
        std::ifstream in(dir.parent_path() / ".project_root");
        std::string root;
        std::getline(in, root);
        return std::string(trimmed(root));
    }
    return "";
}

// A document {"sessionId", "messages": [...]}: its messages in order. False when it is not whole.
bool readDocumentObject(object document, std::int64_t offset, const LogFileContext& file, std::string& sessionID,
                        LogRecordSink& sink) {
    std::string summary;
    for (auto field : document) {
        std::string_view key;
        if (field.unescaped_key().get(key)) return false;
        value v = field.value();
        if (key == "sessionId") {
            if (const auto id = jsonline::text(v)) sessionID = std::string(*id);
        } else if (key == "summary") {
            if (const auto text = jsonline::text(v)) summary = std::string(*text);
        } else if (key == "messages") {
            if (sessionID.empty()) sessionID = file.path.stem().string();  // the id comes first in every version seen
            if (!readMessages(v, sessionID, offset, file, sink)) return false;
        }
    }
    if (sessionID.empty()) return true;
    sink.session(sessionID, projectRootOf(file.path));
    if (!summary.empty()) sink.sessionTitle(sessionID, summary);
    return true;
}

// What a line of the append-only form is, from its top-level keys.
struct LineKind {
    std::string sessionID, summary;
    bool message = false, document = false, patch = false, rewind = false;
};

class GeminiLogs final : public CodingToolLogs {
public:
    QuotaSessionProviderIdentity provider() const override { return {"gemini", "Gemini"}; }
    // 3: session titles (summaries).
    std::int64_t parserVersion() const override { return 3; }

    std::vector<fs::path> defaultHomes() const override {
        if (const char* home = std::getenv("GEMINI_CLI_HOME"); home && *home) return {fs::path(home) / ".gemini"};
        const char* home = std::getenv("HOME");
        if (!home || !*home) return {};
        return {fs::path(home) / ".gemini"};
    }

    std::vector<fs::path> logFolders() const override { return {"tmp"}; }

    // tmp/<project>/chats/session-*.json(l), and subagent chats tmp/<project>/chats/<parent>/<id>.jsonl.
    // Temporary files (.tmp-<pid>) and backups (.unreadable-*) have other extensions.
    std::optional<LogLayout> layoutOf(LogPath file) const override {
        const LogPath parent = file.parent();
        const bool chat = parent.filename() == "chats" && file.filename().starts_with("session-");
        const bool subagent = parent.parent().filename() == "chats";
        if (chat && file.extension() == ".json") return LogLayout::wholeDocument;
        if ((chat || subagent) && file.extension() == ".jsonl") return LogLayout::appendedLines;
        return std::nullopt;
    }

    bool parseDocument(std::string_view text, const LogFileContext& file, LogRecordSink& sink) const override {
        const auto object = file.parser->object(text);
        if (!object) return false;
        DocumentRecords whole;
        std::string sessionID;
        if (!readDocumentObject(*object, 0, file, sessionID, whole)) return false;
        whole.flushTo(sink);
        return true;
    }

    // The append-only form: a header line names the session; a line with a "type" is one
    // message (written again under its id when it changes); "$set" patches the header, and with
    // "messages" replaces the transcript; "$rewindTo" cuts the transcript back. Responses that
    // left the transcript were still billed, so no line takes usage away. A line holding a whole
    // document (older writers) is read as one.
    void parseLines(std::span<const LogLine> lines, const LogFileContext& file, std::string& state,
                    LogRecordSink& sink) const override {
        PendingRecords pending;
        jsonline::forEachObject(lines, file, sink, [&](simdjson::ondemand::object object, const LogLine& line) {
            readLine(object, line.offset, file, state, pending);
            pending.flushTo(sink);
        });
    }

private:
    static void readLine(object record, std::int64_t offset, const LogFileContext& file, std::string& sessionID,
                         LogRecordSink& sink) {
        LineKind kind;
        for (auto field : record) {
            std::string_view key;
            if (field.unescaped_key().get(key)) return sink.badLine(offset, "malformed JSON");
            if (key == "sessionId") {
                if (const auto id = jsonline::text(field.value())) kind.sessionID = std::string(*id);
            } else if (key == "summary") {
                if (const auto text = jsonline::text(field.value())) kind.summary = std::string(*text);
            }
            kind.message = kind.message || key == "type";
            kind.document = kind.document || key == "messages";
            kind.patch = kind.patch || key == "$set";
            kind.rewind = kind.rewind || key == "$rewindTo";
        }
        // A message's own "sessionId" (some writers add it) names the same session as the header.
        if (!kind.sessionID.empty() && !kind.message) sessionID = kind.sessionID;
        if (sessionID.empty()) sessionID = file.path.stem().string();
        record.reset();
        if (kind.rewind) return;
        if (kind.patch) {
            for (auto field : record) {
                std::string_view key;
                if (field.unescaped_key().get(key)) return sink.badLine(offset, "malformed JSON");
                object patch;
                if (key != "$set" || field.value().get_object().get(patch)) continue;
                for (auto set : patch) {
                    std::string_view name;
                    if (set.unescaped_key().get(name)) return sink.badLine(offset, "malformed JSON");
                    if (name == "messages" && !readMessages(set.value(), sessionID, offset, file, sink)) {
                        return sink.badLine(offset, "a message list that is not whole");
                    }
                    if (name == "summary") {
                        if (const auto text = jsonline::text(set.value())) sink.sessionTitle(sessionID, std::string(*text));
                    }
                }
            }
            return;
        }
        if (kind.document) {
            if (!readDocumentObject(record, offset, file, sessionID, sink)) sink.badLine(offset, "malformed JSON");
            return;
        }
        if (kind.message) {
            if (readMessage(record, sessionID, offset, file, sink) == Read::malformed) sink.badLine(offset, "malformed JSON");
            return;
        }
        sink.session(sessionID, projectRootOf(file.path));
        if (!kind.summary.empty()) sink.sessionTitle(sessionID, kind.summary);
    }
};

}  // namespace

std::unique_ptr<CodingToolLogs> makeGeminiLogs() { return std::make_unique<GeminiLogs>(); }

}  // namespace gaugepoint
