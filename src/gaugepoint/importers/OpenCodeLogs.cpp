// OpenCode: one SQLite database, opencode.db (a channel build's opencode-<channel>.db beside it),
// in $XDG_DATA_HOME/opencode. Assistant rows of `message` hold a response's tokens, but OpenCode
// updates them in place and overwrites their tokens at every step of a multi-step response; the
// `step-finish` rows of `part` hold every step. So a message is counted by its step records where
// it has them, else by its own tokens, and the database is read again whole when it changes
// (what it gave before is replaced, never added to).
//
// OpenCode stores input without its cached part and output without reasoning: the four counts are
// input, output + reasoning, cache read, cache write. Its `cost` is US dollars it computed itself
// (0 for free or subscription providers, which are then priced like any other usage).

#include <map>

#include "gaugepoint/importers/CodingToolLogs.hpp"
#include "gaugepoint/importers/JsonLineParser.hpp"
#include "gaugepoint/importers/ToolDatabase.hpp"
#include "gaugepoint/stores/SQLite.hpp"

namespace gaugepoint {
namespace {

namespace fs = std::filesystem;
using simdjson::ondemand::object;
using simdjson::ondemand::value;

// What a message row or a step part says.
struct Fields {
    std::string role, type, model, cwd;
    std::optional<Date> created;
    std::int64_t input = 0, output = 0, reasoning = 0, cacheRead = 0, cacheWrite = 0;
    std::optional<double> cost;
    bool bad = false;
};

void readTokens(object tokens, Fields& f) {
    for (auto field : tokens) {
        std::string_view key;
        if (field.unescaped_key().get(key)) {
            f.bad = true;
            return;
        }
        value v = field.value();
        if (key == "input") {
            f.bad |= !jsonline::tokenCount(v, f.input);
        } else if (key == "output") {
            f.bad |= !jsonline::tokenCount(v, f.output);
        } else if (key == "reasoning") {
            f.bad |= !jsonline::tokenCount(v, f.reasoning);
        } else if (key == "cache") {
            object cache;
            if (v.get_object().get(cache)) continue;
            for (auto c : cache) {
                std::string_view name;
                if (c.unescaped_key().get(name)) {
                    f.bad = true;
                    return;
                }
                if (name == "read") f.bad |= !jsonline::tokenCount(c.value(), f.cacheRead);
                if (name == "write") f.bad |= !jsonline::tokenCount(c.value(), f.cacheWrite);
            }
        }
    }
}

// The fields of a message's or part's `data`; none when it is not a JSON object.
std::optional<Fields> readData(JsonLineParser& parser, std::string_view json) {
    const PaddedJson padded{json};
    auto data = parser.object(padded.text());
    if (!data) return std::nullopt;
    Fields f;
    for (auto field : *data) {
        std::string_view key;
        if (field.unescaped_key().get(key)) return std::nullopt;
        value v = field.value();
        if (key == "role") {
            f.role = std::string(jsonline::text(v).value_or(""));
        } else if (key == "type") {
            f.type = std::string(jsonline::text(v).value_or(""));
        } else if (key == "modelID") {
            f.model = std::string(jsonline::text(v).value_or(""));
        } else if (key == "cost") {
            f.cost = jsonline::number(v);
        } else if (key == "tokens") {
            object tokens;
            if (!v.get_object().get(tokens)) readTokens(tokens, f);
        } else if (key == "time") {
            object time;
            if (v.get_object().get(time)) continue;
            for (auto t : time) {
                std::string_view name;
                if (t.unescaped_key().get(name)) return std::nullopt;
                if (name == "created") {
                    if (const auto ms = jsonline::integer(t.value())) f.created = dateFromSeconds(double(*ms) / 1000.0);
                }
            }
        } else if (key == "path") {
            object path;
            if (v.get_object().get(path)) continue;
            for (auto p : path) {
                std::string_view name;
                if (p.unescaped_key().get(name)) return std::nullopt;
                if (name == "cwd") f.cwd = std::string(jsonline::text(p.value()).value_or(""));
            }
        }
    }
    return f;
}

QuotaSessionTokenUsage countsOf(const Fields& f) {
    return {f.input, f.output + f.reasoning, f.cacheRead, f.cacheWrite,
            f.cost && *f.cost > 0 ? f.cost : std::nullopt};
}

class OpenCodeLogs final : public CodingToolLogs {
public:
    QuotaSessionProviderIdentity provider() const override { return {"opencode", "OpenCode"}; }
    std::int64_t parserVersion() const override { return 1; }

    std::vector<fs::path> defaultHomes() const override {
        if (const auto home = belowDataHome("opencode")) return {*home};
        return {};
    }
    std::vector<fs::path> logFolders() const override { return {"."}; }
    bool descendsInto(const fs::path&) const override { return false; }  // storage/ holds legacy files only

