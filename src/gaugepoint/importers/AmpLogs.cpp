// Amp threads: threads/**/T-<id>.json under ~/.local/share/amp, one JSON document per thread,
// rewritten whole as the thread grows (read again when it changes; a document caught mid-write
// keeps what the file gave before).
//
// Usage is on each assistant message (`usage`, additive counts: input, output, cache write,
// cache read) or, in older threads, in `usageLedger.events`; the two describe the same calls, so
// a thread with ledger events is counted by them alone, each event taking its cache split from
// the message it produced. A response is keyed by thread and message (or ledger event) id, so a
// thread file copied elsewhere under threads/ and a repeated ledger event count once. Credits
// (`credits` of a message's usage or of a ledger event) are Amp's own unit, not US dollars: they
// are kept as the response's charge, with it, and never turned into a cost.

#include <cmath>

#include <map>

#include "gaugepoint/importers/CodingToolLogs.hpp"
#include "gaugepoint/importers/JsonLineParser.hpp"

namespace gaugepoint {
namespace {

namespace fs = std::filesystem;
using simdjson::ondemand::array;
using simdjson::ondemand::object;
using simdjson::ondemand::value;

// An id Amp writes as a number or as a text.
std::string idOf(value v) {
    simdjson::ondemand::json_type type;
    if (v.type().get(type)) return "";
    if (type == simdjson::ondemand::json_type::number) return std::to_string(jsonline::integer(v).value_or(-1));
    return std::string(jsonline::text(v).value_or(""));
}

struct Usage {
    std::string model;
    std::optional<Date> timestamp;
    std::int64_t input = 0, output = 0, cacheWrite = 0, cacheRead = 0;
    double credits = 0;
    bool bad = false, badCredits = false;
};

// A message's `usage` or a ledger event: the same names where they overlap. False when the JSON
// breaks.
bool readUsage(object usage, Usage& u) {
    for (auto field : usage) {
        std::string_view key;
        if (field.unescaped_key().get(key)) return false;
        value v = field.value();
        if (key == "model") {
            u.model = std::string(jsonline::text(v).value_or(""));
        } else if (key == "timestamp") {
            u.timestamp = jsonline::date(v);
        } else if (key == "inputTokens" || key == "input") {
            u.bad |= !jsonline::tokenCount(v, u.input);
        } else if (key == "outputTokens" || key == "output") {
            u.bad |= !jsonline::tokenCount(v, u.output);
        } else if (key == "cacheCreationInputTokens") {
            u.bad |= !jsonline::tokenCount(v, u.cacheWrite);
        } else if (key == "cacheReadInputTokens") {
            u.bad |= !jsonline::tokenCount(v, u.cacheRead);
        } else if (key == "credits") {
            if (jsonline::isNull(v)) continue;
            const auto credits = jsonline::number(v);
            u.badCredits |= !credits || !std::isfinite(*credits) || *credits < 0;
            if (credits) u.credits = *credits;
        } else if (key == "tokens") {
            object tokens;
            if (!v.get_object().get(tokens) && !readUsage(tokens, u)) return false;
        }
    }
    return true;
}

struct Message {
    std::string id, role;
    std::optional<Usage> usage;
};

struct LedgerEvent {
    std::string id, toMessage;
    Usage usage;
};

struct Thread {
    std::string id, title, project;
    std::vector<Message> messages;
    std::vector<LedgerEvent> ledger;
};

bool readMessages(value list, Thread& thread) {
    array messages;
    if (list.get_array().get(messages)) return false;
    for (auto element : messages) {
        object message;
        if (element.get_object().get(message)) return false;
        Message& m = thread.messages.emplace_back();
        for (auto field : message) {
            std::string_view key;
            if (field.unescaped_key().get(key)) return false;
            value v = field.value();
            if (key == "messageId") m.id = idOf(v);
            if (key == "role") m.role = std::string(jsonline::text(v).value_or(""));
            object usage;
            if (key == "usage" && !v.get_object().get(usage) && !readUsage(usage, m.usage.emplace())) return false;
        }
    }
    return true;
}

bool readLedger(object ledger, Thread& thread) {
    for (auto field : ledger) {
        std::string_view key;
        array events;
        if (field.unescaped_key().get(key)) return false;
        if (key != "events" || field.value().get_array().get(events)) continue;
        for (auto element : events) {
            object event;
            if (element.get_object().get(event)) return false;
            LedgerEvent& e = thread.ledger.emplace_back();
            for (auto f : event) {
                std::string_view name;
                if (f.unescaped_key().get(name)) return false;
                if (name == "id") e.id = idOf(f.value());
                if (name == "toMessageId") e.toMessage = idOf(f.value());
            }
            event.reset();
            if (!readUsage(event, e.usage)) return false;
        }
    }
    return true;
}

// The first folder of the thread's environment: a "file://" URI.
std::string projectOf(object env) {
    std::string project;
    for (auto field : env) {
        std::string_view key;
        if (field.unescaped_key().get(key)) return project;
        if (key == "initial") {
            object initial;
            if (field.value().get_object().get(initial)) continue;
            for (auto f : initial) {
                std::string_view name;
                array trees;
                if (f.unescaped_key().get(name) || name != "trees" || f.value().get_array().get(trees)) continue;
                for (auto tree : trees) {
                    object t;
                    if (tree.get_object().get(t)) break;
                    for (auto g : t) {
                        std::string_view k;
                        if (g.unescaped_key().get(k)) break;
                        if (k != "uri") continue;
                        std::string_view uri = jsonline::text(g.value()).value_or("");
                        if (uri.starts_with("file://")) uri.remove_prefix(7);
                        if (project.empty()) project = std::string(uri);
                    }
                }
            }
        }
    }
    return project;
}

class AmpLogs final : public CodingToolLogs {
public:
    QuotaSessionProviderIdentity provider() const override { return {"amp", "Amp"}; }
    // 2: credits are kept, and thread titles.
    std::int64_t parserVersion() const override { return 2; }

