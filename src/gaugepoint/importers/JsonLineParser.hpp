#pragma once

// The fast JSON reader of log lines (simdjson On-Demand): a line is parsed only as far as a
// parser asks, so the large prompt and tool-output texts that most lines carry are skipped at
// memory speed. One parser per thread; what it returns is valid until its next parse.

#include <simdjson.h>

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "gaugepoint/importers/CodingToolLogs.hpp"
#include "gaugepoint/platform/Date.hpp"

namespace gaugepoint {

// Bytes that must be readable after the end of any text handed to the parser.
inline constexpr std::size_t kJsonPadding = simdjson::SIMDJSON_PADDING;

class JsonLineParser {
public:
    // The top-level object of `text`, whose buffer holds `kJsonPadding` more readable bytes
    // after it; none when the text does not start an object.
    std::optional<simdjson::ondemand::object> object(std::string_view text);

    simdjson::ondemand::parser& parser() { return parser_; }

private:
    simdjson::ondemand::parser parser_;
    simdjson::ondemand::document document_;
};

namespace jsonline {

// Calls `read(object, line)` for each line of `lines` that is one whole JSON object, in order;
// every other line is reported to `sink` as a bad line.
template <class Read>
void forEachObject(std::span<const LogLine> lines, const LogFileContext& file, LogRecordSink& sink, Read&& read) {
    for (const auto& line : lines) {
        auto object = file.parser->object(line.text);
        if (!object) {
            sink.badLine(line.offset, "not a complete JSON object");
            continue;
        }
        read(*object, line);
    }
}

// Values of a field, each none when absent, null, of another type or malformed.
std::optional<std::string_view> text(simdjson::ondemand::value value);
std::optional<std::int64_t> integer(simdjson::ondemand::value value);
std::optional<double> number(simdjson::ondemand::value value);
std::optional<bool> boolean(simdjson::ondemand::value value);
// An ISO 8601 text ("2026-10-20T13:00:00.000Z").
std::optional<Date> date(simdjson::ondemand::value value);
bool isNull(simdjson::ondemand::value value);

// A token count into `slot`: null leaves it; false when the value is not a plausible count.
bool tokenCount(simdjson::ondemand::value value, std::int64_t& slot);

// A token count of a usage object: its key, another spelling of it (or empty), and its slot.
struct CountField {
    std::string_view key;
    std::string_view otherKey;
    std::int64_t* into;
};
// Reads the `fields` of `usage` into their slots; a null count leaves its slot, and another key
// goes to `other` (false from it fails the read) when given. False when a key cannot be read or a
// count is not a plausible token count; the slots then hold what was read before.
bool tokenCounts(simdjson::ondemand::object usage, std::initializer_list<CountField> fields,
                 const std::function<bool(std::string_view key, simdjson::ondemand::value value)>& other = {});

// A message's content: a string, or an array of parts with a "type" and maybe a "text".
struct ContentSummary {
    std::string text;      // the string, or the parts' texts joined by newlines (when collected)
    bool hasText = false;  // some text that is not only white space
    bool sawType = false;  // a part of the type looked for
};
ContentSummary content(simdjson::ondemand::value content, std::string_view lookFor, bool collectText);

}  // namespace jsonline
}  // namespace gaugepoint
