#pragma once

// The messages of the stdio transport: lines of standard input, each bounded in size. A line
// longer than the bound is skipped to its newline without being kept, so memory stays within
// the bound whatever a client sends, and the server can answer it and read on.

#include <cstddef>
#include <string>

namespace gaugepoint::mcp {

class McpLineReader {
public:
    enum class Kind { message, oversized, end };
    struct Line {
        Kind kind = Kind::end;
        std::string text;  // a message without its newline (and without a CR before it)
    };

    // Reads `fd` (not owned) in lines of at most `maxBytes` bytes.
    McpLineReader(int fd, std::size_t maxBytes) : fd_(fd), maxBytes_(maxBytes) {}

    // The next line; blank lines are skipped. A last line without a newline is a message. Throws
    // gaugepoint::Error when the system fails to read.
    Line next();

private:
    bool fill();  // reads more into buffer_; false at the end of input

    int fd_;
    std::size_t maxBytes_;
    std::string buffer_;
    std::size_t start_ = 0;  // the unread part of buffer_ begins here
    bool atEnd_ = false;
};

}  // namespace gaugepoint::mcp
