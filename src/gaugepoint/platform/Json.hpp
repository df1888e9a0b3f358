#pragma once

// The one JSON codec of the project. A struct or enum described with Boost.Describe
// (BOOST_DESCRIBE_STRUCT / BOOST_DESCRIBE_ENUM) is coded with no further code:
//   - object keys equal member names; enum values are their enumerator names;
//   - empty optionals are left out when writing; absent or null reads as empty;
//   - a missing required key, a wrong type or an unknown enum string fails the whole document
//     with a DecodingError naming the key path ("providers[0].windows[1].semantic");
//   - keys the type does not know are ignored;
//   - a member named in AbsentKeys<T> may be absent (or null) although it is not optional: it
//     keeps the value a default-constructed T gives it (an empty list, a zero count).
// A document with irregular keys specialises Coding<T> beside its type.

#include <boost/describe/class.hpp>
#include <boost/describe/enum.hpp>
#include <boost/describe/enum_from_string.hpp>
#include <boost/describe/enum_to_string.hpp>
#include <boost/describe/enumerators.hpp>
#include <boost/describe/members.hpp>
#include <boost/json/monotonic_resource.hpp>
#include <boost/json/value.hpp>
#include <boost/mp11/algorithm.hpp>

#include <array>
#include <cstdint>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "gaugepoint/platform/Date.hpp"
#include "gaugepoint/platform/Error.hpp"
#include "gaugepoint/platform/JsonWriter.hpp"

namespace gaugepoint::json {

// Where a value sits in a document. Nodes live on the decoder's stack; the text is built only
// when an error is reported.
struct Path {
    const Path* parent = nullptr;
    std::string_view key;  // member name, when not an array element
    std::size_t index = 0;
    bool isElement = false;

