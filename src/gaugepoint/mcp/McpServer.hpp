#pragma once

// The MCP server: answers one JSON-RPC message at a time (initialize, ping, tools/list,
// tools/call, resources/list, resources/read); McpStdio.hpp runs it over standard input and
// output. Notifications and responses get no reply. Whatever a line holds, the answer is a reply
// or nothing, never an exception (but std::bad_alloc).

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include <boost/json/value.hpp>

#include "gaugepoint/mcp/McpContext.hpp"

namespace gaugepoint::mcp {

class McpServer {
public:
    // The protocol version spoken unless the client asks for an older one this server knows.
    static constexpr std::string_view latestProtocolVersion = "2025-06-18";
    // The longest message read, in bytes (a text for can_start fits with room to spare).
    static constexpr std::size_t maxMessageBytes = std::size_t{4} << 20;

    explicit McpServer(McpContext& context) : context_(context) {}

    // The reply line (without its newline) to one message line; none for notifications and
    // responses.
    std::optional<std::string> handle(std::string_view line);
    // The reply to a line longer than maxMessageBytes, whose id cannot be known.
    static std::string oversizedReply();

private:
    boost::json::value dispatch(const std::string& method, const boost::json::value& params);
    boost::json::object initialize(const boost::json::value& params) const;
    boost::json::object callTool(const boost::json::value& params);
    boost::json::object readResource(const boost::json::value& params);

    McpContext& context_;
};

}  // namespace gaugepoint::mcp
