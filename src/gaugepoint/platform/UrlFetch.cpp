#include "gaugepoint/platform/UrlFetch.hpp"

// The type-checking macros would stand in for the calls made through the pointers below.
#define CURL_DISABLE_TYPECHECK
#include <curl/curl.h>

#include <memory>

#include "gaugepoint/platform/SharedLibrary.hpp"

namespace gaugepoint {
namespace {

// libcurl is loaded on the first download, not at start: with the TLS, Kerberos and LDAP
// libraries it brings, linking it would add milliseconds to every run of the command, which
// mostly never downloads anything.
struct CurlLibrary {
    decltype(&curl_global_init) globalInit = nullptr;
    decltype(&curl_easy_init) easyInit = nullptr;
    decltype(&curl_easy_setopt) easySetopt = nullptr;
    decltype(&curl_easy_perform) easyPerform = nullptr;
    decltype(&curl_easy_cleanup) easyCleanup = nullptr;
};

// The loaded library, initialised; null when it is not installed.
const CurlLibrary* curlLibrary() {
    static const std::unique_ptr<CurlLibrary> library = []() -> std::unique_ptr<CurlLibrary> {
        const auto lib = SharedLibrary::open({"libcurl.so.4", "libcurl-gnutls.so.4", "libcurl.4.dylib", "libcurl.dylib"});
        auto curl = std::make_unique<CurlLibrary>();
        if (!lib || !lib->bind("curl_global_init", curl->globalInit) || !lib->bind("curl_easy_init", curl->easyInit) ||
            !lib->bind("curl_easy_setopt", curl->easySetopt) || !lib->bind("curl_easy_perform", curl->easyPerform) ||
            !lib->bind("curl_easy_cleanup", curl->easyCleanup) || curl->globalInit(CURL_GLOBAL_DEFAULT) != CURLE_OK) {
            return nullptr;
        }
        return curl;
    }();
    return library.get();
}

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

}  // namespace

std::optional<std::string> fetchURL(const std::string& url, const UrlFetchOptions& options) {
    const CurlLibrary* lib = curlLibrary();
    if (!lib) return std::nullopt;
    const std::unique_ptr<CURL, decltype(lib->easyCleanup)> curl{lib->easyInit(), lib->easyCleanup};
    if (!curl) return std::nullopt;
    Body body{{}, options.maximumBytes};
    CURL* h = curl.get();
    const auto set = lib->easySetopt;
    set(h, CURLOPT_URL, url.c_str());
    set(h, CURLOPT_PROTOCOLS_STR, "http,https,file");
    set(h, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    set(h, CURLOPT_FOLLOWLOCATION, 1L);
    set(h, CURLOPT_MAXREDIRS, 5L);
    set(h, CURLOPT_FAILONERROR, 1L);
    set(h, CURLOPT_NOSIGNAL, 1L);  // timeouts without SIGALRM, safe in threads
    set(h, CURLOPT_CONNECTTIMEOUT_MS, long(options.connectTimeout.count()));
    set(h, CURLOPT_TIMEOUT_MS, long(options.totalTimeout.count()));
    set(h, CURLOPT_ACCEPT_ENCODING, "");  // any encoding curl can decode
    set(h, CURLOPT_USERAGENT, "gaugepoint/0.1");
    set(h, CURLOPT_WRITEFUNCTION, &append);
    set(h, CURLOPT_WRITEDATA, &body);
    if (lib->easyPerform(h) != CURLE_OK) return std::nullopt;
    return std::move(body.bytes);
}

bool urlFetchAvailable() { return curlLibrary() != nullptr; }

}  // namespace gaugepoint
