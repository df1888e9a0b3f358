// pi-agent sessions: sessions/<encoded cwd>/<time>_<session id>.jsonl under
// ${PI_CODING_AGENT_DIR:-~/.pi/agent}, one entry per line after a session header.
//
// An assistant message with `usage` is one response. Its buckets are additive (input without the
// cache, output, cache read, cache write) and `usage.cost.total` is the US dollars pi computed.
// Branches that were abandoned stay in the file and were still billed: every line counts, each
// entry once by its id (a copied line adds nothing).

#include <cstdlib>

#include "gaugepoint/importers/CodingToolLogs.hpp"
#include "gaugepoint/importers/JsonLineParser.hpp"

namespace gaugepoint {
namespace {

namespace fs = std::filesystem;
using simdjson::ondemand::object;
using simdjson::ondemand::value;

struct Usage {
    std::int64_t input = 0, output = 0, cacheRead = 0, cacheWrite = 0;
    std::optional<double> cost;
    bool bad = false;
};

void readUsage(object usage, Usage& u) {
    // The dollars pi recorded for the response: "cost": {"total": ...} beside the counts.
    const auto cost = [&u](std::string_view key, value v) {
        object parts;
        if (key != "cost" || v.get_object().get(parts)) return true;
        for (auto part : parts) {
            std::string_view name;
            if (part.unescaped_key().get(name)) return false;
            if (name == "total") u.cost = jsonline::number(part.value());
        }
        return true;
    };
    u.bad = !jsonline::tokenCounts(usage, {{"input", {}, &u.input},
                                           {"output", {}, &u.output},
                                           {"cacheRead", {}, &u.cacheRead},
                                           {"cacheWrite", {}, &u.cacheWrite}},
                                   cost);
}

class PiLogs final : public CodingToolLogs {
public:
    QuotaSessionProviderIdentity provider() const override { return {"pi", "pi"}; }
    std::int64_t parserVersion() const override { return 1; }

    std::vector<fs::path> defaultHomes() const override {
        if (const char* dir = std::getenv("PI_CODING_AGENT_DIR"); dir && *dir) return {fs::path(dir)};
        if (const auto home = belowHome(fs::path(".pi") / "agent")) return {*home};
        return {};
    }
    std::vector<fs::path> logFolders() const override { return {"sessions"}; }

    std::optional<LogLayout> layoutOf(LogPath file) const override {
        if (file.extension() == ".jsonl" && file.parts() == 2) return LogLayout::appendedLines;
        return std::nullopt;
    }

    // `state` is the session id the header named.
    void parseLines(std::span<const LogLine> lines, const LogFileContext& file, std::string& state,
                    LogRecordSink& sink) const override {
        if (state.empty()) {
            const std::string stem = file.path.stem().string();
            const auto underscore = stem.find('_');
            state = underscore == std::string::npos ? stem : stem.substr(underscore + 1);
        }
        PendingRecords pending;
        jsonline::forEachObject(lines, file, sink, [&](simdjson::ondemand::object record, const LogLine& line) {
            readEntry(record, line.offset, state, pending);
            pending.flushTo(sink);
        });
    }
    bool parseDocument(std::string_view, const LogFileContext&, LogRecordSink&) const override { return true; }

private:
    static void readEntry(object entry, std::int64_t offset, std::string& sessionID, LogRecordSink& sink) {
        std::string type, id, cwd, role, model;
        std::optional<Date> timestamp;
        std::optional<Usage> usage;
        for (auto field : entry) {
            std::string_view key;
            if (field.unescaped_key().get(key)) return sink.badLine(offset, "malformed JSON");
            value v = field.value();
            if (key == "type") {
                type = std::string(jsonline::text(v).value_or(""));
            } else if (key == "id") {
                id = std::string(jsonline::text(v).value_or(""));
            } else if (key == "cwd") {
                cwd = std::string(jsonline::text(v).value_or(""));
            } else if (key == "timestamp") {
                timestamp = jsonline::date(v);
            } else if (key == "message") {
                object message;
                if (v.get_object().get(message)) continue;
                for (auto m : message) {
                    std::string_view name;
                    if (m.unescaped_key().get(name)) return sink.badLine(offset, "malformed JSON");
                    value mv = m.value();
                    if (name == "role") role = std::string(jsonline::text(mv).value_or(""));
                    if (name == "model") model = std::string(jsonline::text(mv).value_or(""));
                    object counts;
                    if (name == "usage" && !mv.get_object().get(counts)) readUsage(counts, usage.emplace());
                }
            }
        }
        if (type == "session") {
            if (!id.empty()) sessionID = id;
            sink.session(sessionID, cwd);
            return;
        }
        if (type != "message" || (role != "assistant" && role != "user")) return;
        if (usage && usage->bad) return sink.badLine(offset, "a token count that is negative, fractional or absurd");
        if (!timestamp) return sink.badLine(offset, "no timestamp");
        const std::string key = sessionID + "/" + (id.empty() ? "@" + std::to_string(offset) : id);
        QuotaImportedMessage m;
        m.sessionID = sessionID;
        m.messageKey = key;
        m.timestamp = timestamp;
        m.role = role == "user" ? QuotaSessionRole::user : QuotaSessionRole::assistant;
        m.isPrompt = m.role == QuotaSessionRole::user;
        if (role == "assistant" && usage) {
            QuotaUsageEntry e;
            e.providerID = "pi";
            e.sessionID = sessionID;
            e.dedupKey = key;
            e.timestamp = *timestamp;
            e.model = model.empty() ? "unknown" : model;
            e.tokens = {usage->input, usage->output, usage->cacheRead, usage->cacheWrite,
                        usage->cost && *usage->cost > 0 ? usage->cost : std::nullopt};
            if (e.tokens.totalTokens() > 0) {
                m.tokenUsage = e.tokens;
                m.model = e.model;
                sink.usage(std::move(e));
            }
        }
        sink.message(std::move(m));
    }
};

}  // namespace

std::unique_ptr<CodingToolLogs> makePiLogs() { return std::make_unique<PiLogs>(); }

}  // namespace gaugepoint
