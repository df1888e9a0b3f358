// gaugepoint mcp: the MCP server over standard input and output, for coding agents.

#include <unistd.h>

#include <csignal>

#include "Commands.hpp"
#include "LogScan.hpp"
#include "gaugepoint/mcp/McpStdio.hpp"

namespace gaugepoint::cli {
namespace {

struct McpCommandOptions {
    LogHomesOptions homes;
    bool noScan = false;
};

void run(const McpCommandOptions& options, const GlobalOptions& globals) {
    mcp::McpOptions server;
    server.configuration = resolveConfiguration(globals);
    if (!globals.now.empty()) server.pinnedNow = resolveNow(globals);
    server.language = resolveLanguage(globals);
    options.homes.applyTo(server.scan);
    server.scanBeforeReading = !options.noScan;
    // A client that goes away mid-reply ends the conversation, not the process with a signal.
    std::signal(SIGPIPE, SIG_IGN);
    mcp::McpContext context{std::move(server)};
    mcp::McpServer mcpServer{context};
    mcp::serve(mcpServer, STDIN_FILENO, STDOUT_FILENO);
}

}  // namespace

void registerMcpCommand(CLI::App& root, GlobalOptions& globals) {
    auto options = std::make_shared<McpCommandOptions>();
    CLI::App* command = addGroup(root, "mcp",
                                 "Serve quota and usage to coding agents: an MCP server on standard input and output "
                                 "(one JSON-RPC message per line)");
    command->add_flag("--no-scan", options->noScan,
                      "Answer from the stores as they are, without reading the logs when the last scan is over a "
                      "minute old");
    options->homes.addOptions(*command);
    command->callback([options, &globals] { run(*options, globals); });
}

}  // namespace gaugepoint::cli
