#pragma once

// What the scan needs to know of one coding tool: where its logs are, which files are logs,
// how each is read, and how its records become usage entries, messages and rate limits. One
// implementation per tool, each in its own file; CodingTools.cpp lists them.

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "gaugepoint/model/QuotaSessionMessage.hpp"
#include "gaugepoint/model/QuotaSessionModes.hpp"
#include "gaugepoint/model/QuotaUsageRecords.hpp"

struct sqlite3;

namespace gaugepoint {

class JsonLineParser;

// How a log file is read: appended line by line (read on from where the last scan stopped),
// rewritten whole (read again from the start whenever it changes), or a SQLite database the tool
// keeps (opened read-only whenever it or its write-ahead log changes, and read from the marks the
// last read left: the rows added or updated since replace what those rows gave before).
enum class LogLayout { appendedLines, wholeDocument, database };

// What one read of a tool's database covered: every row (what the file gave before is then
// replaced whole), or only the rows of `rowGroups`. A group names the records of one row of the
// tool's: the usage entries and messages whose key is the group, or begins with it and a "/";
// each group read replaces what it gave before.
struct DatabaseRead {
    bool whole = true;
    std::vector<std::string> rowGroups;
};

// One complete line of a file and where it starts (bytes from the start of the file). The
// bytes after `text` are readable up to the parser's padding, as fast JSON parsers need.
struct LogLine {
    std::string_view text;
    std::int64_t offset = 0;
};

// Receives what a parser finds. A bad line is reported with its reason and the rest goes on.
class LogRecordSink {
public:
    virtual ~LogRecordSink() = default;
    virtual void usage(QuotaUsageEntry entry) = 0;
    virtual void message(QuotaImportedMessage message) = 0;
    // Whether message() keeps messages that are not prompts. When it does not, a parser may
    // skip making them and name only their session through messageSkipped().
    virtual bool keepsEveryMessage() const { return true; }
    virtual void messageSkipped(std::string_view /*sessionID*/) {}
    // Where a session ran ("" when the log does not say).
    virtual void session(const std::string& sessionID, const std::string& projectPath) = 0;
    // The title the tool keeps for a session (raw: the store makes it one bounded line); the
    // latest read of it wins, so a session the tool renamed takes its new title.
    virtual void sessionTitle(const std::string& sessionID, const std::string& title) = 0;
    virtual void rateLimits(QuotaObservedRateLimits limits) = 0;
    virtual void badLine(std::int64_t offset, std::string reason) = 0;
};

// What a sink was given, held to be passed on later (or dropped); bad-line reports are the
// holder's own business.
class HeldRecords : public LogRecordSink {
public:
    void usage(QuotaUsageEntry entry) override { usage_.push_back(std::move(entry)); }
    void message(QuotaImportedMessage message) override { messages_.push_back(std::move(message)); }
    void session(const std::string& sessionID, const std::string& projectPath) override {
        sessions_.emplace_back(sessionID, projectPath);
    }
    void sessionTitle(const std::string& sessionID, const std::string& title) override {
        titles_.emplace_back(sessionID, title);
    }
    void rateLimits(QuotaObservedRateLimits limits) override { limits_.push_back(std::move(limits)); }

protected:
    // Passes on everything held, in the order of its kinds, and holds nothing after.
    void passOn(LogRecordSink& sink);
    void drop();

private:
    std::vector<QuotaUsageEntry> usage_;
    std::vector<QuotaImportedMessage> messages_;
    std::vector<std::pair<std::string, std::string>> sessions_;
    std::vector<std::pair<std::string, std::string>> titles_;
    std::vector<QuotaObservedRateLimits> limits_;
};

// Holds what one line gave until the whole line has been read, so that a line found bad half
// way contributes nothing.
class PendingRecords final : public HeldRecords {
public:
    void badLine(std::int64_t offset, std::string reason) override {
        if (!bad_) bad_ = std::pair{offset, std::move(reason)};
    }
    bool isBad() const { return bad_.has_value(); }
    // Passes everything on, or only the first bad-line report when there was one; then empties.
    void flushTo(LogRecordSink& sink);

private:
    std::optional<std::pair<std::int64_t, std::string>> bad_;
};

// Holds what a whole document gives until its end has been read, so that a document cut short
// gives nothing; a bad part of a complete document is reported and skipped, the rest counts.
class DocumentRecords final : public HeldRecords {
public:
    void badLine(std::int64_t offset, std::string reason) override { bad_.emplace_back(offset, std::move(reason)); }
    // Passes everything on, bad parts included.
    void flushTo(LogRecordSink& sink);

private:
    std::vector<std::pair<std::int64_t, std::string>> bad_;
};

// What a parser knows of the file at hand.
struct LogFileContext {
    std::filesystem::path path;
    QuotaSessionContentCaptureMode capture = QuotaSessionContentCaptureMode::metadataOnly;
    JsonLineParser* parser = nullptr;
};

// A path below a tool's log folder as the walk finds it ("projects/x/a.jsonl"), taken apart
// without allocating: the walk asks about every entry of a tree of tens of thousands of files.
struct LogPath {
    std::string_view text;  // '/'-separated, no leading '/'

