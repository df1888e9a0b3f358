#include "gaugepoint/importers/ScanCheckpoints.hpp"

#include <algorithm>

#include "gaugepoint/platform/Json.hpp"
#include "gaugepoint/platform/Sha256.hpp"

namespace gaugepoint::scanning {
namespace {

// The checkpoint of a tool's scan: a digest of every file's path, size and time, which changes
// whenever any file does.
std::string scanSignature(const CodingToolLogs& tool, QuotaSessionContentCaptureMode capture,
                          const std::vector<LogFileCandidate>& files) {
    std::string text = std::to_string(tool.parserVersion()) + "|" + std::string(json::rawValue(capture));
    for (const auto& f : files) {
        text += "\n" + f.path.string() + "|" + std::to_string(f.size) + "|" + std::to_string(secondsSince1970(f.modifiedAt));
    }
    return sha256Hex(text);
}

}  // namespace

void updateCheckpoints(const QuotaSessionImportStateStore& states, const std::vector<ToolFiles>& tools,
                       const std::string& sourceID, QuotaSessionContentCaptureMode capture, Date now) {
    auto catalog = states.load();
    bool changed = false;
    for (const auto& tool : tools) {
        const std::string providerID = tool.tool->provider().id;
        const std::string signature = scanSignature(*tool.tool, capture, tool.files);
        auto found = std::find_if(catalog.entries.begin(), catalog.entries.end(), [&](const auto& c) {
            return c.sourceID == sourceID && c.providerID == providerID;
        });
        if (found != catalog.entries.end() && found->scanSignature == signature) continue;
        if (found == catalog.entries.end()) found = catalog.entries.insert(catalog.entries.end(), QuotaSessionImportCheckpoint{});
        QuotaSessionImportCheckpoint& checkpoint = *found;
        checkpoint.sourceID = sourceID;
        checkpoint.providerID = providerID;
        checkpoint.scanSignature = signature;
        checkpoint.candidateFileFingerprints.clear();
        for (const auto& f : tool.files) checkpoint.candidateFileFingerprints.push_back({f.path.string(), f.size, f.modifiedAt});
        checkpoint.rangePresetID = "all";
        checkpoint.depthPresetID = std::string(json::rawValue(capture));
        checkpoint.parserVersion = tool.tool->parserVersion();
        checkpoint.updatedAt = now;
        changed = true;
    }
    if (!changed) return;
    catalog.updatedAt = now;
    states.save(catalog);
}


}  // namespace gaugepoint::scanning
