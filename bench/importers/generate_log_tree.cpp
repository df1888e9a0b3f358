// Writes a synthetic tree of coding-tool logs for the scan benchmarks: Claude Code, Codex CLI
// and Gemini CLI homes with lines of realistic sizes (prompts, long answers, tool calls and
// their large outputs, usage on every response). Deterministic for a given size and shape.
//   large: few large files (100-900 KB), about two thirds Claude Code, one third Codex and some
//          Gemini by bytes;
//   small: many small files shaped like a heavy user's real history: per 788 MB, 21,000 Claude
//          Code transcripts and subagent files (19 KB median), 6,600 Codex rollouts and 4,200
//          Gemini chats, sizes spread log-normally (asked sizes fall short of whole responses, hence
//          the lower median asked of Claude Code files).
//
// usage: generate_log_tree DIR MEGABYTES [large|small]
// The homes are DIR/claude (CLAUDE_CONFIG_DIR), DIR/codex (CODEX_HOME) and DIR/gemini/.gemini
// (GEMINI_CLI_HOME=DIR/gemini).

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>

namespace {

namespace fs = std::filesystem;

const char* kWords[] = {"the",      "device",  "snapshot", "quota",   "window",  "retry",   "upload",  "client",
                        "function", "returns", "error",    "test",    "store",   "session", "token",   "cache",
                        "render",   "widget",  "parse",    "build",   "schema",  "import",  "value",   "report",
                        "étage",    "données", "测试",     "配额",    "json",    "line",    "offset",  "file"};

class Generator {
public:
    explicit Generator(std::uint64_t seed) : random_(seed) {}

