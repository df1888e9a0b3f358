#include "gaugepoint/importers/JsonLineParser.hpp"

#include <algorithm>
#include <cmath>

#include "gaugepoint/importers/CodingToolLogs.hpp"
#include "gaugepoint/platform/Text.hpp"

namespace gaugepoint {

std::optional<simdjson::ondemand::object> JsonLineParser::object(std::string_view text) {
    if (parser_.iterate(text.data(), text.size(), text.size() + kJsonPadding).get(document_)) return std::nullopt;
    simdjson::ondemand::object object;
    if (document_.get_object().get(object)) return std::nullopt;
    return object;
}

namespace jsonline {

std::optional<std::string_view> text(simdjson::ondemand::value value) {
    std::string_view result;
    if (value.get_string().get(result)) return std::nullopt;
    return result;
}

std::optional<std::int64_t> integer(simdjson::ondemand::value value) {
    simdjson::ondemand::number_type type;
    if (value.get_number_type().get(type)) return std::nullopt;
    if (type == simdjson::ondemand::number_type::signed_integer) {
        std::int64_t n;
        if (value.get_int64().get(n)) return std::nullopt;
        return n;
    }
    // An integral number written with a fraction ("42.0") counts; 42.5 or 1e30 does not.
    double d;
    if (type != simdjson::ondemand::number_type::floating_point_number || value.get_double().get(d)) return std::nullopt;
    if (d != std::trunc(d) || !(d >= -9.2e18 && d <= 9.2e18)) return std::nullopt;
    return std::int64_t(d);
}

std::optional<double> number(simdjson::ondemand::value value) {
    double d;
    if (value.get_double().get(d) || !std::isfinite(d)) return std::nullopt;
    return d;
}

std::optional<bool> boolean(simdjson::ondemand::value value) {
    bool b;
    if (value.get_bool().get(b)) return std::nullopt;
    return b;
}

std::optional<Date> date(simdjson::ondemand::value value) {
    const auto t = text(value);
    if (!t) return std::nullopt;
    return parseISO8601(*t);
}

bool isNull(simdjson::ondemand::value value) {
    bool null = false;
    return !value.is_null().get(null) && null;
}

bool tokenCounts(simdjson::ondemand::object usage, std::initializer_list<CountField> fields,
                 const std::function<bool(std::string_view key, simdjson::ondemand::value value)>& other) {
    for (auto field : usage) {
        std::string_view key;
        if (field.unescaped_key().get(key)) return false;
        const auto named = std::find_if(fields.begin(), fields.end(), [&](const CountField& f) {
            return key == f.key || (!f.otherKey.empty() && key == f.otherKey);
        });
        simdjson::ondemand::value value = field.value();
        if (named == fields.end()) {
            if (other && !other(key, value)) return false;
            continue;
        }
        if (!tokenCount(value, *named->into)) return false;
    }
    return true;
}

bool tokenCount(simdjson::ondemand::value value, std::int64_t& slot) {
    if (isNull(value)) return true;
    const auto count = integer(value);
    if (!count || !isPlausibleTokenCount(*count)) return false;
    slot = *count;
    return true;
}

ContentSummary content(simdjson::ondemand::value content, std::string_view lookFor, bool collectText) {
    ContentSummary summary;
    const auto take = [&](std::string_view text) {
        if (!summary.hasText && !trimmed(text).empty()) summary.hasText = true;
        if (!collectText) return;
        if (!summary.text.empty()) summary.text += '\n';
        summary.text += text;
    };
    if (const auto plain = text(content)) {
        take(*plain);
        return summary;
    }
    simdjson::ondemand::array array;
    if (content.get_array().get(array)) return summary;
    for (auto element : array) {
        simdjson::ondemand::object part;
        if (element.get_object().get(part)) continue;
        for (auto field : part) {
            std::string_view key;
            if (field.unescaped_key().get(key)) break;
            if (key == "type") {
                if (text(field.value()) == lookFor) summary.sawType = true;
            } else if (key == "text") {
                if (const auto t = text(field.value())) take(*t);
            }
        }
    }
    return summary;
}

}  // namespace jsonline
}  // namespace gaugepoint
