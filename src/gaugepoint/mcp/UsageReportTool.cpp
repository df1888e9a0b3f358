// usage_report: the documents of `gaugepoint report <kind> --json`.

#include <cctype>

#include "gaugepoint/mcp/McpFormatting.hpp"
#include "gaugepoint/mcp/McpTool.hpp"
#include "gaugepoint/platform/Json.hpp"
#include "gaugepoint/reports/UsageReport.hpp"

namespace gaugepoint::mcp {
namespace {

// The text lists at most this many rows; the structured result has them all.
constexpr std::size_t kRowsInText = 40;

LocalCalendar calendarOf(const McpArguments& arguments, const McpContext& context) {
    const auto zone = arguments.string("timezone");
    if (!zone) return context.calendar();
    auto calendar = LocalCalendar::inTimeZone(*zone, LocalCalendar::Kind::gregorian);
    if (!calendar) arguments.fail("\"timezone\" must be a time zone such as UTC or Europe/Berlin, got \"" + excerpt(*zone) + "\"");
    return *calendar;
}

UsageReportFilter filterOf(const McpArguments& arguments) {
    UsageReportFilter filter;
    filter.since = arguments.day("since");
    filter.until = arguments.day("until");
    if (filter.since && filter.until && *filter.until < *filter.since) {
        arguments.fail("\"until\" " + *filter.until + " is before \"since\" " + *filter.since);
    }
    filter.providerID = arguments.string("provider");
    filter.descending = arguments.string("order") == "desc";
    return filter;
}

// "Daily usage · UTC · all providers" and a line per row.
std::string reportText(const UsageReport& report, const LocalCalendar& calendar, const UsageReportFilter& filter) {
    std::string text = std::string(boost::describe::enum_to_string(report.kind, "")) + " usage · " +
                       calendar.timeZoneID() + " · " +
                       filter.providerID.value_or(report.kind == UsageReportKind::blocks ? "claude" : "all providers") +
                       "\n";
    text[0] = char(std::toupper(static_cast<unsigned char>(text[0])));  // "Daily usage"
    std::vector<std::string> lines;
    switch (report.kind) {
        case UsageReportKind::session:
            for (const auto& row : report.sessions.rows) {
                lines.push_back(row.sessionID + " (" + row.providerID + (row.projectPath ? ", " + *row.projectPath : "") +
                                ", last " + calendar.dayTimeText(row.lastActivity) + "): " + usageText(row.totals));
            }
            break;
        case UsageReportKind::blocks:
            for (const auto& block : report.blocks) {
                if (block.isGap) continue;
                lines.push_back(calendar.dayTimeText(block.startTime) + (block.isActive ? " (active)" : "") + ": " +
                                usageText(block.totals));
            }
            break;
        default:
            for (const auto& row : report.periods.rows) lines.push_back(row.period + ": " + usageText(row.totals));
            if (!report.periods.rows.empty()) lines.push_back("total: " + usageText(report.periods.totals));
    }
    if (report.kind == UsageReportKind::session && !report.sessions.rows.empty()) {
        lines.push_back("total: " + usageText(report.sessions.totals));
    }
    if (lines.empty()) return text + "No usage found.\n";
    const std::size_t shown = std::min(lines.size(), kRowsInText);
    for (std::size_t i = 0; i < shown; ++i) text += lines[i] + "\n";
    if (shown < lines.size()) text += "... and " + std::to_string(lines.size() - shown) + " more rows in the structured result\n";
    return text;
}

McpToolResult call(const McpArguments& arguments, McpContext& context) {
    UsageReportKind kind{};
    boost::describe::enum_from_string(arguments.string("report")->c_str(), kind);
    const LocalCalendar calendar = calendarOf(arguments, context);
    const UsageReportFilter filter = filterOf(arguments);
    const UsageReport report = makeUsageReport(context.usageStore(), calendar, kind, filter, context.now(),
                                               arguments.string("startOfWeek") == "monday");
    return {reportText(report, calendar, filter), json::parse(usageReportDocument(report, false)).as_object()};
}

}  // namespace

McpTool usageReportTool() {
    return {"usage_report",
            "Usage report",
            "Tokens and cost from the local logs of the coding tools, per day, week, month, session or five-hour "
            "block: the same document as `gaugepoint report <report> --json`.",
            objectSchema({{"report", stringProperty("The rows: one per day, week, month, session or five-hour block",
                                                    {"daily", "weekly", "monthly", "session", "blocks"})},
                          {"since", stringProperty("The first day counted, YYYY-MM-DD (in the report's time zone)")},
                          {"until", stringProperty("The last day counted, YYYY-MM-DD")},
                          {"timezone", stringProperty("The IANA time zone of days, weeks and months (default: the "
                                                      "system's)")},
                          {"provider", stringProperty("Only this provider (blocks: claude unless given)",
                                                      {"claude", "codex", "gemini"})},
                          {"order", stringProperty("Oldest rows first (asc, default) or newest first", {"asc", "desc"})},
                          {"startOfWeek", stringProperty("The first day of a week (weekly)", {"sunday", "monday"})}},
                         {"report"}),
            call};
}

}  // namespace gaugepoint::mcp
