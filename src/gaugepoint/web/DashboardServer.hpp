#pragma once

// The dashboard's HTTP server: loopback only, GET only, our own page and JSON only.
//   - requests whose Host is not 127.0.0.1:PORT or localhost:PORT are refused (403);
//   - the JSON routes and the event stream need ?token=<the random token of the printed URL>
//     (403), so another local user's page cannot read them through the browser;
//   - any other method is 405; no CORS header is ever sent;
//   - /events is a server-sent event stream: "event: change" each time the stores changed.

#include <atomic>
#include <chrono>
#include <memory>
#include <string>

#include "gaugepoint/web/DashboardChangeFeed.hpp"
#include "gaugepoint/web/DashboardData.hpp"

namespace httplib {
class Server;
}

namespace gaugepoint::web {

struct DashboardServerOptions {
    int port = 0;       // 0: a free port chosen by the system
    std::string token;  // empty: a new random one
    std::chrono::milliseconds pollInterval{1000};  // of the store change stamp
    int readTimeoutSeconds = 5;  // a client that sends its request slower than this is dropped
};

class DashboardServer {
public:
    // Binds 127.0.0.1 at once. Throws gaugepoint::Error when the port cannot be bound.
    DashboardServer(const DashboardData& data, DashboardServerOptions options);
    ~DashboardServer();
    DashboardServer(const DashboardServer&) = delete;
    DashboardServer& operator=(const DashboardServer&) = delete;

    int port() const { return port_; }
    const std::string& token() const { return token_; }
    // "http://127.0.0.1:PORT/?token=TOKEN": what the user opens.
    std::string url() const;

    // Serves until stop(); returns at once when stop() came first.
    void run();
    // Ends run() and every event stream. Safe from any thread and a signal-watching one.
    void stop();

private:
    void addRoutes();

    const DashboardData& data_;
    std::string token_;
    std::unique_ptr<httplib::Server> server_;
    std::unique_ptr<DashboardChangeFeed> feed_;
    int port_ = 0;
    std::atomic<bool> runCalled_{false};
    std::atomic<bool> stopCalled_{false};
    std::atomic<bool> runEnded_{false};
};

}  // namespace gaugepoint::web
