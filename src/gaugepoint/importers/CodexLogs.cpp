// Codex CLI rollouts: sessions/**/*.jsonl and archived_sessions/**/*.jsonl under the home, one
// {"timestamp", "type", "payload"} record per line.
//
// token_count events carry running totals for the file (total_token_usage). An event counts the
// growth of those totals since the file's previous event, so an event repeated with unchanged
// totals adds nothing; an event with "info": null adds nothing; an old event with only
// last_token_usage adds that. The totals are kept as the file's parser state, so lines appended
// later go on from them. Cached input is part of input and reasoning part of output: a delta
// becomes input - cached, output, cached as cache read, and no cache write. The model is that of
// the latest turn_context. The newest rate_limits are kept for this machine's snapshot.

#include <array>
#include <cstdlib>

#include "gaugepoint/importers/CodingToolLogs.hpp"
#include "gaugepoint/platform/Text.hpp"
#include "gaugepoint/importers/JsonLineParser.hpp"
#include "gaugepoint/platform/Json.hpp"

namespace gaugepoint {
namespace {

namespace fs = std::filesystem;
using simdjson::ondemand::object;
using simdjson::ondemand::value;

// What a file's earlier lines leave for the later ones.
struct CodexFileState {
    std::string sessionID;
    std::string model;
    std::optional<std::vector<std::int64_t>> totals;  // input, cached input, output, reasoning, total
};
BOOST_DESCRIBE_STRUCT(CodexFileState, (), (sessionID, model, totals))

using Counts = std::array<std::int64_t, 5>;
constexpr std::string_view kCountKeys[] = {"input_tokens", "cached_input_tokens", "output_tokens",
                                           "reasoning_output_tokens", "total_tokens"};

// The five counts of a usage object; none when one is not a plausible whole number.
std::optional<Counts> readCounts(object usage) {
    Counts counts{};
    for (auto field : usage) {
        std::string_view key;
        if (field.unescaped_key().get(key)) return std::nullopt;
        for (std::size_t i = 0; i < counts.size(); ++i) {
            if (key != kCountKeys[i]) continue;
            const auto n = jsonline::integer(field.value());
            if (!n || !isPlausibleTokenCount(*n)) return std::nullopt;
            counts[i] = *n;
        }
    }
    return counts;
}

std::optional<QuotaObservedRateWindow> readWindow(object window, Date observedAt) {
    QuotaObservedRateWindow w;
    bool hasPercent = false;
    for (auto field : window) {
        std::string_view key;
        if (field.unescaped_key().get(key)) return std::nullopt;
        value v = field.value();
        if (key == "used_percent") {
            if (const auto p = jsonline::number(v)) w.usedPercent = *p, hasPercent = true;
        } else if (key == "window_minutes") {
            w.windowMinutes = jsonline::integer(v);
        } else if (key == "resets_at") {  // epoch seconds
            if (const auto at = jsonline::number(v)) w.resetsAt = dateFromSeconds(*at);
        } else if (key == "resets_in_seconds") {  // older versions: seconds from the event
            if (const auto in = jsonline::number(v); in && !w.resetsAt) w.resetsAt = observedAt + std::chrono::duration<double>(*in);
        }
    }
    if (!hasPercent) return std::nullopt;
    return w;
}

std::optional<QuotaObservedRateLimits> readRateLimits(object limits, Date observedAt) {
    QuotaObservedRateLimits result{"codex", observedAt, std::nullopt, std::nullopt};
    for (auto field : limits) {
        std::string_view key;
        if (field.unescaped_key().get(key)) return std::nullopt;
        object window;
        if (field.value().get_object().get(window)) continue;
        if (key == "primary") result.primary = readWindow(window, observedAt);
        if (key == "secondary") result.secondary = readWindow(window, observedAt);
    }
    if (!result.primary && !result.secondary) return std::nullopt;
    return result;
}

// One line's fields; the payload is read as the type requires, in order.
class LineReader {
public:
    LineReader(const LogLine& line, const LogFileContext& file, CodexFileState& state, LogRecordSink& sink)
        : line_(line), file_(file), state_(state), sink_(sink) {}

