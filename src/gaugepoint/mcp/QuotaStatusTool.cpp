// quota_status: every provider's windows as of now, as the widget shows them.

#include <boost/json/parse.hpp>

#include "gaugepoint/mcp/McpTool.hpp"
#include "gaugepoint/platform/Json.hpp"
#include "gaugepoint/widgets/QuotaWidgetText.hpp"
#include "gaugepoint/widgets/QuotaWidgetSnapshots.hpp"
#include "gaugepoint/widgets/QuotaWidgetViewModel.hpp"

namespace gaugepoint::mcp {
namespace {

const char* const kNoReading =
    "No quota reading yet: no rate limits were found in the logs of Claude Code, Codex CLI or Gemini CLI, and there "
    "is no widget file of the companion app.";

// A line per window, with what the widget's lines leave to the eye: official or estimated.
std::string windowLines(const QuotaWidgetProviderView& provider) {
    std::string text = provider.displayName + (provider.ageText ? " (" + *provider.ageText + ")" : "") + ":\n";
    for (const auto& w : provider.windows) {
        text += "  " + w.detailLabel + ": " + w.usedText + " used, " + w.remainingText + " left, " + w.resetSummaryText;
        if (w.paceText) text += " · " + *w.paceText;
        text += " · " + w.reading + "\n";
    }
    if (provider.windows.empty()) text += "  " + provider.status + "\n";
    return text;
}

McpToolResult call(const McpArguments& arguments, McpContext& context) {
    const auto provider = arguments.string("provider");
    const auto snapshot = context.quotaSnapshot();
    if (!snapshot) {
        if (provider) arguments.fail("no quota reading of \"" + excerpt(*provider) + "\": there is no reading of any provider yet");
        return {kNoReading, {{"providers", boost::json::array{}}}};
    }
    QuotaWidgetView view = QuotaWidgetSnapshots::view(*snapshot, context.now(), context.language(), context.freshnessPolicy(),
                                                      context.configuration(), context.calendar());
    if (provider) {
        std::string known;
        for (const auto& p : view.providers) known += (known.empty() ? "" : ", ") + p.id;
        std::erase_if(view.providers, [&](const QuotaWidgetProviderView& p) { return p.id != *provider; });
        if (view.providers.empty()) arguments.fail("no quota reading of \"" + excerpt(*provider) + "\" (readings: " + known + ")");
    }
    McpToolResult result;
    for (const auto& p : view.providers) result.text += windowLines(p);
    result.structured = boost::json::parse(json::encode(view)).as_object();
    return result;
}

}  // namespace

McpTool quotaStatusTool() {
    return {"quota_status",
            "Quota status",
            "The rate-limit windows of every AI coding assistant (Claude Code, Codex CLI, Gemini CLI, ...) as of now: "
            "percent used and left, when each window resets, the pace against an even burn and when it runs out at "
            "that pace, whether a figure is official (reported by the service) or estimated, and whether the reading "
            "is stale.",
            objectSchema({{"provider", stringProperty("Only this provider: claude, codex, gemini, ... (default: all)")}}),
            call};
}

}  // namespace gaugepoint::mcp
