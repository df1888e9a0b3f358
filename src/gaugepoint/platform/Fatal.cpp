#include "gaugepoint/platform/Fatal.hpp"

#include <cstdio>
#include <cstdlib>

namespace gaugepoint {

void fatalError(std::string_view message, SourceLocation where) {
    std::fprintf(stderr, "gaugepoint: fatal: %.*s (%s:%u)\n", int(message.size()), message.data(), where.file,
                 where.line);
    std::fflush(stderr);
    std::abort();
}

}  // namespace gaugepoint
