#pragma once

// Downloads a document over http, https or file addresses (libcurl, loaded on first use).

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>

namespace gaugepoint {

struct UrlFetchOptions {
    std::chrono::milliseconds connectTimeout{10'000};
    std::chrono::milliseconds totalTimeout{60'000};
    std::size_t maximumBytes = std::size_t(64) << 20;  // a longer body is a failure, not cut short
};

// The body at `url`, or none when it cannot be had: an address that is not http, https or file,
// no connection, an HTTP status of 400 or more, a timeout, or a body over the limit. Redirects
// are followed (at most five, http and https only). None too when libcurl is not installed.
// Thread-safe.
std::optional<std::string> fetchURL(const std::string& url, const UrlFetchOptions& options = {});

// Whether libcurl could be loaded, so that a failure can say so.
bool urlFetchAvailable();

}  // namespace gaugepoint
