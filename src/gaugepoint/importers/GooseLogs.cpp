// Goose: sessions/sessions.db in its data directory ($GOOSE_PATH_ROOT/data, else
// $XDG_DATA_HOME/goose), a SQLite database with one row per session whose counters are running
// totals updated in place. There is no per-response usage: a session counts as one entry with
// its latest totals, dated at the session's start. A scan reads only the sessions added or
// updated since the last one; a row read again replaces its earlier totals, never adds to them.
//
// Input and output are the accumulated counters (the plain ones only cover the current context
// window and are a fallback); total - input - output is reasoning and counts as output. Goose
// records no cache split. `accumulated_cost` is US dollars Goose computed itself. A session's
// `name` is its title.

#include <cstdlib>

#include "gaugepoint/importers/CodingToolLogs.hpp"
#include "gaugepoint/importers/JsonLineParser.hpp"
#include "gaugepoint/importers/ToolDatabase.hpp"
#include "gaugepoint/stores/SQLite.hpp"

namespace gaugepoint {
namespace {

namespace fs = std::filesystem;

// "YYYY-MM-DD HH:MM:SS" in UTC, as Goose writes it.
std::optional<Date> gooseTime(std::string_view text) {
    if (text.size() < 19) return std::nullopt;
    std::string iso(text.substr(0, 19));
    iso[10] = 'T';
    return parseISO8601(iso + "Z");
}

std::string modelName(JsonLineParser& parser, std::string_view json) {
    const PaddedJson padded{json};
    auto config = parser.object(padded.text());
    if (!config) return "";
    for (auto field : *config) {
        std::string_view key;
        if (field.unescaped_key().get(key)) return "";
        if (key == "model_name") return std::string(jsonline::text(field.value()).value_or(""));
    }
    return "";
}

class GooseLogs final : public CodingToolLogs {
public:
    QuotaSessionProviderIdentity provider() const override { return {"goose", "Goose"}; }
    // 2: session names as titles, and reads from the table's marks.
    std::int64_t parserVersion() const override { return 2; }

    std::vector<fs::path> defaultHomes() const override {
        if (const char* root = std::getenv("GOOSE_PATH_ROOT"); root && *root) return {fs::path(root) / "data"};
        if (const auto home = belowDataHome("goose")) return {*home};
        return {};
    }
    std::vector<fs::path> logFolders() const override { return {"sessions"}; }
    bool descendsInto(LogPath) const override { return false; }

    std::optional<LogLayout> layoutOf(LogPath file) const override {
        if (file.text == "sessions.db") return LogLayout::database;
        return std::nullopt;
    }

    void parseLines(std::span<const LogLine>, const LogFileContext&, std::string&, LogRecordSink&) const override {}
    bool parseDocument(std::string_view, const LogFileContext&, LogRecordSink&) const override { return true; }

    DatabaseRead readDatabase(sqlite3* database, const LogFileContext& file, std::string& state,
                              LogRecordSink& sink) const override {
        if (!hasTable(database, "sessions")) {
            state.clear();
            return {};
        }
        sqlite::Connection connection{database};
        const auto marks = DatabaseMarks::parse(state);
        const auto mark = marks ? marks->of("sessions") : std::nullopt;
        DatabaseRead read;
        read.whole = !mark || lostRows(database, "sessions", *mark);
        // Goose stamps `updated_at` (whole seconds) whenever it writes a session's totals.
        std::string sql =
            "SELECT id, working_dir, created_at, model_config_json,"
            " COALESCE(accumulated_input_tokens, input_tokens, 0),"
            " COALESCE(accumulated_output_tokens, output_tokens, 0),"
            " COALESCE(accumulated_total_tokens, total_tokens, 0), accumulated_cost,"
            " IFNULL(CAST(strftime('%s', updated_at) AS INTEGER), 0), name "
            "FROM sessions ";
        if (!read.whole) sql += "WHERE rowid > ? OR CAST(strftime('%s', updated_at) AS INTEGER) > ? ";
        sql += "ORDER BY id";
        sqlite::Statement rows{connection, sql.c_str(), "prepare Goose sessions", "read Goose sessions"};
        std::int64_t stamp = 0;
        if (!read.whole) {
            rows.bind(1, mark->lastRowID).bind(2, mark->lastUpdate - kLateCommitSeconds);
            stamp = mark->lastUpdate;
        }
        while (rows.step()) {
            stamp = std::max(stamp, rows.integer(8));
            const std::string id(rows.text(0).value_or(""));
            if (!read.whole) read.rowGroups.push_back("session:" + id);
            record(rows, id, file, sink);
        }
        DatabaseMarks next;
        next.set("sessions", markOf(database, "sessions", notAfterNow(stamp, 1)));
        state = next.text();
        return read;
    }

private:
    // One session row: one response with its latest totals, keyed "session:" and its id.
    static void record(const sqlite::Statement& rows, const std::string& id, const LogFileContext& file,
                       LogRecordSink& sink) {
        const std::int64_t input = rows.integer(4), output = rows.integer(5), total = rows.integer(6);
        const auto created = gooseTime(rows.text(2).value_or(""));
        const std::string model = modelName(*file.parser, rows.text(3).value_or(""));
        if (id.empty() || model.empty() || (input == 0 && output == 0 && total == 0)) return;
        if (!created || !isPlausibleTokenCount(input) || !isPlausibleTokenCount(output) || !isPlausibleTokenCount(total)) {
            sink.badLine(0, "session " + id + ": a start time or token count that cannot be read");
            return;
        }
        sink.session(id, std::string(rows.text(1).value_or("")));
        if (const auto name = rows.text(9); name && !name->empty()) sink.sessionTitle(id, std::string(*name));
        QuotaUsageEntry entry;
        entry.providerID = "goose";
        entry.sessionID = id;
        entry.dedupKey = "session:" + id;
        entry.timestamp = *created;
        entry.model = model;
        entry.tokens = {input, output + std::max<std::int64_t>(0, total - input - output), 0, 0, std::nullopt};
        if (!rows.isNull(7) && rows.real(7) > 0) entry.tokens.exactCostUSD = rows.real(7);
        recordResponse(sink, std::move(entry));
    }
};

}  // namespace

std::unique_ptr<CodingToolLogs> makeGooseLogs() { return std::make_unique<GooseLogs>(); }

}  // namespace gaugepoint
