#pragma once

// What a person reads when the command line is wrong: one line in our words that names the
// option or command, says what it accepts and gives an example, and suggests the command meant
// when a word is mistyped.

#include <CLI/CLI.hpp>

#include <string>
#include <string_view>
#include <vector>

namespace gaugepoint::cli {

// "lzfse compress": the command words of the subcommand being run ("" for none).
std::string commandWords(const CLI::App& root);

// The message for a parse failure of `root` (after root.parse threw `error`), without the
// "gaugepoint: " prefix.
std::string usageErrorMessage(const CLI::ParseError& error, const CLI::App& root);

// The arguments people type that mean another: "help [CMD...]" is "[CMD...] --help", "version"
// is "--version".
std::vector<std::string> normalizedArguments(std::vector<std::string> arguments);

// The closest of `candidates` to `word` within an edit distance of 2 (or that `word` begins
// with); empty when none is close.
std::string closestName(std::string_view word, const std::vector<std::string>& candidates);

}  // namespace gaugepoint::cli
