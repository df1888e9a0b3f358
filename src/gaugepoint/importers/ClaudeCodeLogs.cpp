// Claude Code transcripts: projects/**/*.jsonl under each home, one JSON record per line.
//
// An assistant record whose message has `usage` is one API response. Its four counts are written
// as they stand (input, output, cache read, cache write). Claude Code writes one line per
// content block of a response, and a resumed conversation starts its file with copies of earlier
// lines, so a response is counted once across all files: by message.id and requestId, keeping
// the line with the most output tokens. Lines of the model "<synthetic>" and API error lines are
// Claude Code's own and count nothing. A record belongs to the session its sessionId names, so
// subagent transcripts count toward their parent session. Of the cache writes, the part kept for
// an hour (usage.cache_creation.ephemeral_1h_input_tokens) is carried beside them, as it costs more.

#include <algorithm>
#include <cstdlib>
#include <set>

#include "gaugepoint/importers/CodingToolLogs.hpp"
#include "gaugepoint/importers/JsonLineParser.hpp"
#include "gaugepoint/platform/Text.hpp"

namespace gaugepoint {
namespace {

namespace fs = std::filesystem;
using simdjson::ondemand::object;
using simdjson::ondemand::value;

struct Usage {
    std::optional<std::int64_t> input, output, cacheRead, cacheWrite, cacheWrite1h;
};

// The one-hour part of usage.cache_creation (the five-minute part is the rest of the cache writes).
void readCacheCreation(object parts, Usage& u, bool& bad) {
    for (auto field : parts) {
        std::string_view key;
        if (field.unescaped_key().get(key)) {
            bad = true;
            return;
        }
        if (key != "ephemeral_1h_input_tokens") continue;
        value v = field.value();
        if (jsonline::isNull(v)) continue;
        u.cacheWrite1h = jsonline::integer(v);
        if (!u.cacheWrite1h || !isPlausibleTokenCount(*u.cacheWrite1h)) bad = true;
    }
}

// The fields of one record that the import reads. The texts are views into the parser's buffers,
// valid while its line is handled: a line makes a handful of them, so copies would be most of
// the allocations of a scan.
struct Record {
    std::string_view type, sessionID, uuid, cwd, requestID, messageID, model, role;
    std::string text;
    std::string fileSessionID;  // what sessionID views when the record names none
    std::optional<Date> timestamp;
    std::optional<Usage> usage;
    std::optional<double> cost;
    bool sidechain = false, meta = false, apiError = false, toolResult = false, hasText = false, badCount = false;
};

// Reads usage counts; a count that is not a plausible whole number marks the record bad.
Usage readUsage(object usage, bool& bad) {
    Usage u;
    for (auto field : usage) {
        std::string_view key;
        if (field.unescaped_key().get(key)) {
            bad = true;
            break;
        }
        if (key == "cache_creation") {
            object parts;
            if (!field.value().get_object().get(parts)) readCacheCreation(parts, u, bad);
            continue;
        }
        std::optional<std::int64_t>* slot = key == "input_tokens"                  ? &u.input
                                            : key == "output_tokens"               ? &u.output
                                            : key == "cache_read_input_tokens"     ? &u.cacheRead
                                            : key == "cache_creation_input_tokens" ? &u.cacheWrite
                                                                                   : nullptr;
        if (!slot) continue;
        value v = field.value();
        if (jsonline::isNull(v)) continue;  // read as 0
        *slot = jsonline::integer(v);
        if (!*slot || !isPlausibleTokenCount(**slot)) bad = true;
    }
    return u;
}

bool readMessage(object message, Record& r, bool wantText) {
    for (auto field : message) {
        std::string_view key;
        if (field.unescaped_key().get(key)) return false;
        value v = field.value();
        if (key == "id") {
            r.messageID = jsonline::text(v).value_or("");
        } else if (key == "model") {
            r.model = jsonline::text(v).value_or("");
        } else if (key == "role") {
            r.role = jsonline::text(v).value_or("");
        } else if (key == "usage") {
            object usage;
            if (!v.get_object().get(usage)) r.usage = readUsage(usage, r.badCount);
        } else if (key == "content") {
            // The content is read for the kind of a user record (a tool result is not a prompt)
            // and for text the capture mode keeps.
            auto summary = jsonline::content(v, "tool_result", wantText);
            r.toolResult = summary.sawType;
            r.hasText = summary.hasText;
            r.text = std::move(summary.text);
        }
    }
    return true;
}

std::optional<Record> readRecord(object line, bool wantText) {
    Record r;
    for (auto field : line) {
        std::string_view key;
        if (field.unescaped_key().get(key)) return std::nullopt;
        value v = field.value();
        if (key == "type") {
            r.type = jsonline::text(v).value_or("");
        } else if (key == "timestamp") {
            r.timestamp = jsonline::date(v);
        } else if (key == "sessionId") {
            r.sessionID = jsonline::text(v).value_or("");
        } else if (key == "uuid") {
            r.uuid = jsonline::text(v).value_or("");
        } else if (key == "cwd") {
            r.cwd = jsonline::text(v).value_or("");
        } else if (key == "requestId") {
            r.requestID = jsonline::text(v).value_or("");
        } else if (key == "isSidechain") {
            r.sidechain = jsonline::boolean(v).value_or(false);
        } else if (key == "isMeta") {
            r.meta = jsonline::boolean(v).value_or(false);
        } else if (key == "isApiErrorMessage") {
            r.apiError = jsonline::boolean(v).value_or(false);
        } else if (key == "costUSD") {
            r.cost = jsonline::number(v);
        } else if (key == "message") {
            object message;
            if (!v.get_object().get(message) && !readMessage(message, r, wantText)) return std::nullopt;
        }
    }
    return r;
}

class ClaudeCodeLogs final : public CodingToolLogs {
public:
    QuotaSessionProviderIdentity provider() const override { return {"claude", "Claude"}; }
    // 2: the one-hour part of the cache writes is kept.
    std::int64_t parserVersion() const override { return 2; }

