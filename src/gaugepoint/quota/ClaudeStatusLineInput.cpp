#include "gaugepoint/quota/ClaudeStatusLineInput.hpp"

#include <cmath>

#include "gaugepoint/platform/Json.hpp"
#include "gaugepoint/platform/Text.hpp"

namespace gaugepoint {
namespace {

namespace bj = boost::json;

const bj::value* member(const bj::value* object, std::string_view key) {
    if (!object || !object->is_object()) return nullptr;
    const auto* found = object->as_object().if_contains(key);
    return found && !found->is_null() ? found : nullptr;
}

std::optional<std::string> text(const bj::value* value) {
    if (!value || !value->is_string() || value->as_string().empty()) return std::nullopt;
    return std::string(value->as_string());
}

std::optional<double> number(const bj::value* value) {
    if (!value || !value->is_number()) return std::nullopt;
    const double n = value->to_number<double>();
    return std::isfinite(n) ? std::optional(n) : std::nullopt;
}

// A rate-limit window: a percent in 0...100 (anything else is not a reading) and epoch seconds.
std::optional<ClaudeRateLimitReading> rateLimit(const bj::value* window, std::string_view name,
                                                std::vector<std::string>& problems) {
    if (!window) return std::nullopt;
    const auto used = number(member(window, "used_percentage"));
    if (!used || *used < 0 || *used > 100) {
        problems.push_back("rate_limits." + std::string(name) + ".used_percentage is not a percent from 0 to 100");
        return std::nullopt;
    }
    ClaudeRateLimitReading reading{*used, std::nullopt};
    // Epoch seconds within years 2001...2286; anything else would print as nonsense.
    if (const auto resets = number(member(window, "resets_at")); resets && *resets > 1e9 && *resets < 1e10) {
        reading.resetsAt = dateFromSeconds(*resets);
    }
    return reading;
}

}  // namespace

ClaudeStatusLineInput ClaudeStatusLineInput::parse(std::string_view input, std::vector<std::string>& problems) {
    ClaudeStatusLineInput result;
    if (trimmed(input).empty()) {
        problems.emplace_back("no status-line input on standard input");
        return result;
    }
    bj::value document;
    try {
        document = json::parse(input);
    } catch (const json::DecodingError& e) {
        problems.push_back(std::string("the status-line input is not JSON: ") + e.what());
        return result;
    }
    if (!document.is_object()) {
        problems.emplace_back("the status-line input is not a JSON object");
        return result;
    }
    const bj::value* root = &document;
    result.sessionID = text(member(root, "session_id"));
    result.transcriptPath = text(member(root, "transcript_path"));
    result.cwd = text(member(member(root, "workspace"), "current_dir"));
    if (!result.cwd) result.cwd = text(member(root, "cwd"));
    result.version = text(member(root, "version"));
    result.modelID = text(member(member(root, "model"), "id"));
    result.modelDisplayName = text(member(member(root, "model"), "display_name"));
    result.sessionCostUSD = number(member(member(root, "cost"), "total_cost_usd"));
    const bj::value* context = member(root, "context_window");
    result.contextUsedPercent = number(member(context, "used_percentage"));
    if (const auto size = number(member(context, "context_window_size")); size && *size > 0 && *size < 1e12) {
        result.contextWindowSize = std::int64_t(*size);
    }
    const bj::value* limits = member(root, "rate_limits");
    result.fiveHour = rateLimit(member(limits, "five_hour"), "five_hour", problems);
    result.sevenDay = rateLimit(member(limits, "seven_day"), "seven_day", problems);
    return result;
}

}  // namespace gaugepoint