    void read(object record) {
        std::string type;
        for (auto field : record) {
            std::string_view key;
            if (field.unescaped_key().get(key)) return bad("malformed JSON");
            value v = field.value();
            if (key == "timestamp") {
                timestamp_ = jsonline::date(v);
            } else if (key == "type") {
                type = std::string(jsonline::text(v).value_or(""));
            } else if (key == "payload") {
                object payload;
                if (v.get_object().get(payload)) return;
                // Writers put "type" first; the payload is read once that is known.
                if (!payload_(payload, type)) return;
            }
        }
    }

private:
    bool payload_(object payload, const std::string& type) {
        if (type == "session_meta") return sessionMeta(payload);
        if (type == "turn_context") return turnContext(payload);
        if (type == "event_msg") return event(payload);
        return true;
    }

    bool sessionMeta(object payload) {
        std::string cwd;
        for (auto field : payload) {
            std::string_view key;
            if (field.unescaped_key().get(key)) return bad("malformed JSON"), false;
            if (key == "id") state_.sessionID = std::string(jsonline::text(field.value()).value_or(""));
            if (key == "cwd") cwd = std::string(jsonline::text(field.value()).value_or(""));
        }
        if (!state_.sessionID.empty()) sink_.session(state_.sessionID, cwd);
        return true;
    }

    bool turnContext(object payload) {
        for (auto field : payload) {
            std::string_view key;
            if (field.unescaped_key().get(key)) return bad("malformed JSON"), false;
            if (key == "model") {
                if (const auto model = jsonline::text(field.value())) state_.model = std::string(*model);
            }
        }
        return true;
    }

    bool event(object payload) {
        std::string kind;
        std::optional<Counts> total, last;
        bool infoNull = false, badCounts = false;
        std::string text;
        for (auto field : payload) {
            std::string_view key;
            if (field.unescaped_key().get(key)) return bad("malformed JSON"), false;
            value v = field.value();
            if (key == "type") {
                kind = std::string(jsonline::text(v).value_or(""));
            } else if (key == "message") {
                if (const auto t = jsonline::text(v)) text = std::string(*t);
            } else if (key == "info") {
                object info;
                if (jsonline::isNull(v) || v.get_object().get(info)) {
                    infoNull = true;
                    continue;
                }
                for (auto part : info) {
                    std::string_view name;
                    if (part.unescaped_key().get(name)) return bad("malformed JSON"), false;
                    object usage;
                    if ((name != "total_token_usage" && name != "last_token_usage") || part.value().get_object().get(usage)) continue;
                    auto counts = readCounts(usage);
                    if (!counts) badCounts = true;
                    (name == "total_token_usage" ? total : last) = counts;
                }
            } else if (key == "rate_limits") {
                object limits;
                if (timestamp_ && !v.get_object().get(limits)) {
                    if (auto observed = readRateLimits(limits, *timestamp_)) sink_.rateLimits(std::move(*observed));
                }
            }
        }
        if (kind == "token_count") {
            if (badCounts) return bad("a token count that is negative, fractional or absurd"), false;
            if (!infoNull) tokenCount(total, last);
        } else if (kind == "user_message" || kind == "agent_message") {
            message(kind == "user_message", text);
        }
        return true;
    }

