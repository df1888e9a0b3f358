#pragma once

// The words and figures of the watch view in English or Chinese (Chinese when the language code
// begins with "zh"), and the short number forms its narrow columns need.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace gaugepoint::tui::WatchText {

enum class Phrase {
    quota, blocks, today, sessions, machines, official, estimated, stale, noQuota, noBlock, noUsageToday,
    noSessions, total, days14, allTools, updated, keys, keysShort, help, perHour, projected, by, tokens,
    helpLines,
};

// The phrase in `language`.
std::string_view phrase(Phrase which, std::string_view language);

// Tokens in at most six columns: "950", "12.3K", "2.7M", "1.2B".
std::string tokens(std::int64_t count);
// Dollars to the cent: "$5.01", "$1,234.56".
std::string dollars(double amount);
// One character per value from "▁" to "█", scaled to the largest value; "▁" for zero.
std::string sparkline(const std::vector<double>& values);

}  // namespace gaugepoint::tui::WatchText
