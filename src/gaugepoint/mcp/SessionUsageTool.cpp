// session_usage: the tokens and cost of one session (by id, or the latest in a directory) and
// of today.

#include "gaugepoint/mcp/McpFormatting.hpp"
#include "gaugepoint/mcp/McpTool.hpp"
#include "gaugepoint/platform/Json.hpp"
#include "gaugepoint/reports/UsagePeriods.hpp"

namespace gaugepoint::mcp {
namespace {

std::string withoutTrailingSlash(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

// `directory` is the session's project or inside it.
bool ranIn(const UsageSessionRow& row, const std::string& directory) {
    if (!row.projectPath) return false;
    const std::string project = withoutTrailingSlash(*row.projectPath);
    return directory == project || directory.starts_with(project == "/" ? project : project + "/");
}

// The session asked for: by id, else the latest that ran in `cwd`, else the latest of all.
const UsageSessionRow* chosenSession(const UsageSessionReport& report, const McpArguments& arguments) {
    const auto id = arguments.string("sessionId");
    const auto cwd = arguments.string("cwd");
    const UsageSessionRow* chosen = nullptr;
    for (const auto& row : report.rows) {
        const bool matches = id ? row.sessionID == *id : !cwd || ranIn(row, withoutTrailingSlash(*cwd));
        if (matches && (!chosen || row.lastActivity > chosen->lastActivity)) chosen = &row;
    }
    if (!chosen && id) arguments.fail("no session \"" + excerpt(*id) + "\" in the imported logs");
    return chosen;
}

McpToolResult call(const McpArguments& arguments, McpContext& context) {
    if (arguments.has("sessionId") && arguments.has("cwd")) arguments.fail("give \"sessionId\" or \"cwd\", not both");
    UsageReportFilter filter;
    filter.providerID = arguments.string("provider");
    const QuotaUsageEntryStore store = context.usageStore();
    const LocalCalendar calendar = context.calendar();
    const UsageSessionReport sessions = usageBySession(store, calendar, filter);
    const UsageSessionRow* session = chosenSession(sessions, arguments);

    filter.since = filter.until = calendar.dayKey(context.now());
    const UsageTotals today = usageOfDays(store, calendar, filter);

    McpToolResult result;
    if (session) {
        auto object = usageObject(session->totals);
        object["sessionId"] = session->sessionID;
        object["provider"] = session->providerID;
        if (session->projectPath) object["projectPath"] = *session->projectPath;
        object["lastActivity"] = json::parse(json::encode(session->lastActivity));
        result.structured["session"] = std::move(object);
        result.text = "Session " + session->sessionID + " (" + session->providerID +
                      (session->projectPath ? ", " + *session->projectPath : "") + "): " + usageText(session->totals) +
                      "\n";
    } else {
        result.structured["session"] = nullptr;
        result.text = "No session found" + (arguments.has("cwd") ? " in " + *arguments.string("cwd") : std::string()) + ".\n";
    }
    auto todayObject = usageObject(today);
    todayObject["date"] = *filter.since;
    result.structured["today"] = std::move(todayObject);
    result.text += "Today (" + *filter.since + ", " + calendar.timeZoneID() + "): " + usageText(today) + "\n";
    return result;
}

}  // namespace

McpTool sessionUsageTool() {
    return {"session_usage",
            "Session usage",
            "Tokens and cost of the current coding session, found by its session id or by its working directory (the "
            "latest session there; without either, the latest session of all), and of today so far.",
            objectSchema({{"sessionId", stringProperty("The session id the coding tool gave the session")},
                          {"cwd", stringProperty("The session's working directory (absolute path)")},
                          {"provider", stringProperty("Only sessions and today's usage of this provider",
                                                      {"claude", "codex", "gemini"})}}),
            call};
}

}  // namespace gaugepoint::mcp