    std::optional<LogLayout> layoutOf(const fs::path& file) const override {
        const std::string name = file.filename().string();
        if (file.has_parent_path() && file.parent_path() != ".") return std::nullopt;
        if (name == "opencode.db" || (name.starts_with("opencode-") && file.extension() == ".db")) return LogLayout::database;
        return std::nullopt;
    }

    void parseLines(std::span<const LogLine>, const LogFileContext&, std::string&, LogRecordSink&) const override {}
    bool parseDocument(std::string_view, const LogFileContext&, LogRecordSink&) const override { return true; }

    void readDatabase(sqlite3* database, const LogFileContext& file, LogRecordSink& sink) const override {
        if (!hasTable(database, "message")) return;
        sqlite::Connection connection{database};
        std::map<std::string, std::string> directories;  // session id -> directory
        if (hasTable(database, "session")) {
            sqlite::Statement sessions{connection, "SELECT id, directory FROM session", "prepare OpenCode sessions",
                                       "read OpenCode sessions"};
            while (sessions.step()) {
                directories[std::string(sessions.text(0).value_or(""))] = std::string(sessions.text(1).value_or(""));
            }
        }
        // Step records by message, in order.
        std::map<std::string, std::vector<std::pair<std::string, Fields>>> steps;
        if (hasTable(database, "part")) {
            sqlite::Statement parts{connection,
                                    "SELECT id, message_id, time_created, data FROM part "
                                    "WHERE data LIKE '%step-finish%' ORDER BY time_created, id",
                                    "prepare OpenCode parts", "read OpenCode parts"};
            while (parts.step()) {
                auto f = readData(*file.parser, parts.text(3).value_or(""));
                if (!f || f->type != "step-finish") continue;
                if (!f->created) f->created = dateFromSeconds(double(parts.integer(2)) / 1000.0);
                steps[std::string(parts.text(1).value_or(""))].emplace_back(std::string(parts.text(0).value_or("")), *f);
            }
        }
        sqlite::Statement messages{connection,
                                   "SELECT id, session_id, time_created, data FROM message ORDER BY time_created, id",
                                   "prepare OpenCode messages", "read OpenCode messages"};
        std::map<std::string, bool> announced;
        while (messages.step()) {
            const std::string id(messages.text(0).value_or(""));
            const std::string sessionID(messages.text(1).value_or(""));
            auto f = readData(*file.parser, messages.text(3).value_or(""));
            if (!f) {
                sink.badLine(0, "message " + id + ": data that is not a JSON object");
                continue;
            }
            if (!f->created) f->created = dateFromSeconds(double(messages.integer(2)) / 1000.0);
            if (!announced[sessionID]) {
                announced[sessionID] = true;
                const auto dir = directories.find(sessionID);
                sink.session(sessionID, dir != directories.end() && !dir->second.empty() ? dir->second : f->cwd);
            }
            QuotaImportedMessage m;
            m.sessionID = sessionID;
            m.messageKey = id;
            m.timestamp = f->created;
            m.role = f->role == "user" ? QuotaSessionRole::user : f->role == "assistant" ? QuotaSessionRole::assistant
                                                                                         : QuotaSessionRole::meta;
            m.isPrompt = m.role == QuotaSessionRole::user;
            if (f->role != "assistant") {
                sink.message(std::move(m));
                continue;
            }
            if (f->bad) {
                sink.badLine(0, "message " + id + ": a token count that is negative, fractional or absurd");
                continue;
            }
            m.model = f->model.empty() ? std::optional<std::string>{} : f->model;
            QuotaSessionTokenUsage total;
            const auto count = [&](const std::string& key, const Fields& g, Date at) {
                const auto counts = countsOf(g);
                if (counts.totalTokens() == 0) return;  // a row written before its step finished
                QuotaUsageEntry entry;
                entry.providerID = "opencode";
                entry.sessionID = sessionID;
                entry.dedupKey = key;
                entry.timestamp = at;
                entry.model = f->model.empty() ? "unknown" : f->model;
                entry.tokens = counts;
                total.inputTokens += counts.inputTokens;
                total.outputTokens += counts.outputTokens;
                total.cacheReadTokens += counts.cacheReadTokens;
                total.cacheWriteTokens += counts.cacheWriteTokens;
                sink.usage(std::move(entry));
            };
            const auto found = steps.find(id);
            if (found != steps.end()) {
                for (const auto& [partID, step] : found->second) {
                    if (!step.bad) count("step:" + partID, step, *step.created);
                }
            } else {
                count("message:" + id, *f, *f->created);
            }
            m.tokenUsage = total;
            sink.message(std::move(m));
        }
    }
};

}  // namespace

std::unique_ptr<CodingToolLogs> makeOpenCodeLogs() { return std::make_unique<OpenCodeLogs>(); }

}  // namespace gaugepoint
