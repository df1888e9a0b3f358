// OpenCode: one SQLite database, opencode.db (a channel build's opencode-<channel>.db beside it),
// in $XDG_DATA_HOME/opencode. Assistant rows of `message` hold a response's tokens, but OpenCode
// updates them in place and overwrites their tokens at every step of a multi-step response; the
// `step-finish` rows of `part` hold every step. So a message is counted by its step records where
// it has them, else by its own tokens. A scan reads only the messages added or updated since the
// last one (OpenCode stamps `time_updated` in ms at every write) and those with new or updated
// steps, each with all its steps; what such a message gave before is replaced, never added to.
// A session's `title` is its title (a renamed session's row is stamped too).
//
// OpenCode stores input without its cached part and output without reasoning: the four counts are
// input, output + reasoning, cache read, cache write. Its `cost` is US dollars it computed itself
// (0 for free or subscription providers, which are then priced like any other usage).

#include <map>
#include <set>

#include "gaugepoint/importers/CodingToolLogs.hpp"
#include "gaugepoint/importers/JsonLineParser.hpp"
#include "gaugepoint/importers/ToolDatabase.hpp"
#include "gaugepoint/stores/SQLite.hpp"
#include "gaugepoint/stores/SQLiteStore.hpp"

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
    // 2: records keyed by their row's id, so that a row read again replaces what it gave.
    std::int64_t parserVersion() const override { return 2; }

    std::vector<fs::path> defaultHomes() const override {
        if (const auto home = belowDataHome("opencode")) return {*home};
        return {};
    }
    std::vector<fs::path> logFolders() const override { return {"."}; }
    bool descendsInto(LogPath) const override { return false; }  // storage/ holds legacy files only

    std::optional<LogLayout> layoutOf(LogPath file) const override {
        const std::string_view name = file.filename();
        if (file.parts() != 1) return std::nullopt;
        if (name == "opencode.db" || (name.starts_with("opencode-") && file.extension() == ".db")) return LogLayout::database;
        return std::nullopt;
    }

    void parseLines(std::span<const LogLine>, const LogFileContext&, std::string&, LogRecordSink&) const override {}
    bool parseDocument(std::string_view, const LogFileContext&, LogRecordSink&) const override { return true; }

    DatabaseRead readDatabase(sqlite3* database, const LogFileContext& file, std::string& state,
                              LogRecordSink& sink) const override {
        if (!hasTable(database, "message")) {
            state.clear();
            return {};
        }
        sqlite::Connection connection{database};
        const Tables tables = tablesOf(connection, database);
        const auto marks = DatabaseMarks::parse(state);
        const auto markOfTable = [&](const char* table) { return marks ? marks->of(table) : std::nullopt; };
        const auto messageMark = markOfTable("message"), partMark = markOfTable("part"), sessionMark = markOfTable("session");
        DatabaseRead read;
        read.whole = !messageMark || lostRows(database, "message", *messageMark) ||
                     (tables.parts && (!partMark || lostRows(database, "part", *partMark))) ||
                     (tables.stampedSessions && !sessionMark);
        Stamps stamps;
        Selection only;
        if (!read.whole) {
            stamps = {messageMark->lastUpdate, partMark ? partMark->lastUpdate : 0, sessionMark ? sessionMark->lastUpdate : 0};
            std::set<std::string> ids = changedRows(connection, "message", "id", "", *messageMark, stamps.message);
            if (tables.parts) ids.merge(changedRows(connection, "part", "message_id", kStepFinish, *partMark, stamps.part));
            std::set<std::string> sessions;
            if (tables.stampedSessions) sessions = changedRows(connection, "session", "id", "", *sessionMark, stamps.session);
            read.rowGroups.assign(ids.begin(), ids.end());
            only = {jsonArrayOf(read.rowGroups), jsonArrayOf({sessions.begin(), sessions.end()})};
            if (ids.empty() && sessions.empty()) only.reset();
        }
        if (read.whole || only) readMessages(database, file, tables, only, stamps, sink);
        DatabaseMarks next;
        next.set("message", markOf(database, "message", notAfterNow(stamps.message, 1000)));
        if (tables.parts) next.set("part", markOf(database, "part", notAfterNow(stamps.part, 1000)));
        if (tables.stampedSessions) next.set("session", markOf(database, "session", notAfterNow(stamps.session, 1000)));
        state = next.text();
        return read;
    }