    std::vector<fs::path> defaultHomes() const override {
        if (auto homes = homesFromEnvironment("AMP_DATA_DIR"); !homes.empty()) return homes;
        if (const auto home = belowDataHome("amp")) return {*home};
        return {};
    }
    std::vector<fs::path> logFolders() const override { return {"threads"}; }

    std::optional<LogLayout> layoutOf(LogPath file) const override {
        if (file.extension() == ".json") return LogLayout::wholeDocument;
        return std::nullopt;
    }

    void parseLines(std::span<const LogLine>, const LogFileContext&, std::string&, LogRecordSink&) const override {}

    bool parseDocument(std::string_view text, const LogFileContext& file, LogRecordSink& sink) const override {
        auto document = file.parser->object(text);
        if (!document) return false;
        Thread thread;
        for (auto field : *document) {
            std::string_view key;
            if (field.unescaped_key().get(key)) return false;
            value v = field.value();
            object inner;
            if (key == "id") {
                thread.id = std::string(jsonline::text(v).value_or(""));
            } else if (key == "title") {
                thread.title = std::string(jsonline::text(v).value_or(""));
            } else if (key == "messages") {
                if (!readMessages(v, thread)) return false;
            } else if (key == "usageLedger") {
                if (!v.get_object().get(inner) && !readLedger(inner, thread)) return false;
            } else if (key == "env") {
                if (!v.get_object().get(inner)) thread.project = projectOf(inner);
            }
        }
        if (thread.id.empty()) thread.id = file.path.stem().string();
        DocumentRecords whole;
        whole.session(thread.id, thread.project);
        if (!thread.title.empty()) whole.sessionTitle(thread.id, thread.title);
        std::map<std::string, const Message*> byID;
        for (const auto& m : thread.messages) {
            if (!m.id.empty()) byID.emplace(m.id, &m);
        }
        if (!thread.ledger.empty()) {
            for (const auto& e : thread.ledger) {
                Usage u = e.usage;
                const auto to = byID.find(e.toMessage);
                if (to != byID.end() && to->second->usage) {
                    u.cacheRead = to->second->usage->cacheRead;
                    u.cacheWrite = to->second->usage->cacheWrite;
                    u.bad |= to->second->usage->bad;
                }
                record(thread, "ledger:" + (e.id.empty() ? e.toMessage : e.id), u, whole);
            }
        } else {
            for (const auto& m : thread.messages) {
                if (m.role == "assistant" && m.usage) record(thread, "message:" + m.id, *m.usage, whole);
            }
        }
        whole.flushTo(sink);
        return true;
    }

private:
    static void record(const Thread& thread, const std::string& key, const Usage& u, LogRecordSink& sink) {
        if (u.bad) return sink.badLine(0, key + ": a token count that is negative, fractional or absurd");
        if (u.badCredits) return sink.badLine(0, key + ": credits that are negative or not a number");
        if (!u.timestamp) return sink.badLine(0, key + ": no timestamp");
        QuotaUsageEntry entry;
        entry.providerID = "amp";
        entry.sessionID = thread.id;
        entry.dedupKey = thread.id + "/" + key;
        entry.timestamp = *u.timestamp;
        entry.model = u.model.empty() ? "unknown" : u.model;
        entry.tokens = {u.input, u.output, u.cacheRead, u.cacheWrite, std::nullopt};
        entry.charges.credits = u.credits;
        if (entry.tokens.totalTokens() == 0 && !entry.charges.any()) return;
        recordResponse(sink, std::move(entry));
    }
};

}  // namespace

std::unique_ptr<CodingToolLogs> makeAmpLogs() { return std::make_unique<AmpLogs>(); }

}  // namespace gaugepoint