    Path member(std::string_view name) const { return Path{this, name, 0, false}; }
    Path element(std::size_t i) const { return Path{this, {}, i, true}; }
    // "providers[0].windows[1].semantic"; "the document" at the root.
    std::string toString() const;
};

// A document that does not have the expected shape. what() is "<path>: <reason>".
class DecodingError : public Error {
public:
    DecodingError(std::string path, std::string reason);
    const std::string& path() const noexcept { return path_; }
    const std::string& reason() const noexcept { return reason_; }

private:
    std::string path_;
    std::string reason_;
};

// A value that JSON cannot represent (a non-finite number).
class EncodingError : public Error {
public:
    using Error::Error;
};

// Parses text into a DOM allocated from `storage` (default: the heap). Throws DecodingError with
// the line and column of the first fault.
boost::json::value parse(std::string_view text, boost::json::storage_ptr storage = {});

// "a string", "a number", "null", ... for error messages.
std::string_view kindName(const boost::json::value& value);

[[noreturn]] void throwTypeMismatch(const Path& path, std::string_view expected, const boost::json::value& found);

template <class T, class Enable = void>
struct Coding;  // write(JsonWriter&, const T&) and read(const boost::json::value&, const Path&)

// Non-optional members of T that a document may leave out. Specialise beside the type:
//   template <> struct json::AbsentKeys<Message> { static constexpr std::string_view keys[] = {"toolCalls"}; };
template <class T>
struct AbsentKeys {
    static constexpr std::array<std::string_view, 0> keys{};
};

template <class T>
constexpr bool mayBeAbsent(std::string_view name) {
    for (std::string_view key : AbsentKeys<T>::keys) {
        if (key == name) return true;
    }
    return false;
}

// ---- public entry points ----

// The JSON text of a value; `pretty` indents by two spaces. Throws EncodingError.
template <class T>
std::string encode(const T& value, bool pretty = false) {
    JsonWriter writer{pretty};
    Coding<T>::write(writer, value);
    return writer.take();
}

// A value from an already parsed DOM. Throws DecodingError.
template <class T>
T fromValue(const boost::json::value& value, const Path& path = {}) {
    return Coding<T>::read(value, path);
}

// A value from JSON text. Throws DecodingError.
template <class T>
T decode(std::string_view text) {
    // The DOM lives only for the mapping, so it comes from one arena freed in a single step
    // rather than from a heap allocation per node.
    unsigned char initial[4096];
    boost::json::monotonic_resource arena{initial, sizeof initial};
    return fromValue<T>(parse(text, &arena));
}

// The raw value of a described enumerator: its name, as JSON writes it.
template <class E>
std::string_view rawValue(E value) {
    return boost::describe::enum_to_string(value, "");
}

// ---- building blocks ----

template <class T>
struct IsOptional : std::false_type {};
template <class T>
struct IsOptional<std::optional<T>> : std::true_type {};

template <class T>
void writeValue(JsonWriter& writer, const T& value) {
    Coding<T>::write(writer, value);
}

// Writes `"name": value`, leaving out empty optionals.
template <class T>
void writeMember(JsonWriter& writer, std::string_view name, const T& value) {
    if constexpr (IsOptional<T>::value) {
        if (!value) return;
        writer.key(name);
        writeValue(writer, *value);
    } else {
        writer.key(name);
        writeValue(writer, value);
    }
}

const boost::json::object& expectObject(const boost::json::value& value, const Path& path);

// Reads member `name` of `object` into `out`: absent or null leaves an optional empty, and
// fails for a required member.
template <class T>
void readMember(const boost::json::object& object, std::string_view name, T& out, const Path& parent) {
    const Path path = parent.member(name);
    const boost::json::value* value = object.if_contains(name);
    if constexpr (IsOptional<T>::value) {
        if (!value || value->is_null()) {
            out.reset();
        } else {
            out = Coding<typename T::value_type>::read(*value, path);
        }
    } else {
        if (!value) throw DecodingError(path.toString(), "required key is missing");
        out = Coding<T>::read(*value, path);
    }
}

// ---- scalars ----

template <>
struct Coding<bool> {
    static void write(JsonWriter& w, bool v) { w.boolean(v); }
    static bool read(const boost::json::value& v, const Path& path) {
        if (!v.is_bool()) throwTypeMismatch(path, "a boolean", v);
        return v.get_bool();
    }
};

std::int64_t readInteger(const boost::json::value& v, const Path& path);
double readDouble(const boost::json::value& v, const Path& path);

template <class T>
struct Coding<T, std::enable_if_t<std::is_integral_v<T> && !std::is_same_v<T, bool>>> {
    static void write(JsonWriter& w, T v) { w.integer(static_cast<std::int64_t>(v)); }
    static T read(const boost::json::value& v, const Path& path) {
        const std::int64_t n = readInteger(v, path);
        bool inRange = true;
        if constexpr (std::is_unsigned_v<T>) {
            inRange = n >= 0 && std::uint64_t(n) <= std::uint64_t(std::numeric_limits<T>::max());
        } else if constexpr (sizeof(T) < sizeof(std::int64_t)) {
            inRange = n >= std::int64_t(std::numeric_limits<T>::min()) && n <= std::int64_t(std::numeric_limits<T>::max());
        }
        if (!inRange) throw DecodingError(path.toString(), "integer out of range");
        return static_cast<T>(n);
    }
};

template <class T>
struct Coding<T, std::enable_if_t<std::is_floating_point_v<T>>> {
    static void write(JsonWriter& w, T v) { w.number(static_cast<double>(v)); }
    static T read(const boost::json::value& v, const Path& path) { return static_cast<T>(readDouble(v, path)); }
};

template <>
struct Coding<std::string> {
    static void write(JsonWriter& w, const std::string& v) { w.string(v); }
    static std::string read(const boost::json::value& v, const Path& path) {
        if (!v.is_string()) throwTypeMismatch(path, "a string", v);
        return std::string(v.get_string());
    }
};

// Dates are ISO 8601 texts in UTC.
template <>
struct Coding<Date> {
    static void write(JsonWriter& w, Date v);
    static Date read(const boost::json::value& v, const Path& path);
};

// ---- containers ----

template <class T>
struct Coding<std::optional<T>> {
    static void write(JsonWriter& w, const std::optional<T>& v) {
        if (v) {
            Coding<T>::write(w, *v);
        } else {
            w.null();
        }
    }
    static std::optional<T> read(const boost::json::value& v, const Path& path) {
        if (v.is_null()) return std::nullopt;
        return Coding<T>::read(v, path);
    }
};

template <class T>
struct Coding<std::vector<T>> {
    static void write(JsonWriter& w, const std::vector<T>& list) {
        w.beginArray();
        for (const auto& item : list) Coding<T>::write(w, item);
        w.endArray();
    }
    static std::vector<T> read(const boost::json::value& v, const Path& path) {
        if (!v.is_array()) throwTypeMismatch(path, "an array", v);
        const auto& array = v.get_array();
        std::vector<T> list;
        list.reserve(array.size());
        for (std::size_t i = 0; i < array.size(); ++i) list.push_back(Coding<T>::read(array[i], path.element(i)));
        return list;
    }
};

template <class T>
struct Coding<std::map<std::string, T>> {
    static void write(JsonWriter& w, const std::map<std::string, T>& map) {
        w.beginObject();
        for (const auto& [key, value] : map) {
            w.key(key);
            Coding<T>::write(w, value);
        }
        w.endObject();
    }
    static std::map<std::string, T> read(const boost::json::value& v, const Path& path) {
        std::map<std::string, T> map;
        for (const auto& entry : expectObject(v, path)) {
            const std::string_view key = entry.key();
            map.insert_or_assign(std::string(key), Coding<T>::read(entry.value(), path.member(key)));
        }
        return map;
    }
};

// ---- described enums and structs ----

template <class E>
struct Coding<E, std::enable_if_t<boost::describe::has_describe_enumerators<E>::value>> {
    static void write(JsonWriter& w, E v) { w.string(boost::describe::enum_to_string(v, "")); }
    static E read(const boost::json::value& v, const Path& path) {
        if (!v.is_string()) throwTypeMismatch(path, "a string", v);
        const auto& text = v.get_string();
        E result{};
        // enum_from_string needs a NUL-terminated name; a JSON string can hold an inner NUL.
        if (text.find('\0') != boost::json::string::npos ||
            !boost::describe::enum_from_string(text.c_str(), result)) {
            throw DecodingError(path.toString(), "unknown value \"" + std::string(text) + "\"");
        }
        return result;
    }
};

template <class T>
struct Coding<T, std::enable_if_t<boost::describe::has_describe_members<T>::value && !std::is_union_v<T>>> {
    using Members = boost::describe::describe_members<T, boost::describe::mod_public | boost::describe::mod_inherited>;

    static void write(JsonWriter& w, const T& value) {
        w.beginObject();
        boost::mp11::mp_for_each<Members>([&](auto member) { writeMember(w, member.name, value.*member.pointer); });
        w.endObject();
    }
    static T read(const boost::json::value& v, const Path& path) {
        const auto& object = expectObject(v, path);
        T value{};
        boost::mp11::mp_for_each<Members>([&](auto member) {
            if (mayBeAbsent<T>(member.name)) {
                const boost::json::value* found = object.if_contains(member.name);
                if (!found || found->is_null()) return;  // keeps the default
            }
            readMember(object, member.name, value.*member.pointer, path);
        });
        return value;
    }
};

}  // namespace gaugepoint::json
