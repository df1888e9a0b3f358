#pragma once

// The values an option takes, as checks that explain themselves. A wrong value is refused before
// it is converted, with a line that says what the option accepts and shows an example:
//   --limit takes a whole number from 1 (got "-1"), e.g. --limit 20
// The checks write "{option}" where the option's name goes; usageErrorMessage fills it in.

#include <CLI/CLI.hpp>

#include <cstdint>
#include <string>
#include <vector>

namespace gaugepoint::cli::Values {

// An integer of at least `minimum` (and at most `maximum`).
CLI::Validator wholeNumber(std::int64_t minimum, std::string example,
                           std::int64_t maximum = INT64_MAX);
// A decimal number of at least `minimum`, finite.
CLI::Validator number(double minimum, std::string example);
// One of `choices`, as written.
CLI::Validator oneOf(std::vector<std::string> choices);

}  // namespace gaugepoint::cli::Values
