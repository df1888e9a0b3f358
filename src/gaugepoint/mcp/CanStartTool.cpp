// can_start: whether the active windows can take a task of a given size at the current pace.
//
// Windows count percent, tasks count tokens: a window's tokens per percent is what its provider
// used since the window began over the percent it shows used. A window used too little for that
// (under kLeastPercent) cannot say how much a task takes of it; it then only answers whether
// anything is left and whether its pace already runs it out.

#include <algorithm>
#include <chrono>
#include <cmath>
#include <tuple>
#include <utility>

#include "gaugepoint/mcp/McpFormatting.hpp"
#include "gaugepoint/mcp/McpTool.hpp"
#include "gaugepoint/model/QuotaFormatting.hpp"
#include "gaugepoint/platform/Json.hpp"
#include "gaugepoint/pricing/QuotaTokenEstimator.hpp"
#include "gaugepoint/quota/QuotaReadingText.hpp"

namespace gaugepoint::mcp {
namespace {

constexpr double kLeastPercent = 0.5;

// From worst to best; the answer is the worst of its windows.
enum class Verdict { no, tight, yes, unknown };
constexpr const char* kVerdictNames[] = {"no", "tight", "yes", "unknown"};

struct WindowAnswer {
    Verdict verdict = Verdict::unknown;
    std::string reason;
    boost::json::object facts;
};

struct Request {
    std::int64_t tokens = 0;
    boost::json::object facts;  // how the size was given
};

Request requestOf(const McpArguments& arguments) {
    if (arguments.has("tokens") == arguments.has("text")) arguments.fail("give \"tokens\" or \"text\" (one of them)");
    Request request;
    if (const auto tokens = arguments.integer("tokens")) {
        request.tokens = *tokens;
        request.facts = {{"tokens", *tokens}, {"estimatedFrom", "tokens"}};
        return request;
    }
    const TokenEstimate estimate = QuotaTokenEstimator::shared().estimate(*arguments.string("text"));
    if (estimate.tokens == 0) arguments.fail("\"text\" is empty: nothing to estimate");
    request.tokens = estimate.tokens;
    request.facts = {{"tokens", estimate.tokens}, {"estimatedFrom", "text"},
                     {"method", json::rawValue(estimate.method)}};
    return request;
}

// Tokens the provider used since `window` began; none without a length and a reset.
std::optional<std::int64_t> tokensInWindow(const QuotaWindow& window, const std::string& providerID,
                                           const McpContext& context) {
    if (!window.windowMinutes || !window.resetsAt) return std::nullopt;
    const Date start = *window.resetsAt - std::chrono::minutes(*window.windowMinutes);
    std::int64_t tokens = 0;
    for (const auto& entry : context.usageStore().countedEntries(providerID, start, context.now())) {
        tokens += entry.tokens.totalTokens();
    }
    return tokens;
}

// "45.4%"; "under 0.1%" rather than a "0.0%" that reads as nothing.
std::string percentText(double value) { return value > 0 && value < 0.05 ? "under 0.1%" : QuotaFormatting::percent(value); }

// The verdict of one window and why, in a sentence that begins with the window's label.
std::pair<Verdict, std::string> judge(const QuotaWindowNow& w, const std::string& label, std::optional<double> needed,
                                      const McpContext& context) {
    const double left = std::max(0.0, 100 - w.window.usedPercent);
    const std::string reset = QuotaFormatting::resetSummaryText(w.window.resetsAt, context.now(), context.language(),
                                                                QuotaFormatting::ResetRelativeStyle::standard,
                                                                QuotaFormatting::ResetAbsoluteStyle::timeOnly);
    const std::string share = needed ? "the task needs about " + percentText(*needed) + " and " + percentText(left) +
                                           " is left"
                                     : percentText(left) + " is left";
    if (left <= 0) return {Verdict::no, label + " is used up; " + reset};
    if (needed && *needed > left) {
        return {Verdict::no, label + ": the task needs about " + percentText(*needed) + " but only " + percentText(left) +
                                 " is left; " + reset};
    }
    if (w.pace && w.pace->projectedPercent + needed.value_or(0) > 100) {
        const auto paceText = QuotaReadingText::paceText(w, context.language());
        return {Verdict::tight, label + ": " + share + ", but at the current pace the window runs out before its reset" +
                                    (paceText ? " (" + *paceText + ")" : "")};
    }
    if (!needed) return {Verdict::unknown, label + ": " + share + "; too little is used yet to tell what the task takes"};
    return {Verdict::yes, label + ": " + share};
}

WindowAnswer answer(const QuotaWindowNow& w, const std::string& label, std::int64_t tokens,
                    std::optional<std::int64_t> windowTokens, const McpContext& context) {
    const double used = w.window.usedPercent;  // 0 once the reset has passed: then nothing can be told
    std::optional<double> needed;
    if (windowTokens && *windowTokens > 0 && used >= kLeastPercent) needed = double(tokens) * used / double(*windowTokens);
    WindowAnswer a;
    std::tie(a.verdict, a.reason) = judge(w, label, needed, context);
    a.facts = {{"label", label}, {"usedPercent", used}, {"remainingPercent", std::max(0.0, 100 - used)},
               {"reading", w.estimated ? "estimated" : "official"}};
    if (w.window.resetsAt) a.facts["resetsAt"] = json::parse(json::encode(*w.window.resetsAt));
    if (needed) a.facts["neededPercent"] = *needed;
    if (w.pace) {
        a.facts["projectedPercent"] = w.pace->projectedPercent;
        if (w.pace->runsOutAt) a.facts["runsOutAt"] = json::parse(json::encode(*w.pace->runsOutAt));
    }
    a.facts["verdict"] = kVerdictNames[int(a.verdict)];
    a.facts["reason"] = a.reason;
    return a;
}

McpToolResult call(const McpArguments& arguments, McpContext& context) {
    const Request request = requestOf(arguments);
    const auto provider = arguments.string("provider");
    const auto snapshot = context.quotaSnapshot();
    std::vector<WindowAnswer> answers;
    for (const auto& p : snapshot ? snapshot->providers : std::vector<ProviderQuota>{}) {
        if (provider && p.id != *provider) continue;
        const QuotaProviderNow now = quotaProviderNow(p, snapshot->generatedAt, context.now(), context.freshnessPolicy());
        for (const auto& w : now.windows) {
            if (w.window.semantic == QuotaWindowSemantic::creditsBalance) continue;
            const std::string label = p.displayName + " " + w.window.localizedLabel(context.language());
            answers.push_back(answer(w, label, request.tokens, tokensInWindow(w.window, p.id, context), context));
            answers.back().facts["provider"] = p.id;
            answers.back().facts["stale"] = now.stale;
        }
    }
    if (provider && answers.empty()) arguments.fail("no quota windows of \"" + excerpt(*provider) + "\" are known");

    // The worst window decides; "unknown" only when no window could tell.
    const auto worst = std::min_element(answers.begin(), answers.end(),
                                        [](const auto& a, const auto& b) { return a.verdict < b.verdict; });
    const Verdict verdict = worst == answers.end() ? Verdict::unknown : worst->verdict;
    std::string reason = worst == answers.end() ? "no quota reading yet, so nothing is known to stop it"
                         : verdict == Verdict::yes ? "every active window can take about " + groupedTokens(request.tokens) + " tokens"
                                                   : worst->reason;
    McpToolResult result;
    result.structured = request.facts;
    result.structured["canStart"] = verdict != Verdict::no;
    result.structured["verdict"] = kVerdictNames[int(verdict)];
    result.structured["reason"] = reason;
    boost::json::array windows;
    constexpr const char* kAnswers[] = {"No", "Yes, but tight", "Yes", "Probably"};
    result.text = std::string(kAnswers[int(verdict)]) + " (" + groupedTokens(request.tokens) + " tokens): " + reason + "\n";
    for (auto& a : answers) {
        result.text += "  " + a.reason + "\n";
        windows.push_back(std::move(a.facts));
    }
    result.structured["windows"] = std::move(windows);
    return result;
}

}  // namespace

McpTool canStartTool() {
    return {"can_start",
            "Can a task start?",
            "Whether the active quota windows can take a task of a given size at the current pace, with the reason. "
            "Give the size in tokens, or the task's text (prompt, files) to have it estimated with the tokenizer.",
            objectSchema({{"tokens", integerProperty("The estimated size of the task in tokens", 1)},
                          {"text", stringProperty("The task's text, to estimate its size from")},
                          {"provider", stringProperty("Only this provider's windows (default: every provider)")}}),
            call};
}

}  // namespace gaugepoint::mcp
