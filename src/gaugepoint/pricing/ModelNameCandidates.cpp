#include "gaugepoint/pricing/ModelNameCandidates.hpp"

#include <algorithm>
#include <array>

#include "gaugepoint/platform/Regex.hpp"
#include "gaugepoint/platform/Text.hpp"

namespace gaugepoint {
namespace {

constexpr std::size_t maximumCandidatesPerName = 64;

struct Rewrite {
    Regex pattern;
    std::string_view replacement;
    std::string_view hint = {};  // text any match contains: a key without it is not tried
    bool global = false;
};

// Applied to every candidate in turn; the order only decides which of two rewrites of the same
// key is tried first.
const std::array<Rewrite, 16>& rewrites() {
    static const std::array<Rewrite, 16> table{{
        {Regex{R"([- ](?:low|medium|high|max|auto)$)"}, ""},
        {Regex{R"((?:[- ](?:low|medium|high|max|auto))?[- ]thinking$)"}, "", "thinking"},
        {Regex{R"([- ]thinking$)"}, "", "thinking"},
        {Regex{R"([- ]reasoning$)"}, "", "reasoning"},
        {Regex{R"([- ]context\d+(?:[km])$)"}, "", "context"},
        {Regex{R"([- ]ctx\d+(?:[km])$)"}, "", "ctx"},
        {Regex{R"([- ]s\d+(?:[km])$)"}, ""},
        {Regex{R"((?<=codex)[- ]spark$)"}, "", "spark"},
        {Regex{R"(^claude-((?:haiku|sonnet|opus))-(\d+(?:[.-]\d+)?)(.*)$)"}, "claude-$2-$1$3", "claude-"},
        {Regex{R"(^claude-(\d+(?:[.-]\d+)?)-((?:haiku|sonnet|opus))(.*)$)"}, "claude-$2-$1$3", "claude-"},
        {Regex{R"((?<=^|[/-])(\d+)-(\d+)(?=$|[-/]))"}, "$1.$2", "-", true},
        // Forms that hosting services and routers add around a model's own name.
        {Regex{R"((?:[-@]\d{8}|-\d{4}-\d{2}-\d{2})$)"}, ""},
        {Regex{R"(-latest$)"}, "", "-latest"},
        {Regex{R"(^[^/]+/)"}, "", "/"},
        {Regex{R"(^(?:[a-z]{2,4}\.)?(?:anthropic|openai|google|meta|mistral|amazon)\.)"}, "", "."},
        {Regex{R"(-v\d+(?::\d+)?$)"}, "", "-v"},
    }};
    return table;
}

const Regex& parenthesisedRemark() {
    static const Regex remark{R"(\s*\([^)]*\))"};
    return remark;
}

void add(std::vector<std::string>& candidates, std::string key) {
    if (key.empty() || std::find(candidates.begin(), candidates.end(), key) != candidates.end()) return;
    candidates.push_back(std::move(key));
}

void addCandidates(std::vector<std::string>& candidates, std::string_view name) {
    const std::size_t first = candidates.size();
    add(candidates, normalizedLookupKey(name));
    if (const auto withoutRemark = parenthesisedRemark().replaced(name, "", true)) {
        add(candidates, normalizedLookupKey(*withoutRemark));
    }
    // Breadth first over this name's keys; `candidates` grows while it is walked.
    for (std::size_t i = first; i < candidates.size() && candidates.size() - first < maximumCandidatesPerName; ++i) {
        for (const auto& rewrite : rewrites()) {
            if (candidates[i].find(rewrite.hint) == std::string::npos) continue;
            if (auto rewritten = rewrite.pattern.replaced(candidates[i], rewrite.replacement, rewrite.global)) {
                add(candidates, normalizedLookupKey(*rewritten));
                if (candidates.size() - first >= maximumCandidatesPerName) break;
            }
        }
    }
}

}  // namespace

std::vector<std::string> modelLookupCandidates(std::optional<std::string_view> rawID,
                                               std::optional<std::string_view> displayName) {
    std::vector<std::string> candidates;
    if (rawID) addCandidates(candidates, *rawID);
    if (displayName) addCandidates(candidates, *displayName);
    return candidates;
}

}  // namespace gaugepoint