    std::string words(std::size_t bytes) {
        std::string text;
        while (text.size() < bytes) {
            text += kWords[random_() % std::size(kWords)];
            text += (random_() % 17 == 0) ? "\\n" : " ";
        }
        return text;
    }
    std::string uuid() {
        char buffer[40];
        std::snprintf(buffer, sizeof buffer, "%08x-%04x-4%03x-%04x-%012llx", unsigned(random_()), unsigned(random_() & 0xffff),
                      unsigned(random_() & 0xfff), unsigned(0x8000 | (random_() & 0x3fff)),
                      (unsigned long long)(random_() & 0xffffffffffffULL));
        return buffer;
    }
    std::uint64_t next(std::uint64_t n) { return random_() % n; }
    // A size with the given median whose logarithm spreads by `sigma`, within [low, high].
    std::size_t logNormal(double median, double sigma, std::size_t low, std::size_t high) {
        const double size = median * std::exp(sigma * normal_(random_));
        return std::clamp(std::size_t(size), low, high);
    }

private:
    std::mt19937_64 random_;
    std::normal_distribution<double> normal_;
};

std::string isoTime(std::int64_t millis) {
    const std::time_t seconds = millis / 1000;
    std::tm tm{};
    gmtime_r(&seconds, &tm);
    char buffer[96];
    std::snprintf(buffer, sizeof buffer, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday,
                  tm.tm_hour, tm.tm_min, tm.tm_sec, int(millis % 1000));
    return buffer;
}

constexpr std::int64_t kStart = 1790000000000;  // 2026-09-21, in milliseconds

// One Claude Code session file of about `bytes`; a subagent's file (`parent` given) carries its
// parent's session id.
std::size_t claudeSession(Generator& g, const fs::path& file, std::size_t bytes, std::int64_t start,
                          const std::string& parent = "") {
    std::ofstream out(file, std::ios::binary);
    const std::string session = parent.empty() ? file.stem().string() : parent;
    const std::string sidechain = parent.empty() ? "false" : "true";
    const std::string cwd = "/home/dev/src/project-" + std::to_string(g.next(40));
    std::size_t written = 0;
    std::int64_t t = start;
    std::string previous = "null";
    const auto head = [&](const std::string& uuid) {
        std::string h = "{\"parentUuid\":" + previous + ",\"isSidechain\":" + sidechain + ",\"userType\":\"external\",\"cwd\":\"" + cwd +
                        "\",\"sessionId\":\"" + session + "\",\"version\":\"2.0.28\",\"gitBranch\":\"main\",";
        previous = "\"" + uuid + "\"";
        return h;
    };
    while (written < bytes) {
        t += 20000 + std::int64_t(g.next(400000));
        std::string uuid = g.uuid();
        std::string line = head(uuid) + "\"type\":\"user\",\"message\":{\"role\":\"user\",\"content\":\"" + g.words(120 + g.next(600)) +
                           "\"},\"uuid\":\"" + uuid + "\",\"timestamp\":\"" + isoTime(t) + "\"}\n";
        const int responses = 1 + int(g.next(6));
        for (int r = 0; r < responses; ++r) {
            const std::string messageID = "msg_01" + g.uuid().substr(0, 22);
            const std::string requestID = "req_011C" + g.uuid().substr(0, 20);
            // The cache write split into its 5-minute and 1-hour parts, which add up to it.
            const std::uint64_t write5m = g.next(16000), write1h = g.next(4000);
            const std::string usage = "\"usage\":{\"input_tokens\":" + std::to_string(g.next(60)) +
                                      ",\"cache_creation_input_tokens\":" + std::to_string(write5m + write1h) +
                                      ",\"cache_read_input_tokens\":" + std::to_string(g.next(300000)) +
                                      ",\"cache_creation\":{\"ephemeral_5m_input_tokens\":" + std::to_string(write5m) +
                                      ",\"ephemeral_1h_input_tokens\":" + std::to_string(write1h) + "},"
                                      "\"output_tokens\":" + std::to_string(g.next(4000)) + ",\"service_tier\":\"standard\"}";
            // One line per content block: thinking, text, tool_use, each with the same usage.
            for (const char* block : {"thinking", "text", "tool_use"}) {
                t += 1 + std::int64_t(g.next(40));
                uuid = g.uuid();
                std::string content = std::string(block) == "tool_use"
                                          ? "{\"type\":\"tool_use\",\"id\":\"toolu_" + g.uuid().substr(0, 20) +
                                                "\",\"name\":\"Bash\",\"input\":{\"command\":\"" + g.words(80) + "\"}}"
                                          : "{\"type\":\"" + std::string(block) + "\",\"" + block + "\":\"" +
                                                g.words(200 + g.next(1500)) + "\"}";
                line += head(uuid) + "\"message\":{\"id\":\"" + messageID +
                        "\",\"type\":\"message\",\"role\":\"assistant\",\"model\":\"claude-sonnet-4-5-20250929\","
                        "\"content\":[" + content + "],\"stop_reason\":null,\"stop_sequence\":null," + usage +
                        "},\"requestId\":\"" + requestID + "\",\"type\":\"assistant\",\"uuid\":\"" + uuid +
                        "\",\"timestamp\":\"" + isoTime(t) + "\"}\n";
            }
            // The tool's output comes back as a user line, often large.
            t += 500 + std::int64_t(g.next(20000));
            uuid = g.uuid();
            line += head(uuid) + "\"type\":\"user\",\"message\":{\"role\":\"user\",\"content\":[{\"tool_use_id\":\"toolu_x\","
                    "\"type\":\"tool_result\",\"content\":\"" + g.words(500 + g.next(g.next(10) == 0 ? 60000 : 6000)) +
                    "\",\"is_error\":false}]},\"uuid\":\"" + uuid + "\",\"timestamp\":\"" + isoTime(t) + "\"}\n";
            if (written + line.size() >= bytes) break;
        }
        out << line;
        written += line.size();
    }
    return written;
}

// One Codex rollout of about `bytes`, with running totals.
std::size_t codexSession(Generator& g, const fs::path& file, const std::string& session, std::size_t bytes, std::int64_t start) {
    std::ofstream out(file, std::ios::binary);
    std::int64_t t = start, input = 0, cached = 0, output = 0, reasoning = 0;
    std::string line = "{\"timestamp\":\"" + isoTime(t) + "\",\"type\":\"session_meta\",\"payload\":{\"id\":\"" + session +
                       "\",\"timestamp\":\"" + isoTime(t) + "\",\"cwd\":\"/home/dev/src/project-" + std::to_string(g.next(40)) +
                       "\",\"originator\":\"codex_cli_rs\",\"cli_version\":\"0.58.0\"}}\n";
    std::size_t written = 0;
    while (written < bytes) {
        t += 10000 + std::int64_t(g.next(200000));
        line += "{\"timestamp\":\"" + isoTime(t) + "\",\"type\":\"turn_context\",\"payload\":{\"cwd\":\"/x\",\"model\":\"" +
                std::string(g.next(3) == 0 ? "gpt-5" : "gpt-5-codex") + "\",\"effort\":\"medium\"}}\n";
        line += "{\"timestamp\":\"" + isoTime(t) + "\",\"type\":\"event_msg\",\"payload\":{\"type\":\"user_message\",\"message\":\"" +
                g.words(100 + g.next(400)) + "\",\"images\":[]}}\n";
        for (int step = 0; step < 1 + int(g.next(5)); ++step) {
            t += 2000 + std::int64_t(g.next(30000));
            line += "{\"timestamp\":\"" + isoTime(t) + "\",\"type\":\"response_item\",\"payload\":{\"type\":\"function_call_output\","
                    "\"call_id\":\"call_1\",\"output\":\"" + g.words(300 + g.next(g.next(8) == 0 ? 30000 : 4000)) + "\"}}\n";
            const std::int64_t in = 2000 + std::int64_t(g.next(40000)), cache = in * std::int64_t(g.next(90)) / 100,
                               out = 50 + std::int64_t(g.next(3000)), think = out * std::int64_t(g.next(60)) / 100;
            input += in, cached += cache, output += out, reasoning += think;
            const auto usage = [&](std::int64_t i, std::int64_t c, std::int64_t o, std::int64_t r) {
                return "{\"input_tokens\":" + std::to_string(i) + ",\"cached_input_tokens\":" + std::to_string(c) +
                       ",\"output_tokens\":" + std::to_string(o) + ",\"reasoning_output_tokens\":" + std::to_string(r) +
                       ",\"total_tokens\":" + std::to_string(i + o) + "}";
            };
            const std::string event = "{\"timestamp\":\"" + isoTime(t) +
                                      "\",\"type\":\"event_msg\",\"payload\":{\"type\":\"token_count\",\"info\":{\"total_token_usage\":" +
                                      usage(input, cached, output, reasoning) + ",\"last_token_usage\":" + usage(in, cache, out, think) +
                                      ",\"model_context_window\":272000},\"rate_limits\":{\"primary\":{\"used_percent\":" +
                                      std::to_string(g.next(100)) + ".5,\"window_minutes\":300,\"resets_at\":" +
                                      std::to_string(t / 1000 + 3600) + "},\"secondary\":{\"used_percent\":12.9,\"window_minutes\":"
                                      "10080,\"resets_at\":" + std::to_string(t / 1000 + 86400) + "}}}}\n";
            line += event;
            if (g.next(3) == 0) line += event;  // repeated with unchanged totals, as Codex does
        }
        line += "{\"timestamp\":\"" + isoTime(t) + "\",\"type\":\"event_msg\",\"payload\":{\"type\":\"agent_message\",\"message\":\"" +
                g.words(200 + g.next(1200)) + "\"}}\n";
        out << line;
        written += line.size();
        line.clear();
    }
    return written;
}

// One Gemini chat document of about `bytes`.
std::size_t geminiSession(Generator& g, const fs::path& file, const std::string& session, std::size_t bytes, std::int64_t start) {
    std::ofstream out(file, std::ios::binary);
    std::string doc = "{\"sessionId\":\"" + session + "\",\"projectHash\":\"0a13\",\"startTime\":\"" + isoTime(start) +
                      "\",\"lastUpdated\":\"" + isoTime(start) + "\",\"messages\":[";
    std::int64_t t = start;
    bool first = true;
    while (doc.size() < bytes) {
        t += 30000 + std::int64_t(g.next(300000));
        if (!first) doc += ",";
        first = false;
        doc += "{\"id\":\"" + g.uuid() + "\",\"timestamp\":\"" + isoTime(t) + "\",\"type\":\"user\",\"content\":\"" + g.words(300) + "\"},";
        // Real chats always carry their total: input + output + thoughts + tool.
        const std::int64_t input = 3000 + std::int64_t(g.next(40000)), cached = input * std::int64_t(g.next(50)) / 100;
        const std::int64_t output = std::int64_t(g.next(2000)), thoughts = std::int64_t(g.next(800)),
                           tool = g.next(4) == 0 ? std::int64_t(g.next(500)) : 0;
        doc += "{\"id\":\"" + g.uuid() + "\",\"timestamp\":\"" + isoTime(t + 9000) + "\",\"type\":\"gemini\",\"content\":\"" +
               g.words(1500 + g.next(4000)) + "\",\"thoughts\":[],\"toolCalls\":[],\"model\":\"gemini-2.5-pro\",\"tokens\":{\"input\":" +
               std::to_string(input) + ",\"output\":" + std::to_string(output) + ",\"cached\":" + std::to_string(cached) +
               ",\"thoughts\":" + std::to_string(thoughts) + ",\"tool\":" + std::to_string(tool) + ",\"total\":" + std::to_string(input + output + thoughts + tool) + "}}";
    }
    doc += "]}";
    out << doc;
    return doc.size();
}


// Few large files: sessions of 100-900 KB.
void largeShape(Generator& g, const fs::path& root, std::size_t total) {
    std::size_t claude = 0, codex = 0, gemini = 0, files = 0;
    std::int64_t start = kStart;
    while (claude + codex + gemini < total) {
        const std::uint64_t pick = g.next(100);
        start += 600000;
        ++files;
        if (pick < 64) {
            const fs::path dir = root / "claude" / "projects" / ("-home-dev-src-project-" + std::to_string(g.next(40)));
            fs::create_directories(dir);
            claude += claudeSession(g, dir / (g.uuid() + ".jsonl"), 100000 + g.next(700000), start);
        } else if (pick < 97) {
            const fs::path dir = root / "codex" / "sessions" / "2026" / "10" / std::to_string(10 + g.next(20));
            fs::create_directories(dir);
            const std::string id = g.uuid();
            codex += codexSession(g, dir / ("rollout-2026-10-01T10-00-00-" + id + ".jsonl"), id, 100000 + g.next(800000), start);
        } else {
            const fs::path dir = root / "gemini" / ".gemini" / "tmp" / "0a135305f7a07ab9" / "chats";
            fs::create_directories(dir);
            const std::string id = g.uuid();
            gemini += geminiSession(g, dir / ("session-2026-10-01T10-00-" + id.substr(0, 8) + ".json"), id,
                                    50000 + g.next(400000), start);
        }
    }
    std::printf("%zu files: Claude Code %zu MB, Codex %zu MB, Gemini %zu MB\n", files, claude >> 20, codex >> 20, gemini >> 20);
}

// Many small files, in the proportions of a real heavy user's history (see the top). About a
// third of the Claude Code files are subagent transcripts beside their parent session.
void smallShape(Generator& g, const fs::path& root, std::size_t total) {
    const double scale = double(total) / double(std::size_t(788) << 20);
    const auto count = [&](double perTree) { return std::max<std::size_t>(1, std::size_t(perTree * scale)); };
    const std::size_t claudeFiles = count(21000), codexFiles = count(6600), geminiFiles = count(4200);
    std::size_t claude = 0, codex = 0, gemini = 0, files = 0;
    std::int64_t start = kStart - 200LL * 86400 * 1000;  // months of history
    const std::int64_t step = 200LL * 86400 * 1000 / std::int64_t(claudeFiles + codexFiles + geminiFiles);
    std::vector<fs::path> parents;
    for (std::size_t made = 0; made < claudeFiles + codexFiles + geminiFiles; ++made) {
        start += step;
        const std::uint64_t pick = g.next(claudeFiles + codexFiles + geminiFiles);
        ++files;
        if (pick < claudeFiles) {
            const fs::path dir = root / "claude" / "projects" / ("-home-dev-src-project-" + std::to_string(g.next(60)));
            fs::create_directories(dir);
            const std::size_t bytes = g.logNormal(13500, 0.75, 1500, 4000000);
            if (!parents.empty() && g.next(3) == 0) {
                const fs::path& parent = parents[g.next(parents.size())];
                const fs::path agents = parent.parent_path() / parent.stem() / "subagents";
                fs::create_directories(agents);
                claude += claudeSession(g, agents / ("agent-" + g.uuid().substr(0, 8) + ".jsonl"), bytes, start,
                                        parent.stem().string());
            } else {
                const fs::path file = dir / (g.uuid() + ".jsonl");
                claude += claudeSession(g, file, bytes, start);
                parents.push_back(file);
            }
        } else if (pick < claudeFiles + codexFiles) {
            const fs::path dir = root / "codex" / "sessions" / "2026" / std::to_string(10 + g.next(3)) / std::to_string(10 + g.next(18));
            fs::create_directories(dir);
            const std::string id = g.uuid();
            codex += codexSession(g, dir / ("rollout-2026-10-01T10-00-00-" + id + ".jsonl"), id,
                                  g.logNormal(20000, 0.8, 2000, 3000000), start);
        } else {
            const fs::path dir = root / "gemini" / ".gemini" / "tmp" / ("project-" + std::to_string(g.next(20))) / "chats";
            fs::create_directories(dir);
            const std::string id = g.uuid();
            gemini += geminiSession(g, dir / ("session-2026-10-01T10-00-" + id.substr(0, 8) + ".json"), id,
                                    g.logNormal(10000, 0.7, 1000, 1000000), start);
        }
    }
    std::printf("%zu files: Claude Code %zu MB, Codex %zu MB, Gemini %zu MB\n", files, claude >> 20, codex >> 20, gemini >> 20);
}

}  // namespace

int main(int argc, char** argv) {
    const std::string shape = argc == 4 ? argv[3] : "large";
    if ((argc != 3 && argc != 4) || (shape != "large" && shape != "small")) {
        std::fprintf(stderr, "usage: generate_log_tree DIR MEGABYTES [large|small]\n");
        return 2;
    }
    const fs::path root = argv[1];
    const std::size_t total = std::size_t(std::stoull(argv[2])) << 20;
    Generator g{42};
    if (shape == "large") {
        largeShape(g, root, total);
    } else {
        smallShape(g, root, total);
    }
    return 0;
}
