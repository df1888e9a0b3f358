// Arbitrary bytes as a conversation with the MCP server, one message per line, over empty
// stores. Every request must get exactly one reply: one line of JSON-RPC 2.0 with the request's
// id (or null) and a result or an error; notifications none. Nothing may throw.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string_view>

#include <boost/json/parse.hpp>

#include "gaugepoint/mcp/McpServer.hpp"

namespace {

using namespace gaugepoint;

mcp::McpContext& context() {
    static mcp::McpContext shared{[] {
        mcp::McpOptions options;
        const auto directory = std::filesystem::temp_directory_path() / "gaugepoint-fuzz-mcp";
        std::filesystem::create_directories(directory);
        options.configuration.appGroupDirectory = directory;
        options.pinnedNow = dateFromSeconds(1794000000);
        options.scanBeforeReading = false;
        return options;
    }()};
    return shared;
}

void checkReply(const std::string& reply) {
    if (reply.find('\n') != std::string::npos) std::abort();
    boost::system::error_code error;
    const auto document = boost::json::parse(reply, error);
    if (error || !document.is_object()) std::abort();
    const auto& object = document.get_object();
    if (object.at("jsonrpc") != "2.0" || !object.contains("id")) std::abort();
    if (object.contains("result") == object.contains("error")) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view input(reinterpret_cast<const char*>(data), size);
    mcp::McpServer server{context()};
    while (!input.empty()) {
        const std::size_t newline = input.find('\n');
        const std::string_view line = input.substr(0, newline);
        input.remove_prefix(newline == std::string_view::npos ? input.size() : newline + 1);
        if (auto reply = server.handle(line)) checkReply(*reply);
    }
    return 0;
}
