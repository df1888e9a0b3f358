#pragma once

#include <stdexcept>
#include <string>

namespace gaugepoint::lzfse {

// Every failure of the codec. what() is a one-line description that names the block kind,
// the byte offset in the input and the value that was wrong, so a bad blob can be diagnosed
// from a log line alone.
class Error : public std::runtime_error {
public:
    enum class Kind {
        Truncated,      // the input ends before a field, payload or end marker it must hold
        BadMagic,       // four bytes where a block starts are not one of the five block magics
        BadHeader,      // a header field is out of range or inconsistent with the others
        BadTable,       // a frequency table is malformed (bad code, wrong sum, empty)
        BadPayload,     // a bit stream or instruction stream does not decode cleanly
        BadOpcode,      // an undefined LZVN opcode
        BadDistance,    // a match reaches before the start of the output, or has no distance
        SizeMismatch,   // a block produced a different number of bytes than its header says
        OutputLimit,    // the output would grow past the caller's limit
    };

    Error(Kind kind, const std::string& message) : std::runtime_error(message), kind_(kind) {}

    Kind kind() const noexcept { return kind_; }

private:
    Kind kind_;
};

}  // namespace gaugepoint::lzfse
