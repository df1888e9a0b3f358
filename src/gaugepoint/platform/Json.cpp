#include "gaugepoint/platform/Json.hpp"

#include <boost/json/basic_parser_impl.hpp>
#include <boost/json/value_stack.hpp>

#include <charconv>
#include <cmath>
#include <limits>

namespace gaugepoint::json {

std::string Path::toString() const {
    if (!parent) return "the document";
    std::string text = parent->parent ? parent->toString() : std::string{};
    if (isElement) {
        text += '[' + std::to_string(index) + ']';
    } else {
        if (!text.empty()) text += '.';
        text += key;
    }
    return text;
}

DecodingError::DecodingError(std::string path, std::string reason)
    : Error(path + ": " + reason), path_(std::move(path)), reason_(std::move(reason)) {}

namespace {

// Line and column (both from 1) of a byte offset, for parse error messages.
std::string positionText(std::string_view text, std::size_t offset) {
    std::size_t line = 1, column = 1;
    for (std::size_t i = 0; i < offset && i < text.size(); ++i) {
        if (text[i] == '\n') {
            ++line;
            column = 1;
        } else {
            ++column;
        }
    }
    return "line " + std::to_string(line) + ", column " + std::to_string(column);
}

// Builds the value as the library's own parser does, but for the reading of numbers with a
// fraction or an exponent: its fast reading can be one unit in the last place off, so that a
// document written back from what was read would not read back to the same numbers. Those are
// read again from their text, rounded correctly. "-0" reads as negative zero, not as integer 0.
struct ValueBuilder {
    static constexpr std::size_t max_object_size = boost::json::object::max_size();
    static constexpr std::size_t max_array_size = boost::json::array::max_size();
    static constexpr std::size_t max_key_size = boost::json::string::max_size();
    static constexpr std::size_t max_string_size = boost::json::string::max_size();

    boost::json::value_stack stack;
    std::string number;  // the parts of a number split across inputs

    using ec = boost::system::error_code;
    using sv = boost::json::string_view;
    bool on_document_begin(ec&) { return true; }
    bool on_document_end(ec&) { return true; }
    bool on_object_begin(ec&) { return true; }
    bool on_object_end(std::size_t n, ec&) { return stack.push_object(n), true; }
    bool on_array_begin(ec&) { return true; }
    bool on_array_end(std::size_t n, ec&) { return stack.push_array(n), true; }
    bool on_key_part(sv s, std::size_t, ec&) { return stack.push_chars(s), true; }
    bool on_key(sv s, std::size_t, ec&) { return stack.push_key(s), true; }
    bool on_string_part(sv s, std::size_t, ec&) { return stack.push_chars(s), true; }
    bool on_string(sv s, std::size_t, ec&) { return stack.push_string(s), true; }
    bool on_number_part(sv s, ec&) { return number.append(s.data(), s.size()), true; }
    bool on_int64(std::int64_t i, sv s, ec&) {
        // "-0" is negative zero, which an integer cannot hold: a -0.0 written out must read back.
        const bool negativeZero = i == 0 && (number.empty() ? !s.empty() && s.front() == '-' : number.front() == '-');
        number.clear();
        return negativeZero ? stack.push_double(-0.0) : stack.push_int64(i), true;
    }
    bool on_uint64(std::uint64_t u, sv, ec&) { return number.clear(), stack.push_uint64(u), true; }
    bool on_double(double d, sv s, ec&) {
        number.append(s.data(), s.size());
        double exact = 0;
        const auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), exact);
        if (error == std::errc() && end == number.data() + number.size()) d = exact;  // else (out of range) as read
        number.clear();
        return stack.push_double(d), true;
    }
    bool on_bool(bool b, ec&) { return stack.push_bool(b), true; }
    bool on_null(ec&) { return stack.push_null(), true; }
    bool on_comment_part(sv, ec&) { return true; }
    bool on_comment(sv, ec&) { return true; }
};

}  // namespace

boost::json::value parse(std::string_view text, boost::json::storage_ptr storage) {
    boost::json::parse_options options;
    options.max_depth = 64;  // documents here are shallow; deep nesting is hostile input
    boost::json::basic_parser<ValueBuilder> parser{options};
    parser.handler().stack.reset(std::move(storage));
    boost::system::error_code ec;
    const std::size_t consumed = parser.write_some(false, text.data(), text.size(), ec);
    if (!ec && consumed < text.size()) ec = boost::json::error::extra_data;
    if (ec) {
        throw DecodingError("invalid JSON at " + positionText(text, consumed), ec.message());
    }
    return parser.handler().stack.release();
}

std::string_view kindName(const boost::json::value& value) {
    switch (value.kind()) {
        case boost::json::kind::null: return "null";
        case boost::json::kind::bool_: return "a boolean";
        case boost::json::kind::int64:
        case boost::json::kind::uint64:
        case boost::json::kind::double_: return "a number";
        case boost::json::kind::string: return "a string";
        case boost::json::kind::array: return "an array";
        case boost::json::kind::object: return "an object";
    }
    return "a value";
}

void throwTypeMismatch(const Path& path, std::string_view expected, const boost::json::value& found) {
    throw DecodingError(path.toString(), "expected " + std::string(expected) + ", found " + std::string(kindName(found)));
}

const boost::json::object& expectObject(const boost::json::value& value, const Path& path) {
    if (!value.is_object()) throwTypeMismatch(path, "an object", value);
    return value.get_object();
}

std::int64_t readInteger(const boost::json::value& v, const Path& path) {
    if (v.is_int64()) return v.get_int64();
    if (v.is_uint64()) {
        if (v.get_uint64() > std::uint64_t(std::numeric_limits<std::int64_t>::max())) {
            throw DecodingError(path.toString(), "integer out of range");
        }
        return std::int64_t(v.get_uint64());
    }
    if (v.is_double()) {
        // An integral number written with a fraction ("42.0") is accepted; 42.5 is not.
        const double d = v.get_double();
        if (d != std::trunc(d)) throw DecodingError(path.toString(), "expected an integer, found a fraction");
        if (!(d >= -9223372036854775808.0 && d < 9223372036854775808.0)) {
            throw DecodingError(path.toString(), "integer out of range");
        }
        return std::int64_t(d);
    }
    throwTypeMismatch(path, "an integer", v);
}

double readDouble(const boost::json::value& v, const Path& path) {
    if (v.is_double()) {
        // The parser turns a literal too large for a double (1e999) into infinity, which no
        // percent or amount can be and which could never be written back out.
        if (!std::isfinite(v.get_double())) throw DecodingError(path.toString(), "number out of range");
        return v.get_double();
    }
    if (v.is_int64()) return double(v.get_int64());
    if (v.is_uint64()) return double(v.get_uint64());
    throwTypeMismatch(path, "a number", v);
}

void Coding<Date>::write(JsonWriter& w, Date v) { w.string(formatISO8601(v)); }

Date Coding<Date>::read(const boost::json::value& v, const Path& path) {
    if (!v.is_string()) throwTypeMismatch(path, "an ISO 8601 date", v);
    const auto& text = v.get_string();
    if (auto date = parseISO8601(text)) return *date;
    std::string found;
    appendQuoted(found, text);  // escaped, so the message stays one line whatever the text holds
    throw DecodingError(path.toString(), "expected an ISO 8601 date, found " + found);
}

}  // namespace gaugepoint::json
