#include "gaugepoint/mcp/McpLineReader.hpp"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "gaugepoint/platform/Error.hpp"

namespace gaugepoint::mcp {
namespace {

constexpr std::size_t kChunk = 64 * 1024;

void dropCarriageReturn(std::string& line) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
}

bool isBlank(const std::string& line) { return line.find_first_not_of(" \t\r") == std::string::npos; }

}  // namespace

bool McpLineReader::fill() {
    if (atEnd_) return false;
    if (start_ > 0) {  // keep only the unread part, so the buffer never holds more than a line and a chunk
        buffer_.erase(0, start_);
        start_ = 0;
    }
    const std::size_t size = buffer_.size();
    buffer_.resize(size + kChunk);
    ssize_t got = 0;
    do {
        got = ::read(fd_, buffer_.data() + size, kChunk);
    } while (got < 0 && errno == EINTR);
    if (got < 0) {
        buffer_.resize(size);
        throw Error(std::string("cannot read standard input: ") + std::strerror(errno));
    }
    buffer_.resize(size + std::size_t(got));
    atEnd_ = got == 0;
    return got > 0;
}

McpLineReader::Line McpLineReader::next() {
    bool skipping = false;  // inside a line already known to be too long
    for (;;) {
        const std::size_t newline = buffer_.find('\n', start_);
        if (newline != std::string::npos) {
            const std::size_t length = newline - start_;
            Line line;
            if (skipping || length > maxBytes_ + 1) {  // + 1: a CR before the newline is not counted
                line.kind = Kind::oversized;
            } else {
                line.kind = Kind::message;
                line.text.assign(buffer_, start_, length);
                dropCarriageReturn(line.text);
                if (line.text.size() > maxBytes_) line = Line{Kind::oversized, {}};
            }
            start_ = newline + 1;
            if (line.kind == Kind::message && isBlank(line.text)) continue;
            return line;
        }
        if (buffer_.size() - start_ > maxBytes_ + 1) {  // no newline within the bound: forget what was read
            skipping = true;
            buffer_.clear();
            start_ = 0;
        }
        if (!fill()) {
            if (skipping) {
                buffer_.clear();
                start_ = 0;
                return {Kind::oversized, {}};
            }
            std::string rest = buffer_.substr(start_);
            buffer_.clear();
            start_ = 0;
            dropCarriageReturn(rest);
            if (rest.size() > maxBytes_) return {Kind::oversized, {}};
            if (isBlank(rest)) return {Kind::end, {}};
            return {Kind::message, std::move(rest)};
        }
    }
}

}  // namespace gaugepoint::mcp