    // The last part ("a.jsonl").
    std::string_view filename() const { return text.substr(text.rfind('/') + 1); }
    // All but the last part ("projects/x"), "" for a path of one part.
    LogPath parent() const {
        const auto slash = text.rfind('/');
        return {slash == std::string_view::npos ? std::string_view{} : text.substr(0, slash)};
    }
    // The file name's extension with its dot (".jsonl"), "" when it has none; a name that only
    // starts with a dot (".jsonl") has none.
    std::string_view extension() const {
        const std::string_view name = filename();
        const auto dot = name.rfind('.');
        return dot == std::string_view::npos || dot == 0 ? std::string_view{} : name.substr(dot);
    }
    // How many parts it has (1 for "a.jsonl").
    std::size_t parts() const { return text.empty() ? 0 : std::size_t(std::count(text.begin(), text.end(), '/')) + 1; }
};

class CodingToolLogs {
public:
    virtual ~CodingToolLogs() = default;

    virtual QuotaSessionProviderIdentity provider() const = 0;
    // Raised whenever the reading rules change, so that the next scan reads every file again.
    virtual std::int64_t parserVersion() const = 0;
    // The tool's home directories when the user names none (from its environment variables,
    // else the usual places); missing ones are simply not there.
    virtual std::vector<std::filesystem::path> defaultHomes() const = 0;
    // The folders below a home that hold its logs ("projects").
    virtual std::vector<std::filesystem::path> logFolders() const = 0;
    // Whether the walk looks into a directory below a log folder (path relative to the folder);
    // a tool whose logs sit at known depths spares the walk the rest of its home.
    virtual bool descendsInto(LogPath) const { return true; }
    // How a file found below a log folder is read; none when it is not a log.
    virtual std::optional<LogLayout> layoutOf(LogPath file) const = 0;

    // Reads complete lines of an appended file in order. `state` is what the previous lines of
    // the same file left ("" at its start); the parser updates it.
    virtual void parseLines(std::span<const LogLine> lines, const LogFileContext& file, std::string& state,
                            LogRecordSink& sink) const = 0;
    // Reads a whole document (padded as LogLine says). False, with nothing given to `sink`, when
    // the document cannot be read as a whole (cut short while being written): the file then keeps
    // what it gave before and is read again when it next changes.
    virtual bool parseDocument(std::string_view text, const LogFileContext& file, LogRecordSink& sink) const = 0;
    // Reads a database the tool keeps, opened read-only (LogLayout::database), inside one read
    // transaction. `marks` is what the last read of the same file left ("" for none, and then the
    // whole database is read); the tool updates it to cover this read. Throws gaugepoint::Error
    // when it cannot be read; the file then keeps what it gave before, and its marks.
    virtual DatabaseRead readDatabase(sqlite3* database, const LogFileContext& file, std::string& marks,
                                      LogRecordSink& sink) const;
};

// Every tool the scan reads: Claude Code, Codex CLI, Gemini CLI, OpenCode, Copilot CLI, Qwen
// Code, Amp, Goose, Kimi, pi.
const std::vector<std::unique_ptr<CodingToolLogs>>& codingTools();
std::unique_ptr<CodingToolLogs> makeClaudeCodeLogs();
std::unique_ptr<CodingToolLogs> makeCodexLogs();
std::unique_ptr<CodingToolLogs> makeGeminiLogs();
std::unique_ptr<CodingToolLogs> makeOpenCodeLogs();
std::unique_ptr<CodingToolLogs> makeCopilotLogs();
std::unique_ptr<CodingToolLogs> makeQwenLogs();
std::unique_ptr<CodingToolLogs> makeAmpLogs();
std::unique_ptr<CodingToolLogs> makeGooseLogs();
std::unique_ptr<CodingToolLogs> makeKimiLogs();
std::unique_ptr<CodingToolLogs> makePiLogs();

// The home directories named by a comma-separated list in environment variable `name`; none
// when it is unset or empty.
std::vector<std::filesystem::path> homesFromEnvironment(const char* name);
// `relative` below $HOME; none when HOME is unset.
std::optional<std::filesystem::path> belowHome(const std::filesystem::path& relative);
// `relative` below $XDG_DATA_HOME, else ~/.local/share; none when neither can be resolved.
std::optional<std::filesystem::path> belowDataHome(const std::filesystem::path& relative);

// Whether a message of this role keeps its text under the capture mode: prompts from
// promptsOnly on, answers from promptsAndAnswers on, everything else with fullTranscript.
bool keepsText(QuotaSessionContentCaptureMode capture, QuotaSessionRole role, bool isPrompt);

// Passes on one counted response: `entry`, and the assistant message that carries its tokens
// (same session, key, time and model), as every tool without a transcript of its own records it.
void recordResponse(LogRecordSink& sink, QuotaUsageEntry entry);

// A token count as logs write it: a whole number from 0 to 10^12 (more is no real response).
bool isPlausibleTokenCount(std::int64_t count);

}  // namespace gaugepoint
