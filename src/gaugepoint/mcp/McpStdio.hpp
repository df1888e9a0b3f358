#pragma once

// The stdio transport of the MCP server: messages are lines of the input, each reply one line of
// the output, written whole as soon as it is ready.

#include "gaugepoint/mcp/McpServer.hpp"

namespace gaugepoint::mcp {

// Reads messages from `in` and writes each reply as one line to `out`, until the end of input
// or until the reader of `out` has gone. A line over McpServer::maxMessageBytes gets an error
// reply and is skipped. Throws gaugepoint::Error when either cannot be read or written.
void serve(McpServer& server, int in, int out);

}  // namespace gaugepoint::mcp
