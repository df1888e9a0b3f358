// The dashboard's HTTP layer on cpp-httplib, built as the module gaugepoint-web.so (see
// DashboardServer.hpp): it knows requests, checks and streams; what it serves comes from the
// program through DashboardRoutes.

#include <httplib.h>
#include <sys/socket.h>

#include <atomic>
#include <thread>

#include "gaugepoint/web/DashboardChangeFeed.hpp"
#include "gaugepoint/web/DashboardRequestGuard.hpp"
#include "gaugepoint/web/DashboardServer.hpp"

namespace gaugepoint::web {
namespace {

using httplib::Request;
using httplib::Response;
using HandlerResponse = httplib::Server::HandlerResponse;

// A page may only be framed, sniffed or fetched from by itself; the token in the URL never
// leaves in a Referer.
const char* const kPagePolicy =
    "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; img-src 'self' data:; "
    "base-uri 'none'; form-action 'none'; frame-ancestors 'none'";

// An open stream says something this often, so a dead client is noticed and proxies keep it.
constexpr std::chrono::seconds kStreamHeartbeat{15};

bool needsToken(const std::string& path) { return path.rfind("/api/", 0) == 0 || path == "/events"; }

void refuse(Response& response, int status, const std::string& why) {
    response.status = status;
    response.set_content(why + "\n", "text/plain; charset=utf-8");
}

DashboardParameters parametersOf(const Request& request) {
    DashboardParameters parameters;
    for (const auto& [name, value] : request.params) {
        if (name != "token") parameters.emplace(name, value);  // the first of repeated names wins
    }
    return parameters;
}


class HttpDashboardServer final : public DashboardServer {
public:
    HttpDashboardServer(DashboardRoutes routes, const DashboardServerOptions& options);
    ~HttpDashboardServer() override { stop(); }

    int port() const override { return port_; }
    const std::string& token() const override { return token_; }
    void run() override;
    void stop() override;

private:
    void addRoutes();

    DashboardRoutes routes_;
    std::string token_;
    httplib::Server server_;
    std::unique_ptr<DashboardChangeFeed> feed_;
    int port_ = 0;
    std::atomic<bool> runCalled_{false};
    std::atomic<bool> stopCalled_{false};
    std::atomic<bool> runEnded_{false};
};

HttpDashboardServer::HttpDashboardServer(DashboardRoutes routes, const DashboardServerOptions& options)
    : routes_(std::move(routes)), token_(options.token.empty() ? newAccessToken() : options.token) {
    server_.new_task_queue = [] { return new httplib::ThreadPool(16); };  // a stream holds one each
    // httplib's default adds SO_REUSEPORT, which lets a second server of the same user take the
    // same port and half of its requests; a port in use must be an error instead.
    server_.set_socket_options([](socket_t socket) {
        int yes = 1;
        ::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    });
    server_.set_read_timeout(options.readTimeoutSeconds, 0);
    server_.set_write_timeout(options.readTimeoutSeconds, 0);
    server_.set_keep_alive_timeout(2);  // so stop() does not wait long for idle connections
    server_.set_payload_max_length(64 * 1024);  // GET has no body
    server_.set_default_headers({{"X-Content-Type-Options", "nosniff"},
                                 {"X-Frame-Options", "DENY"},
                                 {"Referrer-Policy", "no-referrer"},
                                 {"Cache-Control", "no-store"}});
    addRoutes();
    port_ = options.port == 0 ? server_.bind_to_any_port("127.0.0.1")
                              : (server_.bind_to_port("127.0.0.1", options.port) ? options.port : -1);
    if (port_ <= 0) {
        throw std::runtime_error("cannot listen on 127.0.0.1:" + std::to_string(options.port) + " (is the port taken?)");
    }
    feed_ = std::make_unique<DashboardChangeFeed>(routes_.changeStamp, options.pollInterval);
}

void HttpDashboardServer::addRoutes() {
    server_.set_pre_routing_handler([this](const Request& request, Response& response) {
        if (!isOwnHost(request.get_header_value("Host"), port_)) {
            refuse(response, 403, "this server answers only to 127.0.0.1:" + std::to_string(port_));
            return HandlerResponse::Handled;
        }
        if (request.method != "GET") {
            response.set_header("Allow", "GET");
            refuse(response, 405, "only GET is served");
            return HandlerResponse::Handled;
        }
        if (needsToken(request.path) && !sameToken(request.get_param_value("token"), token_)) {
            refuse(response, 403, "open the address gaugepoint printed: it carries the access token");
            return HandlerResponse::Handled;
        }
        return HandlerResponse::Unhandled;
    });
    server_.Get("/events", [this](const Request& request, Response& response) {
        // Compression would hold events back in the compressor's buffer until it fills. The
        // request object is the server's own, not a constant; the header is read after this.
        const_cast<Request&>(request).headers.erase("Accept-Encoding");
        response.set_chunked_content_provider(
            "text/event-stream",
            [this, seen = std::uint64_t(0), first = true](std::size_t, httplib::DataSink& sink) mutable {
                std::string event;
                if (first) {
                    first = false;
                    seen = feed_->generation();
                    event = "retry: 2000\nevent: hello\ndata: " + std::to_string(seen) + "\n\n";
                } else {
                    const std::uint64_t now = feed_->waitForChange(seen, kStreamHeartbeat);
                    if (feed_->stopped()) {
                        sink.done();
                        return true;
                    }
                    event = now != seen ? "event: change\ndata: " + std::to_string(now) + "\n\n" : ": idle\n\n";
                    seen = now;
                }
                return sink.write(event.data(), event.size());
            });
    });
    // Everything else the program answers: the page, its assets, the JSON routes, 404.
    server_.Get(R"(/.*)", [this](const Request& request, Response& response) {
        DashboardResponse answer = routes_.get(request.path, parametersOf(request));
        response.status = answer.status;
        if (answer.status == 200 && answer.contentType.rfind("text/html", 0) == 0) {
            response.set_header("Content-Security-Policy", kPagePolicy);
        }
        response.set_content(answer.body, answer.contentType);
    });
}

void HttpDashboardServer::run() {
    runCalled_ = true;
    if (!stopCalled_) server_.listen_after_bind();
    runEnded_ = true;
}

void HttpDashboardServer::stop() {
    stopCalled_ = true;
    if (feed_) feed_->stop();
    // httplib's stop() acts only on a listening server: wait until run() got there (or left).
    while (runCalled_ && !runEnded_ && !server_.is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    server_.stop();
}

}  // namespace
}  // namespace gaugepoint::web

extern "C" gaugepoint::web::DashboardServer* gaugepoint_web_http_server(gaugepoint::web::DashboardRoutes routes,
                                                                       const gaugepoint::web::DashboardServerOptions& options,
                                                                       std::string& error) {
    try {
        return new gaugepoint::web::HttpDashboardServer(std::move(routes), options);
    } catch (const std::exception& e) {
        error = e.what();
        return nullptr;
    }
}
