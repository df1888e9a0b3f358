#include "gaugepoint/platform/UrlFetch.hpp"

#include <curl/curl.h>

#include <memory>
#include <mutex>

namespace gaugepoint {
namespace {

struct Body {
    std::string bytes;
    std::size_t limit = 0;
};

std::size_t append(char* data, std::size_t size, std::size_t count, void* user) {
    auto* body = static_cast<Body*>(user);
    const std::size_t n = size * count;
    if (body->bytes.size() + n > body->limit) return 0;  // makes curl fail the transfer
    body->bytes.append(data, n);
    return n;
}

void initialiseOnce() {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

}  // namespace

std::optional<std::string> fetchURL(const std::string& url, const UrlFetchOptions& options) {
    initialiseOnce();
    const std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> curl{curl_easy_init(), &curl_easy_cleanup};
    if (!curl) return std::nullopt;
    Body body{{}, options.maximumBytes};
    CURL* h = curl.get();
    curl_easy_setopt(h, CURLOPT_URL, url.c_str());
    curl_easy_setopt(h, CURLOPT_PROTOCOLS_STR, "http,https,file");
    curl_easy_setopt(h, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(h, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(h, CURLOPT_MAXREDIRS, 5L);
    curl_easy_setopt(h, CURLOPT_FAILONERROR, 1L);
    curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);  // timeouts without SIGALRM, safe in threads
    curl_easy_setopt(h, CURLOPT_CONNECTTIMEOUT_MS, long(options.connectTimeout.count()));
    curl_easy_setopt(h, CURLOPT_TIMEOUT_MS, long(options.totalTimeout.count()));
    curl_easy_setopt(h, CURLOPT_ACCEPT_ENCODING, "");  // any encoding curl can decode
    curl_easy_setopt(h, CURLOPT_USERAGENT, "gaugepoint/0.1");
    curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, &append);
    curl_easy_setopt(h, CURLOPT_WRITEDATA, &body);
    if (curl_easy_perform(h) != CURLE_OK) return std::nullopt;
    return std::move(body.bytes);
}

}  // namespace gaugepoint
