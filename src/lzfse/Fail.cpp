#include "lzfse/Fail.hpp"

namespace gaugepoint::lzfse::detail {

void fail(Error::Kind kind, const std::string& message) { throw Error(kind, message); }

void failTruncated(const char* what, std::size_t offset, std::size_t needed,
                   std::size_t remaining) {
    fail(Error::Kind::Truncated, std::string("LZFSE stream truncated: ") + what + " needs " +
                                     std::to_string(needed) + " bytes" + at(offset) + ", " +
                                     std::to_string(remaining) + " remain");
}

std::string at(std::size_t offset) { return " at offset " + std::to_string(offset); }

}  // namespace gaugepoint::lzfse::detail
