#pragma once

// JSON-RPC 2.0 as the MCP stdio transport carries it: one message per line, each a request
// (method and id), a notification (method, no id) or a response to us (id, no method).
// Batches are not part of the protocol version this server speaks.

#include <boost/json/value.hpp>

#include <optional>
#include <string>
#include <string_view>

#include "gaugepoint/platform/Error.hpp"

namespace gaugepoint::mcp {

// The error codes of JSON-RPC 2.0, and MCP's code for an unknown resource.
enum class JsonRpcErrorCode : int {
    parseError = -32700,
    invalidRequest = -32600,
    methodNotFound = -32601,
    invalidParams = -32602,
    internalError = -32603,
    resourceNotFound = -32002,
};

// A request that cannot be answered; becomes the reply's error member. what() is its message.
class JsonRpcError : public Error {
public:
    JsonRpcError(JsonRpcErrorCode code, const std::string& message) : Error(message), code_(code) {}
    JsonRpcErrorCode code() const noexcept { return code_; }

private:
    JsonRpcErrorCode code_;
};

struct JsonRpcMessage {
    std::optional<boost::json::value> id;  // none: a notification (or a response without method)
    std::string method;                     // empty: a response to a request of ours
    boost::json::value params;              // an object, or null when absent

    bool isNotification() const { return !id && !method.empty(); }
    bool isResponse() const { return method.empty(); }
};

// Reads one line. Throws JsonRpcError: parseError for text that is not JSON, invalidRequest
// for JSON that is not a message; `idOut` then holds the id when one could be read (else null),
// so the error reply can name the request.
JsonRpcMessage parseJsonRpcMessage(std::string_view line, boost::json::value& idOut);

// `value` as compact JSON text, numbers in the project's shortest round-trip form (0.8, not
// 8E-1). Throws json::EncodingError for a non-finite number.
std::string jsonText(const boost::json::value& value);

// A reply line without its newline: {"jsonrpc":"2.0","id":...,"result":...}.
std::string jsonRpcResult(const boost::json::value& id, const boost::json::value& result);
// {"jsonrpc":"2.0","id":...,"error":{"code":...,"message":...}}; a null id when unknown.
std::string jsonRpcError(const boost::json::value& id, JsonRpcErrorCode code, std::string_view message);

}  // namespace gaugepoint::mcp
