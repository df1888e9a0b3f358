#pragma once

#include <cstdint>
#include <string_view>

namespace gaugepoint {

// Where a call was written; the defaults take the caller's file and line (GCC and Clang both
// have these builtins, while std::source_location is missing from some standard libraries).
struct SourceLocation {
    const char* file;
    unsigned line;
};
#define GAUGEPOINT_HERE ::gaugepoint::SourceLocation{__builtin_FILE(), __builtin_LINE()}

// Stops the program after printing "gaugepoint: fatal: <message> (<file>:<line>)" on stderr.
// Only for programming errors and broken invariants, never for bad input.
[[noreturn]] void fatalError(std::string_view message, SourceLocation where = GAUGEPOINT_HERE);

// a + b, stopping the program when the sum does not fit in a signed 64-bit integer (token counts
// that large mean the data is corrupt or the arithmetic is wrong; no answer would be right).
inline std::int64_t checkedAdd(std::int64_t a, std::int64_t b,
                               SourceLocation where = GAUGEPOINT_HERE) {
    std::int64_t sum = 0;
    if (__builtin_add_overflow(a, b, &sum)) fatalError("signed 64-bit overflow adding token counts", where);
    return sum;
}

}  // namespace gaugepoint
