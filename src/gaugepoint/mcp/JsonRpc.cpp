#include "gaugepoint/mcp/JsonRpc.hpp"

#include <cstdint>

#include <boost/json/parse.hpp>

#include "gaugepoint/platform/JsonWriter.hpp"

namespace gaugepoint::mcp {
namespace {

[[noreturn]] void invalid(const std::string& why) { throw JsonRpcError(JsonRpcErrorCode::invalidRequest, why); }

// A JSON-RPC id is a string or an integer (null is allowed by the letter of 2.0 but names nothing).
bool isUsableId(const boost::json::value& id) { return id.is_string() || id.is_int64() || id.is_uint64(); }

void write(json::JsonWriter& writer, const boost::json::value& value) {
    switch (value.kind()) {
        case boost::json::kind::null: return writer.null();
        case boost::json::kind::bool_: return writer.boolean(value.get_bool());
        case boost::json::kind::int64: return writer.integer(value.get_int64());
        case boost::json::kind::uint64:
            if (value.get_uint64() <= std::uint64_t(INT64_MAX)) return writer.integer(std::int64_t(value.get_uint64()));
            return writer.number(double(value.get_uint64()));
        case boost::json::kind::double_: return writer.number(value.get_double());
        case boost::json::kind::string: return writer.string(value.get_string());
        case boost::json::kind::array:
            writer.beginArray();
            for (const auto& element : value.get_array()) write(writer, element);
            return writer.endArray();
        case boost::json::kind::object:
            writer.beginObject();
            for (const auto& member : value.get_object()) {
                writer.key(member.key());
                write(writer, member.value());
            }
            return writer.endObject();
    }
}

}  // namespace

std::string jsonText(const boost::json::value& value) {
    json::JsonWriter writer;
    write(writer, value);
    return writer.take();
}

JsonRpcMessage parseJsonRpcMessage(std::string_view line, boost::json::value& idOut) {
    idOut = nullptr;
    boost::system::error_code error;
    boost::json::value document = boost::json::parse(line, error);
    if (error) throw JsonRpcError(JsonRpcErrorCode::parseError, "not JSON: " + error.message());
    if (document.is_array()) invalid("batches are not supported: send one message per line");
    if (!document.is_object()) invalid("a message must be a JSON object");
    auto& object = document.get_object();
    const boost::json::value* id = object.if_contains("id");
    if (id && isUsableId(*id)) idOut = *id;
    const boost::json::value* version = object.if_contains("jsonrpc");
    if (!version || !version->is_string() || version->get_string() != "2.0") invalid("\"jsonrpc\" must be \"2.0\"");
    if (id && !isUsableId(*id)) invalid("\"id\" must be a string or an integer");

    JsonRpcMessage message;
    if (id) message.id = *id;
    const boost::json::value* method = object.if_contains("method");
    if (!method) {
        if (!id || (!object.contains("result") && !object.contains("error"))) invalid("a request needs \"method\"");
        return message;  // a response to a request of ours
    }
    if (!method->is_string() || method->get_string().empty()) invalid("\"method\" must be a non-empty string");
    message.method = std::string(method->get_string());
    if (const boost::json::value* params = object.if_contains("params"); params && !params->is_null()) {
        if (!params->is_object()) invalid("\"params\" must be an object");
        message.params = std::move(*params);
    }
    return message;
}

std::string jsonRpcResult(const boost::json::value& id, const boost::json::value& result) {
    boost::json::object reply;
    reply["jsonrpc"] = "2.0";
    reply["id"] = id;
    reply["result"] = result;
    return jsonText(reply);
}

std::string jsonRpcError(const boost::json::value& id, JsonRpcErrorCode code, std::string_view message) {
    boost::json::object reply;
    reply["jsonrpc"] = "2.0";
    reply["id"] = id;
    reply["error"] = {{"code", static_cast<int>(code)}, {"message", message}};
    return jsonText(reply);
}

}  // namespace gaugepoint::mcp
