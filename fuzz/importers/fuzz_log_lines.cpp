// Arbitrary bytes as the log lines and documents of every coding tool: never a crash, and every
// count that comes out is a plausible one.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "gaugepoint/importers/CodingToolLogs.hpp"
#include "gaugepoint/importers/JsonLineParser.hpp"

namespace {

using namespace gaugepoint;

class Checking final : public LogRecordSink {
public:
    int calls = 0;
    void usage(QuotaUsageEntry entry) override {
        ++calls;
        for (const auto n : {entry.tokens.inputTokens, entry.tokens.outputTokens, entry.tokens.cacheReadTokens,
                             entry.tokens.cacheWriteTokens}) {
            if (!isPlausibleTokenCount(n)) std::abort();
        }
        if (entry.dedupKey.empty() || entry.sessionID.empty()) std::abort();
    }
    void message(QuotaImportedMessage) override { ++calls; }
    void session(const std::string&, const std::string&) override { ++calls; }
    void sessionTitle(const std::string&, const std::string&) override { ++calls; }
    void rateLimits(QuotaObservedRateLimits) override { ++calls; }
    void badLine(std::int64_t, std::string reason) override {
        ++calls;
        if (reason.empty()) std::abort();
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static JsonLineParser parser;
    std::string text(reinterpret_cast<const char*>(data), size);
    const std::size_t length = text.size();
    text.resize(length + kJsonPadding);
    // Lines as a scan hands them over: split at newlines, each followed by readable padding.
    std::vector<LogLine> lines;
    for (std::size_t pos = 0; pos < length;) {
        std::size_t end = text.find('\n', pos);
        if (end == std::string::npos || end > length) end = length;
        if (end > pos) lines.push_back({std::string_view(text.data() + pos, end - pos), std::int64_t(pos)});
        pos = end + 1;
    }
    for (const auto& tool : codingTools()) {
        for (const auto capture : {QuotaSessionContentCaptureMode::metadataOnly, QuotaSessionContentCaptureMode::fullTranscript}) {
            Checking sink;
            const LogFileContext context{"/logs/rollout-2026-11-05T10-30-00-07dfecf1-5ac6-4033-bfb9-ffe02e54ea17.jsonl", capture, &parser};
            std::string state;
            tool->parseLines(lines, context, state, sink);
            tool->parseLines(lines, context, state, sink);  // the state left by the first read is read back
            // A document that cannot be read whole gives nothing at all.
            Checking document;
            if (!tool->parseDocument(std::string_view(text.data(), length), context, document) && document.calls > 0) std::abort();
        }
    }
    return 0;
}
