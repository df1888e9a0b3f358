#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace gaugepoint::json {

// Streams one JSON document into a string: compact, or indented by two spaces.
// Doubles are written in shortest round-trip form (42.5, 42, 1e-07); non-finite doubles throw
// EncodingError because JSON cannot hold them. Strings are written as given (UTF-8).
class JsonWriter {
public:
    explicit JsonWriter(bool pretty = false) : pretty_(pretty) {}

    void beginObject();
    void endObject();
    void beginArray();
    void endArray();
    void key(std::string_view name);  // inside an object, before each value

    void string(std::string_view text);
    void number(double value);
    void integer(std::int64_t value);
    void boolean(bool value);
    void null();

    // The finished document; the writer is empty afterwards.
    std::string take();

private:
    void beforeValue();
    void newline();

    std::string out_;
    std::vector<bool> hasElements_;  // one entry per open container
    bool pretty_;
    bool afterKey_ = false;
};

// Appends `text` to `out` as a quoted JSON string with the required escapes.
void appendQuoted(std::string& out, std::string_view text);

}  // namespace gaugepoint::json
