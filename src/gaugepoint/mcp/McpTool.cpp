#include "gaugepoint/mcp/McpTool.hpp"

#include <boost/json/serialize.hpp>

#include <cmath>
#include <cstdint>

#include "gaugepoint/mcp/JsonRpc.hpp"
#include "gaugepoint/platform/Date.hpp"

namespace gaugepoint::mcp {
namespace {

std::string quoted(std::string_view name) { return "\"" + std::string(name) + "\""; }

// A value as a message shows it: short, on one line.
std::string shown(const boost::json::value& value) {
    return value.is_string() ? "\"" + excerpt(value.get_string()) + "\"" : excerpt(boost::json::serialize(value));
}

}  // namespace

std::string excerpt(std::string_view text) {
    constexpr std::size_t kShown = 60;
    if (text.size() <= kShown) return std::string(text);
    std::size_t cut = kShown;
    while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80) --cut;  // whole UTF-8 characters
    return std::string(text.substr(0, cut)) + "...";
}

McpArguments::McpArguments(std::string_view tool, const boost::json::object& inputSchema,
                           const boost::json::value& arguments)
    : tool_(tool), schema_(inputSchema) {
    // No arguments at all reads as an empty object: the required ones are still missing.
    if (!arguments.is_null() && !arguments.is_object()) fail("the arguments must be an object, got " + shown(arguments));
    if (arguments.is_object()) arguments_ = arguments.get_object();
    const auto& properties = schema_.at("properties").get_object();
    for (const auto& entry : arguments_) {
        if (!properties.contains(entry.key())) {
            std::string known;
            for (const auto& p : properties) known += (known.empty() ? "" : ", ") + std::string(p.key());
            fail("unknown argument " + quoted(entry.key()) + " (known: " + known + ")");
        }
    }
    if (const auto* required = schema_.if_contains("required")) {
        for (const auto& name : required->get_array()) {
            if (!has(name.get_string())) fail("the argument " + quoted(name.get_string()) + " is required");
        }
    }
}

void McpArguments::fail(const std::string& message) const {
    throw JsonRpcError(JsonRpcErrorCode::invalidParams, tool_ + ": " + message);
}

const boost::json::value* McpArguments::find(std::string_view name) const {
    const auto* value = arguments_.if_contains(name);
    return value && !value->is_null() ? value : nullptr;
}

const boost::json::object& McpArguments::property(std::string_view name) const {
    return schema_.at("properties").at(name).get_object();
}

bool McpArguments::has(std::string_view name) const { return find(name) != nullptr; }

std::optional<std::string> McpArguments::string(std::string_view name) const {
    const auto* value = find(name);
    if (!value) return std::nullopt;
    if (!value->is_string()) fail(quoted(name) + " must be a string, got " + shown(*value));
    std::string text{value->get_string()};
    if (const auto* choices = property(name).if_contains("enum")) {
        bool allowed = false;
        std::string list;
        for (const auto& choice : choices->get_array()) {
            allowed = allowed || choice.get_string() == text;
            list += (list.empty() ? "" : ", ") + std::string(choice.get_string());
        }
        if (!allowed) fail(quoted(name) + " must be one of " + list + ", got " + shown(*value));
    }
    return text;
}

std::optional<std::int64_t> McpArguments::integer(std::string_view name) const {
    const auto* value = find(name);
    if (!value) return std::nullopt;
    const std::int64_t minimum = property(name).at("minimum").to_number<std::int64_t>();
    std::optional<std::int64_t> number;
    if (value->is_int64()) number = value->get_int64();
    if (value->is_uint64() && value->get_uint64() <= std::uint64_t(INT64_MAX)) number = std::int64_t(value->get_uint64());
    // Doubles beyond 2^53 are not whole numbers anyone meant; the range test comes first, so the
    // conversion below is defined.
    if (value->is_double() && std::abs(value->get_double()) < 9e15 &&
        value->get_double() == double(std::int64_t(value->get_double()))) {
        number = std::int64_t(value->get_double());
    }
    if (!number || *number < minimum) {
        fail(quoted(name) + " must be a whole number of at least " + std::to_string(minimum) + ", got " + shown(*value));
    }
    return number;
}

std::optional<std::string> McpArguments::day(std::string_view name) const {
    auto text = string(name);
    if (text && !dayNumber(*text)) fail(quoted(name) + " must be a day such as 2026-11-05, got \"" + excerpt(*text) + "\"");
    return text;
}

boost::json::object stringProperty(std::string_view description, std::vector<std::string_view> choices) {
    boost::json::object property{{"type", "string"}, {"description", description}};
    if (!choices.empty()) {
        boost::json::array list;
        for (auto choice : choices) list.emplace_back(choice);
        property["enum"] = std::move(list);
    }
    return property;
}

boost::json::object integerProperty(std::string_view description, std::int64_t minimum) {
    return {{"type", "integer"}, {"description", description}, {"minimum", minimum}};
}

boost::json::object objectSchema(boost::json::object properties, std::vector<std::string_view> required) {
    boost::json::object schema{{"type", "object"}, {"properties", std::move(properties)}, {"additionalProperties", false}};
    if (!required.empty()) {
        boost::json::array names;
        for (auto name : required) names.emplace_back(name);
        schema["required"] = std::move(names);
    }
    return schema;
}

const std::vector<McpTool>& mcpTools() {
    static const std::vector<McpTool> tools{quotaStatusTool(), usageReportTool(), sessionUsageTool(), canStartTool()};
    return tools;
}

}  // namespace gaugepoint::mcp
