#pragma once

// The sample logs scanned once into scratch stores, and a dashboard served from them on a
// thread of the test, with the clock pinned just after the sample's last events.

#include <httplib.h>

#include <cstdlib>
#include <thread>

#include "CommandRunner.hpp"
#include "gaugepoint/web/DashboardServer.hpp"

namespace gaugepoint::testing {

inline constexpr const char* kSampleNow = "2026-11-06T21:00:00Z";

// The stores of the sample logs (examples/logs), shared by every test of the process. The
// environment points the command's settings and data into the same scratch directory.
inline const ScratchDirectory& sampleStores() {
    static const ScratchDirectory* const stores = [] {
        auto* dir = new ScratchDirectory;
        ::setenv("XDG_CONFIG_HOME", (*dir / "config").c_str(), 1);
        ::setenv("XDG_DATA_HOME", (*dir / "data").c_str(), 1);
        ::setenv("TZ", "UTC", 1);
        const std::string logs = GAUGEPOINT_EXAMPLES_DIR "/logs/";
        const auto scan = gaugepoint({"--app-group-dir", (*dir / "group").string(), "--now", kSampleNow, "scan",
                                      "--claude-dir", logs + "claude", "--codex-dir", logs + "codex", "--gemini-dir",
                                      logs + "gemini"});
        EXPECT_EQ(scan.exitCode, 0) << scan.err;
        return dir;
    }();
    return *stores;
}

// `gaugepoint` on the sample stores with the pinned clock.
inline CommandResult onSample(std::vector<std::string> args) {
    args.insert(args.begin(), {"--app-group-dir", (sampleStores() / "group").string(), "--now", kSampleNow});
    return gaugepoint(args);
}

inline web::DashboardSettings sampleSettings() {
    web::DashboardSettings settings;
    settings.configuration = QuotaSyncConfiguration::standard();
    settings.configuration.appGroupDirectory = sampleStores() / "group";
    settings.configuration.clock = Clock::fixedAt(at(kSampleNow));
    settings.pinnedNow = at(kSampleNow);
    settings.timeZone = "UTC";
    return settings;
}

class RunningDashboard {
public:
    explicit RunningDashboard(web::DashboardSettings settings = sampleSettings(),
                              web::DashboardServerOptions options = quick())
        : data_(std::move(settings)),
          server_(web::DashboardServer::start(data_, options)),
          thread_([this] { server_->run(); }) {}
    ~RunningDashboard() {
        server_->stop();
        thread_.join();
    }

    static web::DashboardServerOptions quick() {
        web::DashboardServerOptions options;
        options.pollInterval = std::chrono::milliseconds(50);
        options.readTimeoutSeconds = 1;
        return options;
    }
    web::DashboardServer& server() { return *server_; }
    httplib::Client client() const {
        httplib::Client client("127.0.0.1", server_->port());
        client.set_read_timeout(10, 0);
        return client;
    }
    // `path` with the access token added to its query.
    std::string withToken(const std::string& path) const {
        return path + (path.find('?') == std::string::npos ? "?" : "&") + "token=" + server_->token();
    }

private:
    web::DashboardData data_;
    std::unique_ptr<web::DashboardServer> server_;
    std::thread thread_;
};

}  // namespace gaugepoint::testing
