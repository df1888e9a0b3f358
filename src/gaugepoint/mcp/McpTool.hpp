#pragma once

// A tool of the MCP server: its name, what it does, the JSON schema of its arguments, and the
// call, which answers with a text for people and models and the same facts as structured JSON.

#include <boost/json/value.hpp>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "gaugepoint/mcp/McpContext.hpp"

namespace gaugepoint::mcp {

struct McpToolResult {
    std::string text;
    boost::json::object structured;
};

// The arguments of one call, checked against the tool's input schema as they are read: unknown
// names, wrong types, values outside an "enum" or below a "minimum". Every check throws
// JsonRpcError(invalidParams) naming the tool and the argument, e.g. "can_start: \"tokens\"
// must be a whole number of at least 1, got -5".
class McpArguments {
public:
    // `arguments` must be an object, or null for none.
    McpArguments(std::string_view tool, const boost::json::object& inputSchema, const boost::json::value& arguments);

    bool has(std::string_view name) const;
    std::optional<std::string> string(std::string_view name) const;
    std::optional<std::int64_t> integer(std::string_view name) const;
    // A day "YYYY-MM-DD" that exists.
    std::optional<std::string> day(std::string_view name) const;

    // An invalid-params error about this call: "<tool>: <message>".
    [[noreturn]] void fail(const std::string& message) const;

private:
    const boost::json::value* find(std::string_view name) const;
    const boost::json::object& property(std::string_view name) const;

    std::string tool_;
    const boost::json::object& schema_;
    boost::json::object arguments_;
};

struct McpTool {
    std::string name;
    std::string title;
    std::string description;
    boost::json::object inputSchema;
    // Throws JsonRpcError(invalidParams) for arguments it cannot take; any other exception is a
    // failure of the tool, reported to the client as a tool error.
    std::function<McpToolResult(const McpArguments&, McpContext&)> call;
};

// The server's tools, in the order tools/list gives them.
const std::vector<McpTool>& mcpTools();

// The tools, one file each.
McpTool quotaStatusTool();
McpTool usageReportTool();
McpTool sessionUsageTool();
McpTool canStartTool();

// A text as a message quotes it: at most 60 bytes of whole UTF-8 characters, then "...".
std::string excerpt(std::string_view text);

// Schema pieces: a string property, optionally one of `choices`; a whole-number property.
boost::json::object stringProperty(std::string_view description, std::vector<std::string_view> choices = {});
boost::json::object integerProperty(std::string_view description, std::int64_t minimum);
// {"type": "object", "properties": ..., "additionalProperties": false}
boost::json::object objectSchema(boost::json::object properties, std::vector<std::string_view> required = {});

}  // namespace gaugepoint::mcp
