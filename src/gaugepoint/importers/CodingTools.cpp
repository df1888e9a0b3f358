#include "gaugepoint/importers/CodingToolLogs.hpp"

namespace gaugepoint {

const std::vector<std::unique_ptr<CodingToolLogs>>& codingTools() {
    static const auto tools = [] {
        std::vector<std::unique_ptr<CodingToolLogs>> list;
        list.push_back(makeClaudeCodeLogs());
        list.push_back(makeCodexLogs());
        list.push_back(makeGeminiLogs());
        return list;
    }();
    return tools;
}

void PendingRecords::flushTo(LogRecordSink& sink) {
    if (bad_) {
        sink.badLine(bad_->first, std::move(bad_->second));
    } else {
        for (auto& e : usage_) sink.usage(std::move(e));
        for (auto& m : messages_) sink.message(std::move(m));
        for (const auto& [session, project] : sessions_) sink.session(session, project);
        for (auto& l : limits_) sink.rateLimits(std::move(l));
    }
    usage_.clear();
    messages_.clear();
    sessions_.clear();
    limits_.clear();
    bad_.reset();
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

bool isPlausibleTokenCount(std::int64_t count) { return count >= 0 && count <= 1'000'000'000'000; }

}  // namespace gaugepoint