    void tokenCount(const std::optional<Counts>& total, const std::optional<Counts>& last) {
        if (!timestamp_) return bad("no timestamp");
        Counts delta{};
        if (total) {
            const Counts before = state_.totals ? Counts{(*state_.totals)[0], (*state_.totals)[1], (*state_.totals)[2],
                                                         (*state_.totals)[3], (*state_.totals)[4]}
                                                : Counts{};
            if (!state_.totals) state_.totals.emplace();
            state_.totals->assign(total->begin(), total->end());  // in place: one event after another
            for (std::size_t i = 0; i < delta.size(); ++i) delta[i] = (*total)[i] - before[i];
            // Totals that went down are a restarted counter: they are kept as the new base, and
            // what this one event used cannot be told.
            for (const auto d : delta) {
                if (d < 0) return;
            }
        } else if (last) {
            delta = *last;
        } else {
            return;
        }
        const std::int64_t input = delta[0], cached = delta[1], output = delta[2];
        if (input == 0 && cached == 0 && output == 0) return;  // a repeated event
        if (cached > input) return bad("more cached input than input");
        QuotaUsageEntry entry;
        entry.providerID = "codex";
        entry.sessionID = sessionID();
        entry.dedupKey = concat({sessionID(), "@", std::to_string(line_.offset)});
        entry.timestamp = *timestamp_;
        entry.model = state_.model.empty() ? "unknown" : state_.model;
        entry.tokens = {input - cached, output, cached, 0, std::nullopt};
        sink_.usage(std::move(entry));
    }

    void message(bool fromUser, std::string& text) {
        if (!fromUser && !sink_.keepsEveryMessage()) return sink_.messageSkipped(sessionID());
        QuotaImportedMessage m;
        m.sessionID = sessionID();
        m.messageKey = concat({sessionID(), "@", std::to_string(line_.offset)});
        m.timestamp = timestamp_;
        m.role = fromUser ? QuotaSessionRole::user : QuotaSessionRole::assistant;
        m.isPrompt = fromUser;
        if (!fromUser && !state_.model.empty()) m.model = state_.model;
        if (keepsText(file_.capture, m.role, m.isPrompt) && !text.empty()) m.text = std::move(text);
        sink_.message(std::move(m));
    }

    // The session: from session_meta, else the id at the end of the file name.
    std::string_view sessionID() {
        if (!state_.sessionID.empty()) return state_.sessionID;
        if (nameID_.empty()) {
            const std::string stem = file_.path.stem().string();
            nameID_ = stem.size() > 36 ? stem.substr(stem.size() - 36) : stem;
        }
        return nameID_;
    }

    void bad(std::string reason) { sink_.badLine(line_.offset, std::move(reason)); }

    const LogLine& line_;
    const LogFileContext& file_;
    CodexFileState& state_;
    LogRecordSink& sink_;
    std::optional<Date> timestamp_;
    std::string nameID_;  // the session id from the file name, once asked for
};

class CodexLogs final : public CodingToolLogs {
public:
    QuotaSessionProviderIdentity provider() const override { return {"codex", "Codex"}; }
    std::int64_t parserVersion() const override { return 1; }

    std::vector<fs::path> defaultHomes() const override {
        if (const char* home = std::getenv("CODEX_HOME"); home && *home) return {fs::path(home)};
        const char* home = std::getenv("HOME");
        if (!home || !*home) return {};
        return {fs::path(home) / ".codex"};
    }

    std::vector<fs::path> logFolders() const override { return {"sessions", "archived_sessions"}; }

    std::optional<LogLayout> layoutOf(LogPath file) const override {
        if (file.extension() == ".jsonl") return LogLayout::appendedLines;
        return std::nullopt;
    }

    void parseLines(std::span<const LogLine> lines, const LogFileContext& file, std::string& state,
                    LogRecordSink& sink) const override {
        CodexFileState parsed;
        if (!state.empty()) {
            try {
                parsed = json::decode<CodexFileState>(state);
            } catch (const json::DecodingError&) {
                parsed = {};  // a state from another version: totals start again
            }
        }
        PendingRecords pending;
        jsonline::forEachObject(lines, file, sink, [&](simdjson::ondemand::object object, const LogLine& line) {
            const CodexFileState before = parsed;
            LineReader{line, file, parsed, pending}.read(object);
            if (pending.isBad()) parsed = before;  // a bad line leaves the running totals alone
            pending.flushTo(sink);
        });
        state = json::encode(parsed);
    }

    bool parseDocument(std::string_view, const LogFileContext&, LogRecordSink&) const override { return true; }
};

}  // namespace

std::unique_ptr<CodingToolLogs> makeCodexLogs() { return std::make_unique<CodexLogs>(); }

}  // namespace gaugepoint
