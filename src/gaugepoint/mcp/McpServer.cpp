#include "gaugepoint/mcp/McpServer.hpp"

#include <array>
#include <new>

#include "gaugepoint/mcp/JsonRpc.hpp"
#include "gaugepoint/mcp/McpTool.hpp"
#include "gaugepoint/platform/Text.hpp"

namespace gaugepoint::mcp {
namespace {

// Older versions whose messages this server's subset reads and writes the same way.
constexpr std::array<std::string_view, 3> kKnownVersions{McpServer::latestProtocolVersion, "2025-03-26", "2024-11-05"};

[[noreturn]] void invalidParams(const std::string& message) {
    throw JsonRpcError(JsonRpcErrorCode::invalidParams, message);
}

std::string stringParam(const boost::json::value& params, std::string_view name, std::string_view method) {
    const auto* value = params.is_object() ? params.get_object().if_contains(name) : nullptr;
    if (!value || !value->is_string()) invalidParams(std::string(method) + " needs \"" + std::string(name) + "\" (a string)");
    return std::string(value->get_string());
}

const McpTool* findTool(std::string_view name) {
    for (const auto& tool : mcpTools()) {
        if (tool.name == name) return &tool;
    }
    return nullptr;
}

struct Resource {
    const char* uri;
    const char* name;
    const char* description;
    const char* tool;  // the tool whose structured result the resource is
    const char* arguments;  // its arguments; "today" stands for today's day
};
constexpr std::array<Resource, 2> kResources{{
    {"gaugepoint://quota", "quota", "Every provider's quota windows as of now (the quota_status document)",
     "quota_status", ""},
    {"gaugepoint://usage/today", "usage-today", "Today's tokens and cost per provider and model (the daily report)",
     "usage_report", "today"},
}};

}  // namespace

std::string McpServer::oversizedReply() {
    return jsonRpcError(nullptr, JsonRpcErrorCode::invalidRequest,
                        "message longer than " + std::to_string(maxMessageBytes) + " bytes: skipped");
}

std::optional<std::string> McpServer::handle(std::string_view line) {
    boost::json::value id;
    JsonRpcMessage message;
    try {
        message = parseJsonRpcMessage(line, id);
    } catch (const JsonRpcError& e) {
        return jsonRpcError(id, e.code(), e.what());
    }
    // Notifications (initialized, cancelled, ...) ask for nothing this server does, and it sends
    // no requests whose responses it would wait for.
    if (message.isNotification() || message.isResponse()) return std::nullopt;
    try {
        return jsonRpcResult(*message.id, dispatch(message.method, message.params));
    } catch (const JsonRpcError& e) {
        return jsonRpcError(*message.id, e.code(), e.what());
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception& e) {
        return jsonRpcError(*message.id, JsonRpcErrorCode::internalError, singleLine(e.what()));
    }
}

boost::json::value McpServer::dispatch(const std::string& method, const boost::json::value& params) {
    if (method == "initialize") return initialize(params);
    if (method == "ping") return boost::json::object{};
    if (method == "tools/list") {
        boost::json::array tools;
        for (const auto& tool : mcpTools()) {
            tools.push_back(boost::json::object{{"name", tool.name}, {"title", tool.title},
                                                {"description", tool.description}, {"inputSchema", tool.inputSchema}});
        }
        return boost::json::object{{"tools", std::move(tools)}};
    }
    if (method == "tools/call") return callTool(params);
    if (method == "resources/list") {
        boost::json::array resources;
        for (const auto& r : kResources) {
            resources.push_back(boost::json::object{{"uri", r.uri}, {"name", r.name}, {"description", r.description},
                                                    {"mimeType", "application/json"}});
        }
        return boost::json::object{{"resources", std::move(resources)}};
    }
    if (method == "resources/templates/list") return boost::json::object{{"resourceTemplates", boost::json::array{}}};
    if (method == "resources/read") return readResource(params);
    throw JsonRpcError(JsonRpcErrorCode::methodNotFound, "unknown method \"" + excerpt(method) + "\"");
}

boost::json::object McpServer::initialize(const boost::json::value& params) const {
    std::string_view version = latestProtocolVersion;
    const auto* asked = params.is_object() ? params.get_object().if_contains("protocolVersion") : nullptr;
    if (!asked || !asked->is_string()) invalidParams("initialize needs \"protocolVersion\" (a string)");
    for (auto known : kKnownVersions) {
        if (asked->get_string() == known) version = known;
    }
    return {{"protocolVersion", version},
            {"capabilities", {{"tools", {{"listChanged", false}}}, {"resources", {{"subscribe", false}, {"listChanged", false}}}}},
            {"serverInfo", {{"name", "gaugepoint"}, {"title", "gaugepoint quota monitor"}, {"version", "0.1.0"}}},
            {"instructions",
             "Ask quota_status before a large task to see how much of each rate-limit window is left, can_start to "
             "check whether a task of a given size fits at the current pace, session_usage for the tokens and cost of "
             "this session and of today, and usage_report for usage per day, week, month, session or five-hour "
             "block."}};
}

// The structured result and text of `tool`, or a tool error result (isError) when it failed
// for a reason other than its arguments.
boost::json::object McpServer::callTool(const boost::json::value& params) {
    const std::string name = stringParam(params, "name", "tools/call");
    const McpTool* tool = findTool(name);
    if (!tool) {
        std::string known;
        for (const auto& t : mcpTools()) known += (known.empty() ? "" : ", ") + t.name;
        invalidParams("unknown tool \"" + excerpt(name) + "\" (tools: " + known + ")");
    }
    const auto* given = params.get_object().if_contains("arguments");
    const McpArguments arguments{tool->name, tool->inputSchema, given ? *given : boost::json::value{}};
    context_.refresh();
    McpToolResult result;
    try {
        result = tool->call(arguments, context_);
    } catch (const JsonRpcError&) {
        throw;
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception& e) {
        const std::string text = tool->name + " failed: " + singleLine(e.what());
        return {{"content", {{{"type", "text"}, {"text", text}}}}, {"isError", true}};
    }
    if (const auto& problem = context_.lastScanProblem()) result.text += "Note: " + *problem + "\n";
    return {{"content", {{{"type", "text"}, {"text", result.text}}}},
            {"structuredContent", std::move(result.structured)},
            {"isError", false}};
}

boost::json::object McpServer::readResource(const boost::json::value& params) {
    const std::string uri = stringParam(params, "uri", "resources/read");
    for (const auto& r : kResources) {
        if (uri != r.uri) continue;
        boost::json::object arguments;
        if (std::string_view(r.arguments) == "today") {
            const std::string today = context_.calendar().dayKey(context_.now());
            arguments = {{"report", "daily"}, {"since", today}, {"until", today}};
        }
        const McpTool* tool = findTool(r.tool);
        context_.refresh();
        const McpToolResult result = tool->call(McpArguments{tool->name, tool->inputSchema, arguments}, context_);
        return {{"contents", {{{"uri", uri}, {"mimeType", "application/json"},
                               {"text", jsonText(result.structured)}}}}};
    }
    throw JsonRpcError(JsonRpcErrorCode::resourceNotFound, "unknown resource \"" + excerpt(uri) + "\"");
}

}  // namespace gaugepoint::mcp
