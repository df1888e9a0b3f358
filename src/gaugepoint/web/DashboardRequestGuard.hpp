#pragma once

// Who may talk to the dashboard: the checks every request passes before a route sees it.
// Binding to loopback keeps other machines out; these keep out other sites in the user's own
// browser (DNS rebinding, cross-origin reads) and other local users.

#include <string>
#include <string_view>

namespace gaugepoint::web {

// True when `host` (the Host header) names this server as the browser was told to reach it:
// "127.0.0.1:PORT" or "localhost:PORT" (any case). A rebound DNS name never passes.
bool isOwnHost(std::string_view host, int port) noexcept;

// 128 random bits as 32 lowercase hex digits, from the system's random source.
std::string newAccessToken();

// Compares in time independent of where the texts differ, so timing does not leak the token.
bool sameToken(std::string_view given, std::string_view expected) noexcept;

}  // namespace gaugepoint::web
