#include "gaugepoint/mcp/McpStdio.hpp"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "gaugepoint/mcp/McpLineReader.hpp"

namespace gaugepoint::mcp {

namespace {

// Writes all of `bytes`; false when the reader has gone (the conversation is over).
bool writeAll(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t written = ::write(fd, bytes.data(), bytes.size());
        if (written < 0 && errno == EINTR) continue;
        if (written < 0 && errno == EPIPE) return false;
        if (written < 0) throw Error(std::string("cannot write standard output: ") + std::strerror(errno));
        bytes.remove_prefix(std::size_t(written));
    }
    return true;
}

}  // namespace

void serve(McpServer& server, int in, int out) {
    McpLineReader reader{in, McpServer::maxMessageBytes};
    for (;;) {
        const McpLineReader::Line line = reader.next();
        std::optional<std::string> reply;
        if (line.kind == McpLineReader::Kind::end) return;
        if (line.kind == McpLineReader::Kind::oversized) reply = McpServer::oversizedReply();
        if (line.kind == McpLineReader::Kind::message) reply = server.handle(line.text);
        if (reply && !writeAll(out, *reply + "\n")) return;
    }
}

}  // namespace gaugepoint::mcp