private:
    // The latest update times (ms) of the message, step and session rows read.
    struct Stamps {
        std::int64_t message = 0, part = 0, session = 0;
    };
    // Which of its optional tables and columns this database has.
    struct Tables {
        bool parts = false, sessions = false, titles = false, stampedSessions = false;
    };
    // What a read from the marks reads: the messages (JSON array of ids) and the sessions beyond
    // theirs (renamed since) it names; none when it reads everything.
    using Selection = std::optional<std::pair<std::string, std::string>>;

    static Tables tablesOf(sqlite::Connection& connection, sqlite3* database) {
        Tables tables;
        tables.parts = hasTable(database, "part");
        tables.sessions = hasTable(database, "session");
        if (tables.sessions) {
            const auto columns = sqlite::tableColumns(connection, "session", "inspect OpenCode sessions");
            tables.titles = columns.contains("title");
            tables.stampedSessions = columns.contains("time_updated");
        }
        return tables;
    }
    static constexpr const char* kStepFinish = " AND data LIKE '%step-finish%'";

    // The `idColumn` of the rows of `table` added or updated since `mark` (`filter` narrows
    // them); raises `stamp` to their latest update time.
    static std::set<std::string> changedRows(sqlite::Connection& connection, const std::string& table,
                                             const std::string& idColumn, const char* filter, const TableMark& mark,
                                             std::int64_t& stamp) {
        const std::string sql = "SELECT " + idColumn + ", time_updated FROM " + table +
                                " WHERE (rowid > ? OR time_updated > ?)" + filter;
        sqlite::Statement rows{connection, sql.c_str(), "prepare OpenCode changes", "read OpenCode changes"};
        rows.bind(1, mark.lastRowID).bind(2, mark.lastUpdate - kLateCommitSeconds * 1000);
        std::set<std::string> ids;
        while (rows.step()) {
            ids.emplace(rows.text(0).value_or(""));
            stamp = std::max(stamp, rows.integer(1));
        }
        return ids;
    }

    // Reads the messages `only` names (every message when none), with their step records, in
    // order, and the sessions it names; raises `stamps` to their latest update times.
    void readMessages(sqlite3* database, const LogFileContext& file, const Tables& tables, const Selection& only,
                      Stamps& stamps, LogRecordSink& sink) const {
        sqlite::Connection connection{database};
        const auto bindOnly = [&](sqlite::Statement& s) {
            if (only) s.bind(1, only->first);
        };
        constexpr const char* kOnly = " IN (SELECT value FROM json_each(?1))";
        std::map<std::string, std::string> directories;  // session id -> directory
        if (tables.sessions) {
            std::string sql = std::string("SELECT id, directory, ") + (tables.titles ? "title" : "NULL") + ", " +
                              (tables.stampedSessions ? "time_updated" : "0") + " FROM session";
            if (only) sql += std::string(" WHERE id IN (SELECT session_id FROM message WHERE id") + kOnly +
                             ") OR id IN (SELECT value FROM json_each(?2))";
            sqlite::Statement sessions{connection, sql.c_str(), "prepare OpenCode sessions", "read OpenCode sessions"};
            if (only) sessions.bind(1, only->first).bind(2, only->second);
            while (sessions.step()) {
                stamps.session = std::max(stamps.session, sessions.integer(3));
                const std::string id(sessions.text(0).value_or(""));
                directories[id] = std::string(sessions.text(1).value_or(""));
                if (const auto title = sessions.text(2); title && !title->empty()) sink.sessionTitle(id, std::string(*title));
            }
        }
        // Step records by message, in order.
        std::map<std::string, std::vector<std::pair<std::string, Fields>>> steps;
        if (tables.parts) {
            const std::string sql = std::string("SELECT id, message_id, time_created, time_updated, data FROM part WHERE ") +
                                    (only ? std::string("message_id") + kOnly : std::string("1")) + kStepFinish +
                                    " ORDER BY time_created, id";
            sqlite::Statement parts{connection, sql.c_str(), "prepare OpenCode parts", "read OpenCode parts"};
            bindOnly(parts);
            while (parts.step()) {
                stamps.part = std::max(stamps.part, parts.integer(3));
                auto f = readData(*file.parser, parts.text(4).value_or(""));
                if (!f || f->type != "step-finish") continue;
                if (!f->created) f->created = dateFromSeconds(double(parts.integer(2)) / 1000.0);
                steps[std::string(parts.text(1).value_or(""))].emplace_back(std::string(parts.text(0).value_or("")), *f);
            }
        }
        const std::string sql = std::string("SELECT id, session_id, time_created, time_updated, data FROM message") +
                                (only ? std::string(" WHERE id") + kOnly : std::string()) + " ORDER BY time_created, id";
        sqlite::Statement messages{connection, sql.c_str(), "prepare OpenCode messages", "read OpenCode messages"};
        bindOnly(messages);
        std::set<std::string> announced;
        while (messages.step()) {
            stamps.message = std::max(stamps.message, messages.integer(3));
            const std::string id(messages.text(0).value_or(""));
            const std::string sessionID(messages.text(1).value_or(""));
            auto f = readData(*file.parser, messages.text(4).value_or(""));
            if (!f) {
                sink.badLine(0, "message " + id + ": data that is not a JSON object");
                continue;
            }
            if (!f->created) f->created = dateFromSeconds(double(messages.integer(2)) / 1000.0);
            if (announced.insert(sessionID).second) {
                const auto dir = directories.find(sessionID);
                sink.session(sessionID, dir != directories.end() && !dir->second.empty() ? dir->second : f->cwd);
            }
            const auto found = steps.find(id);
            record(id, sessionID, *f, found == steps.end() ? nullptr : &found->second, sink);
        }
    }

    // One message row: a message, and for a response its usage, by its steps where it has
    // them. Its records are keyed by its id (the row's group): the message and a response
    // counted whole by the id, each step by the id, "/" and the step's part id.
    static void record(const std::string& id, const std::string& sessionID, const Fields& f,
                       const std::vector<std::pair<std::string, Fields>>* steps, LogRecordSink& sink) {
        QuotaImportedMessage m;
        m.sessionID = sessionID;
        m.messageKey = id;
        m.timestamp = f.created;
        m.role = f.role == "user" ? QuotaSessionRole::user : f.role == "assistant" ? QuotaSessionRole::assistant
                                                                                   : QuotaSessionRole::meta;
        m.isPrompt = m.role == QuotaSessionRole::user;
        if (f.role != "assistant") {
            sink.message(std::move(m));
            return;
        }
        if (f.bad) {
            sink.badLine(0, "message " + id + ": a token count that is negative, fractional or absurd");
            return;
        }
        m.model = f.model.empty() ? std::optional<std::string>{} : f.model;
        QuotaSessionTokenUsage total;
        const auto count = [&](const std::string& key, const Fields& g, Date at) {
            const auto counts = countsOf(g);
            if (counts.totalTokens() == 0) return;  // a row written before its step finished
            QuotaUsageEntry entry;
            entry.providerID = "opencode";
            entry.sessionID = sessionID;
            entry.dedupKey = key;
            entry.timestamp = at;
            entry.model = f.model.empty() ? "unknown" : f.model;
            entry.tokens = counts;
            total.inputTokens += counts.inputTokens;
            total.outputTokens += counts.outputTokens;
            total.cacheReadTokens += counts.cacheReadTokens;
            total.cacheWriteTokens += counts.cacheWriteTokens;
            sink.usage(std::move(entry));
        };
        if (steps) {
            for (const auto& [partID, step] : *steps) {
                if (!step.bad) count(id + "/" + partID, step, *step.created);
            }
        } else {
            count(id, f, *f.created);
        }
        m.tokenUsage = total;
        sink.message(std::move(m));
    }
};

}  // namespace

std::unique_ptr<CodingToolLogs> makeOpenCodeLogs() { return std::make_unique<OpenCodeLogs>(); }

}  // namespace gaugepoint
