#pragma once

// Hashing of value documents: members combined in declaration order, so two values that
// differ in any member (an optional text included) hash apart with high probability.

#include <boost/describe/members.hpp>
#include <boost/mp11/algorithm.hpp>

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "gaugepoint/platform/Date.hpp"

namespace gaugepoint {

inline void hashCombine(std::size_t& seed, std::size_t value) {
    seed ^= value + 0x9e3779b97f4a7c15ULL + (seed << 6) + (seed >> 2);
}

template <class T>
std::size_t hashValue(const T& value);
template <class T>
std::size_t hashValue(const std::optional<T>& value);
template <class T>
std::size_t hashValue(const std::vector<T>& list);

namespace detail {
template <class T>
void hashInto(std::size_t& seed, const T& value) {
    hashCombine(seed, hashValue(value));
}
}  // namespace detail

template <class T>
std::size_t hashValue(const T& value) {
    if constexpr (boost::describe::has_describe_members<T>::value) {
        std::size_t seed = 0;
        using Members = boost::describe::describe_members<T, boost::describe::mod_public | boost::describe::mod_inherited>;
        boost::mp11::mp_for_each<Members>([&](auto member) { detail::hashInto(seed, value.*member.pointer); });
        return seed;
    } else if constexpr (std::is_same_v<T, Date>) {
        return std::hash<double>{}(secondsSince1970(value));
    } else if constexpr (std::is_enum_v<T>) {
        return std::hash<std::underlying_type_t<T>>{}(static_cast<std::underlying_type_t<T>>(value));
    } else {
        return std::hash<T>{}(value);
    }
}

template <class T>
std::size_t hashValue(const std::optional<T>& value) {
    return value ? hashValue(*value) * 31 + 1 : 0;
}

template <class T>
std::size_t hashValue(const std::vector<T>& list) {
    std::size_t seed = list.size();
    for (const auto& item : list) hashCombine(seed, hashValue(item));
    return seed;
}

}  // namespace gaugepoint

// Declares std::hash<T> for a described value type through gaugepoint::hashValue.
#define GAUGEPOINT_DECLARE_HASH(Type)                                                       \
    template <>                                                                             \
    struct std::hash<Type> {                                                                \
        std::size_t operator()(const Type& value) const { return ::gaugepoint::hashValue(value); } \
    }
