#include "gaugepoint/platform/JsonWriter.hpp"

#include <charconv>
#include <cmath>

#include "gaugepoint/platform/Json.hpp"

namespace gaugepoint::json {

void appendQuoted(std::string& out, std::string_view text) {
    static constexpr char hex[] = "0123456789abcdef";
    out += '"';
    std::size_t run = 0;  // start of the pending run of characters that need no escape
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (c >= 0x20 && c != '"' && c != '\\') continue;
        out.append(text, run, i - run);
        run = i + 1;
        switch (c) {
            case '"': out += "\\\""; break;
            case '\\': out += "\\\\"; break;
            case '\n': out += "\\n"; break;
            case '\r': out += "\\r"; break;
            case '\t': out += "\\t"; break;
            case '\b': out += "\\b"; break;
            case '\f': out += "\\f"; break;
            default:
                out += "\\u00";
                out += hex[c >> 4];
                out += hex[c & 15];
        }
    }
    out.append(text, run);
    out += '"';
}

void JsonWriter::newline() {
    out_ += '\n';
    out_.append(hasElements_.size() * 2, ' ');
}

void JsonWriter::beforeValue() {
    if (afterKey_) {
        afterKey_ = false;
        return;
    }
    if (hasElements_.empty()) return;
    if (hasElements_.back()) out_ += ',';
    hasElements_.back() = true;
    if (pretty_) newline();
}

void JsonWriter::beginObject() {
    beforeValue();
    out_ += '{';
    hasElements_.push_back(false);
}

void JsonWriter::endObject() {
    const bool any = hasElements_.back();
    hasElements_.pop_back();
    if (pretty_ && any) newline();
    out_ += '}';
}

void JsonWriter::beginArray() {
    beforeValue();
    out_ += '[';
    hasElements_.push_back(false);
}

void JsonWriter::endArray() { endObject(); out_.back() = ']'; }

void JsonWriter::key(std::string_view name) {
    beforeValue();
    appendQuoted(out_, name);
    out_ += pretty_ ? ": " : ":";
    afterKey_ = true;
}

void JsonWriter::string(std::string_view text) {
    beforeValue();
    appendQuoted(out_, text);
}

void JsonWriter::number(double value) {
    if (!std::isfinite(value)) throw EncodingError("a number is not finite and cannot be written as JSON");
    beforeValue();
    char buffer[32];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    out_.append(buffer, result.ptr);
}

void JsonWriter::integer(std::int64_t value) {
    beforeValue();
    char buffer[24];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    out_.append(buffer, result.ptr);
}

void JsonWriter::boolean(bool value) {
    beforeValue();
    out_ += value ? "true" : "false";
}

void JsonWriter::null() {
    beforeValue();
    out_ += "null";
}

std::string JsonWriter::take() {
    std::string result = std::move(out_);
    out_.clear();
    hasElements_.clear();
    afterKey_ = false;
    return result;
}

}  // namespace gaugepoint::json
