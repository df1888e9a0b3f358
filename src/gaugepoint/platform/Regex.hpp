#pragma once

// A regular expression compiled once (PCRE2, UTF-8 with Unicode properties, JIT where the
// platform has it) and used from any thread. Subjects may hold invalid UTF-8: such bytes simply
// never match a character class.

#include <optional>
#include <string>
#include <string_view>

#include "gaugepoint/platform/Fatal.hpp"

struct pcre2_real_code_8;

namespace gaugepoint {

class Regex {
public:
    // Compiles `pattern`. A pattern that does not compile is a programming error: the program
    // stops, naming the pattern and `where` (the place that declared it).
    explicit Regex(std::string_view pattern, SourceLocation where = GAUGEPOINT_HERE);
    ~Regex();
    Regex(const Regex&) = delete;
    Regex& operator=(const Regex&) = delete;

    // True when the pattern matches somewhere in `subject`.
    bool matches(std::string_view subject) const;

    // `subject` with the first match (every match when `global`) replaced by `replacement`, in
    // which $1, $2, ... stand for the groups; none when nothing matched.
    std::optional<std::string> replaced(std::string_view subject, std::string_view replacement,
                                        bool global = false) const;

private:
    pcre2_real_code_8* code_;
};

}  // namespace gaugepoint