    std::vector<fs::path> defaultHomes() const override {
        if (const char* dirs = std::getenv("CLAUDE_CONFIG_DIR"); dirs && *dirs) {
            return homesFromEnvironment("CLAUDE_CONFIG_DIR");  // set, even to only commas: no other home
        }
        const char* home = std::getenv("HOME");
        if (!home || !*home) return {};
        return {fs::path(home) / ".config" / "claude", fs::path(home) / ".claude"};
    }

    std::vector<fs::path> logFolders() const override { return {"projects"}; }

    std::optional<LogLayout> layoutOf(LogPath file) const override {
        if (file.extension() == ".jsonl") return LogLayout::appendedLines;
        return std::nullopt;
    }

    void parseLines(std::span<const LogLine> lines, const LogFileContext& file, std::string&,
                    LogRecordSink& sink) const override {
        const bool anyText = file.capture != QuotaSessionContentCaptureMode::metadataOnly;
        std::set<std::string, std::less<>> projectsSeen;
        jsonline::forEachObject(lines, file, sink, [&](simdjson::ondemand::object object, const LogLine& line) {
            auto record = readRecord(object, anyText);
            if (!record) {
                sink.badLine(line.offset, "malformed JSON");
                return;
            }
            handle(*record, line, file, sink, projectsSeen);
        });
    }

    bool parseDocument(std::string_view, const LogFileContext&, LogRecordSink&) const override { return true; }

private:
    void handle(Record& r, const LogLine& line, const LogFileContext& file, LogRecordSink& sink,
                std::set<std::string, std::less<>>& projectsSeen) const {
        if (r.type != "user" && r.type != "assistant") return;  // summaries, snapshots, system notes
        if (r.badCount) return sink.badLine(line.offset, "a token count that is negative, fractional or absurd");
        if (!r.timestamp) return sink.badLine(line.offset, "no timestamp");
        // Old transcripts without a sessionId are one session per file.
        if (r.sessionID.empty()) r.sessionID = r.fileSessionID = file.path.stem().string();
        if (!r.cwd.empty() && !projectsSeen.contains(r.sessionID)) {
            const auto& session = *projectsSeen.emplace(r.sessionID).first;
            sink.session(session, std::string(r.cwd));
        }

        const bool synthetic = r.model == "<synthetic>" || r.apiError;
        std::optional<QuotaSessionTokenUsage> tokens;
        if (r.type == "assistant" && r.usage && !synthetic) {
            QuotaUsageEntry entry;
            entry.providerID = "claude";
            entry.sessionID = r.sessionID;
            // One response across files; a line without both ids is counted as it stands.
            entry.dedupKey = !r.messageID.empty() && !r.requestID.empty()
                                 ? concat({r.messageID, ":", r.requestID})
                                 : r.uuid.empty() ? concat({"line:", r.sessionID, "@", std::to_string(line.offset)})
                                                  : concat({"line:", r.uuid});
            entry.timestamp = *r.timestamp;
            entry.model = r.model.empty() ? "unknown" : r.model;
            entry.tokens = {r.usage->input.value_or(0), r.usage->output.value_or(0), r.usage->cacheRead.value_or(0),
                            r.usage->cacheWrite.value_or(0), r.cost};
            // The parts add up to the cache writes; a larger part than the whole is held to it.
            entry.cacheWrite1hTokens = std::min(r.usage->cacheWrite1h.value_or(0), entry.tokens.cacheWriteTokens);
            tokens = entry.tokens;
            sink.usage(std::move(entry));
        }

        const bool assistant = r.type == "assistant";
        const QuotaSessionRole role = assistant ? (synthetic ? QuotaSessionRole::meta : QuotaSessionRole::assistant)
                                      : r.meta      ? QuotaSessionRole::meta
                                      : r.toolResult ? QuotaSessionRole::toolResult
                                                     : QuotaSessionRole::user;
        // A subagent's "user" lines are its parent's instructions, not the person typing.
        const bool prompt = role == QuotaSessionRole::user && !r.sidechain && r.hasText;
        // Most lines are not prompts, and a sink that keeps only prompts need not see them made.
        if (!prompt && !sink.keepsEveryMessage()) return sink.messageSkipped(r.sessionID);
        QuotaImportedMessage message;
        message.sessionID = r.sessionID;
        message.timestamp = r.timestamp;
        message.role = role;
        message.isPrompt = prompt;
        if (assistant) {
            // The content blocks of one response are one message.
            message.messageKey = concat({"a:", r.messageID.empty() ? r.uuid : r.messageID});
            if (!synthetic) message.model = r.model;
            message.tokenUsage = tokens;
        } else {
            message.messageKey = concat({"u:", r.uuid});
        }
        if (message.messageKey.size() <= 2) message.messageKey += concat({r.sessionID, "@", std::to_string(line.offset)});
        if (keepsText(file.capture, message.role, message.isPrompt) && !r.text.empty()) message.text = std::move(r.text);
        sink.message(std::move(message));
    }
};

}  // namespace

std::unique_ptr<CodingToolLogs> makeClaudeCodeLogs() { return std::make_unique<ClaudeCodeLogs>(); }

}  // namespace gaugepoint
