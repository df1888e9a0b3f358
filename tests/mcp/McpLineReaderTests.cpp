#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include "TestSupport.hpp"
#include "gaugepoint/mcp/McpLineReader.hpp"

namespace gaugepoint::mcp {
namespace {

using Kind = McpLineReader::Kind;

// Every line the reader gives for `input` with a bound of `maxBytes`: the text of a message, "!"
// for an oversized line.
std::vector<std::string> linesOf(const std::string& input, std::size_t maxBytes) {
    testing::ScratchDirectory dir;
    testing::writeFile(dir / "in", input);
    const int fd = ::open((dir / "in").c_str(), O_RDONLY);
    McpLineReader reader{fd, maxBytes};
    std::vector<std::string> lines;
    for (auto line = reader.next(); line.kind != Kind::end; line = reader.next()) {
        lines.push_back(line.kind == Kind::oversized ? "!" : line.text);
    }
    ::close(fd);
    return lines;
}

TEST(McpLineReader, KeepsLinesWithinTheBoundAndSkipsLongerOnesWhole) {
    EXPECT_EQ(linesOf("12345\n123456\r\n1234\n", 5), (std::vector<std::string>{"12345", "!", "1234"}));
    EXPECT_EQ(linesOf("12345\r\n", 5), (std::vector<std::string>{"12345"}));  // the CR is not part of the message
    EXPECT_EQ(linesOf("\n  \r\nab\n\n", 5), (std::vector<std::string>{"ab"}));
    EXPECT_EQ(linesOf("ab\ncd", 5), (std::vector<std::string>{"ab", "cd"}));  // the last line needs no newline
    EXPECT_EQ(linesOf("ab\n123456", 5), (std::vector<std::string>{"ab", "!"}));
    EXPECT_TRUE(linesOf("", 5).empty());
}

TEST(McpLineReader, AnOversizedLineAcrossManyReadsIsDroppedAndTheNextLineRead) {
    // Several reads' worth of one line: the reader must not keep it, and must find the line after it.
    const std::string huge(1 << 20, 'x');
    EXPECT_EQ(linesOf(huge + "\n{\"id\":1}\n" + huge, 1000), (std::vector<std::string>{"!", "{\"id\":1}", "!"}));
    const std::string atBound(70000, 'y');  // a message longer than one read, exactly at the bound
    EXPECT_EQ(linesOf(atBound + "\nz\n", 70000), (std::vector<std::string>{atBound, "z"}));
}

}  // namespace
}  // namespace gaugepoint::mcp
