#pragma once

// The dashboard's HTTP server: loopback only, GET only, our own page and JSON only.
//   - requests whose Host is not 127.0.0.1:PORT or localhost:PORT are refused (403);
//   - the JSON routes and the event stream need ?token=<the random token of the printed URL>
//     (403), so another local user's page cannot read them through the browser;
//   - any other method is 405; no CORS header is ever sent;
//   - /events is a server-sent event stream: "event: change" each time the stores changed.
// The HTTP layer (HttpDashboardServer.cpp, on cpp-httplib) is a module of its own, loaded by
// start(): linked into the program, its libraries (OpenSSL, zlib, brotli) cost every run of
// every command about 1.5 ms of loading.

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "gaugepoint/web/DashboardData.hpp"

namespace gaugepoint::web {

struct DashboardServerOptions {
    int port = 0;       // 0: a free port chosen by the system
    std::string token;  // empty: a new random one
    std::chrono::milliseconds pollInterval{1000};  // of the store change stamp
    int readTimeoutSeconds = 5;  // a client that sends its request slower than this is dropped
};

// One answer of a GET route, as the HTTP layer sends it.
struct DashboardResponse {
    int status = 200;
    std::string body;
    std::string contentType;
};

// What the HTTP layer serves, supplied by the program; both are called from its threads.
struct DashboardRoutes {
    // The answer to GET `path` with its query (the token taken out): page, assets, JSON, 404.
    std::function<DashboardResponse(const std::string& path, const DashboardParameters& parameters)> get;
    // The stores' change stamp (StoreChangeStamp.hpp), polled for the event stream.
    std::function<std::uint64_t()> changeStamp;
};

class DashboardServer {
public:
    virtual ~DashboardServer() = default;

    // A server of `data`'s pages, bound to 127.0.0.1 at once. Throws gaugepoint::Error when the
    // port cannot be bound or the HTTP module cannot be loaded.
    static std::unique_ptr<DashboardServer> start(const DashboardData& data, DashboardServerOptions options);

    virtual int port() const = 0;
    virtual const std::string& token() const = 0;
    // "http://127.0.0.1:PORT/?token=TOKEN": what the user opens.
    std::string url() const;

    // Serves until stop(); returns at once when stop() came first.
    virtual void run() = 0;
    // Ends run() and every event stream. Safe from any thread.
    virtual void stop() = 0;
};

// The HTTP module's one entry point: a server of `routes`, or null with `error` set.
using DashboardServerFactory = DashboardServer* (*)(DashboardRoutes routes, const DashboardServerOptions& options,
                                                    std::string& error);

}  // namespace gaugepoint::web

// Defined by HttpDashboardServer.cpp; declared weak so that a program which links it in (the
// tests) calls it directly and the command finds it by dlopen.
extern "C" gaugepoint::web::DashboardServer* gaugepoint_web_http_server(gaugepoint::web::DashboardRoutes routes,
                                                                       const gaugepoint::web::DashboardServerOptions& options,
                                                                       std::string& error) __attribute__((weak));
