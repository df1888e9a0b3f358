#include "gaugepoint/importers/CodingToolLogs.hpp"

#include <cstdlib>

#include "gaugepoint/platform/Text.hpp"

namespace gaugepoint {

const std::vector<std::unique_ptr<CodingToolLogs>>& codingTools() {
    static const auto tools = [] {
        std::vector<std::unique_ptr<CodingToolLogs>> list;
        list.push_back(makeClaudeCodeLogs());
        list.push_back(makeCodexLogs());
        list.push_back(makeGeminiLogs());
        list.push_back(makeOpenCodeLogs());
        list.push_back(makeCopilotLogs());
        list.push_back(makeQwenLogs());
        list.push_back(makeAmpLogs());
        list.push_back(makeGooseLogs());
        list.push_back(makeKimiLogs());
        list.push_back(makePiLogs());
        return list;
    }();
    return tools;
}

void HeldRecords::passOn(LogRecordSink& sink) {
    for (auto& e : usage_) sink.usage(std::move(e));
    for (auto& m : messages_) sink.message(std::move(m));
    for (const auto& [session, project] : sessions_) sink.session(session, project);
    for (const auto& [session, title] : titles_) sink.sessionTitle(session, title);
    for (auto& l : limits_) sink.rateLimits(std::move(l));
    drop();
}

void HeldRecords::drop() {
    usage_.clear();
    messages_.clear();
    sessions_.clear();
    titles_.clear();
    limits_.clear();
}

void PendingRecords::flushTo(LogRecordSink& sink) {
    if (bad_) {
        sink.badLine(bad_->first, std::move(bad_->second));
        drop();
    } else {
        passOn(sink);
    }
    bad_.reset();
}

void DocumentRecords::flushTo(LogRecordSink& sink) {
    passOn(sink);
    for (auto& [offset, reason] : bad_) sink.badLine(offset, std::move(reason));
    bad_.clear();
}

DatabaseRead CodingToolLogs::readDatabase(sqlite3*, const LogFileContext&, std::string&, LogRecordSink&) const { return {}; }

std::vector<std::filesystem::path> homesFromEnvironment(const char* name) {
    std::vector<std::filesystem::path> homes;
    const char* value = std::getenv(name);
    if (!value) return homes;
    std::string_view rest = value;
    while (!rest.empty()) {
        const auto comma = rest.find(',');
        const auto part = trimmed(rest.substr(0, comma));
        if (!part.empty()) homes.emplace_back(part);
        rest = comma == std::string_view::npos ? std::string_view{} : rest.substr(comma + 1);
    }
    return homes;
}

std::optional<std::filesystem::path> belowHome(const std::filesystem::path& relative) {
    const char* home = std::getenv("HOME");
    if (!home || !*home) return std::nullopt;
    return std::filesystem::path(home) / relative;
}

std::optional<std::filesystem::path> belowDataHome(const std::filesystem::path& relative) {
    if (const char* data = std::getenv("XDG_DATA_HOME"); data && *data) return std::filesystem::path(data) / relative;
    return belowHome(std::filesystem::path(".local") / "share" / relative);
}

bool keepsText(QuotaSessionContentCaptureMode capture, QuotaSessionRole role, bool isPrompt) {
    using Mode = QuotaSessionContentCaptureMode;
    switch (capture) {
        case Mode::metadataOnly: return false;
        case Mode::promptsOnly: return isPrompt;
        case Mode::promptsAndAnswers: return isPrompt || role == QuotaSessionRole::assistant;
        case Mode::fullTranscript: return true;
    }
    return false;
}

void recordResponse(LogRecordSink& sink, QuotaUsageEntry entry) {
    QuotaImportedMessage m;
    m.sessionID = entry.sessionID;
    m.messageKey = entry.dedupKey;
    m.timestamp = entry.timestamp;
    m.role = QuotaSessionRole::assistant;
    m.model = entry.model;
    m.tokenUsage = entry.tokens;
    sink.usage(std::move(entry));
    sink.message(std::move(m));
}

bool isPlausibleTokenCount(std::int64_t count) { return count >= 0 && count <= 1'000'000'000'000; }

}  // namespace gaugepoint
