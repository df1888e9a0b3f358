// Arbitrary bytes as Claude Code's status-line input. Whatever is read must make a view, a
// line in both languages with and without colour, and a JSON document, and a reading must
// apply to a provider, without a crash.

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "gaugepoint/platform/Json.hpp"
#include "gaugepoint/quota/ClaudeStatusLineRecorder.hpp"
#include "gaugepoint/quota/ClaudeStatusLineView.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace gaugepoint;
    std::vector<std::string> problems;
    const auto input = ClaudeStatusLineInput::parse({reinterpret_cast<const char*>(data), size}, problems);
    const Date now = dateFromSeconds(1795267140);
    ProviderQuota claude;
    claude.id = "claude";
    ClaudeStatusLineRecorder::applyReading(claude, input, now);
    for (const char* language : {"en", "zh-Hans"}) {
        const auto view = ClaudeStatusLineView::make(input, &claude, now, now + std::chrono::hours(1), language, {});
        (void)ClaudeStatusLineText::line(view, ClaudeStatusLineText::Style::ansi, "{model} {five_hour} {age}");
        (void)ClaudeStatusLineText::line(view, ClaudeStatusLineText::Style::plain);
        (void)json::encode(view);
    }
    return 0;
}
