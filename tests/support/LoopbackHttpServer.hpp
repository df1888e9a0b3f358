#pragma once

// A tiny HTTP/1.1 server on 127.0.0.1 for tests that must make real requests: each path answers
// with a fixed status and body, optionally after a delay. One request per connection.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <map>
#include <string>
#include <thread>
#include <vector>

namespace gaugepoint::testing {

class LoopbackHttpServer {
public:
    struct Response {
        int status = 200;
        std::string body;
        std::chrono::milliseconds delay{0};
    };

    LoopbackHttpServer() {
        listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = 0;  // any free port
        ::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address);
        ::listen(listener_, 16);
        socklen_t length = sizeof address;
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
        port_ = ntohs(address.sin_port);
        thread_ = std::thread([this] { serve(); });
    }
    ~LoopbackHttpServer() {
        stopping_ = true;
        thread_.join();
        for (auto& connection : connections_) connection.join();
        ::close(listener_);
    }
    LoopbackHttpServer(const LoopbackHttpServer&) = delete;
    LoopbackHttpServer& operator=(const LoopbackHttpServer&) = delete;

    // Set routes before the first request.
    void route(const std::string& path, Response response) { routes_[path] = std::move(response); }
    std::string url(const std::string& path) const { return "http://127.0.0.1:" + std::to_string(port_) + path; }
    int requests() const { return requests_; }

private:
    void serve() {
        while (!stopping_) {
            pollfd ready{listener_, POLLIN, 0};
            if (::poll(&ready, 1, 20) <= 0) continue;
            const int client = ::accept(listener_, nullptr, nullptr);
            if (client < 0) continue;
            // One thread per connection, so a slow answer does not hold up the next request.
            connections_.emplace_back([this, client] {
                answer(client);
                ::close(client);
            });
        }
    }

    void answer(int client) {
        std::string request;
        char buffer[4096];
        while (request.find("\r\n\r\n") == std::string::npos) {
            const ssize_t n = ::recv(client, buffer, sizeof buffer, 0);
            if (n <= 0) return;
            request.append(buffer, std::size_t(n));
        }
        ++requests_;
        const auto start = request.find(' ') + 1;
        const std::string path = request.substr(start, request.find(' ', start) - start);
        const auto found = routes_.find(path);
        const Response response = found == routes_.end() ? Response{404, "not found"} : found->second;
        const auto until = std::chrono::steady_clock::now() + response.delay;
        while (!stopping_ && std::chrono::steady_clock::now() < until) std::this_thread::sleep_for(std::chrono::milliseconds(5));
        const std::string reply = "HTTP/1.1 " + std::to_string(response.status) + " X\r\nContent-Length: " +
                                  std::to_string(response.body.size()) + "\r\nConnection: close\r\n\r\n" + response.body;
        ::send(client, reply.data(), reply.size(), MSG_NOSIGNAL);
    }

    int listener_ = -1;
    int port_ = 0;
    std::map<std::string, Response> routes_;
    std::atomic<bool> stopping_{false};
    std::atomic<int> requests_{0};
    std::thread thread_;
    std::vector<std::thread> connections_;  // touched by the accepting thread only
};

}  // namespace gaugepoint::testing
