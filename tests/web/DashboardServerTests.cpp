// The dashboard's server over real loopback connections: what it serves, whom it refuses, and
// that its JSON is the command's JSON.

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fstream>

#include "DashboardTestSupport.hpp"
#include "gaugepoint/platform/Error.hpp"
#include "gaugepoint/web/DashboardRequestGuard.hpp"

namespace gaugepoint::testing {
namespace {

TEST(DashboardServer, ServesThePageItsAssetsAndEveryJsonRoute) {
    RunningDashboard dashboard;
    auto client = dashboard.client();
    const std::vector<std::pair<std::string, std::string>> routes{
        {"/", "text/html"},
        {"/app.js", "text/javascript"},
        {"/app.css", "text/css"},
        {dashboard.withToken("/api/meta"), "application/json"},
        {dashboard.withToken("/api/widget?from=sources&lang=zh-Hans"), "application/json"},
        {dashboard.withToken("/api/report?kind=monthly&last=365&provider=codex"), "application/json"},
        {dashboard.withToken("/api/sessions?offset=5&limit=3"), "application/json"},
        {dashboard.withToken("/api/inbox"), "application/json"},
    };
    for (const auto& [path, type] : routes) {
        const auto response = client.Get(path.c_str());
        ASSERT_TRUE(response) << path;
        EXPECT_EQ(response->status, 200) << path << ": " << response->body;
        EXPECT_EQ(response->get_header_value("Content-Type").rfind(type, 0), 0u) << path;
        EXPECT_FALSE(response->has_header("Access-Control-Allow-Origin")) << path;
    }
    const auto page = client.Get(dashboard.withToken("/api/sessions?offset=5&limit=3").c_str());
    EXPECT_NE(page->body.find("\"offset\": 5"), std::string::npos);
}

TEST(DashboardServer, AnswersUnknownPathsAndBadQueriesWithoutServingAnything) {
    RunningDashboard dashboard;
    auto client = dashboard.client();
    for (const char* path : {"/nope", "/api/nope", "/app.json", "/../etc/passwd"}) {
        EXPECT_EQ(client.Get(dashboard.withToken(path).c_str())->status, 404) << path;
    }
    for (const char* query : {"/api/report?kind=hourly", "/api/report?last=0", "/api/report?timezone=Mars/Base",
                              "/api/report?provider=nobody", "/api/sessions?limit=100000", "/api/widget?from=moon"}) {
        EXPECT_EQ(client.Get(dashboard.withToken(query).c_str())->status, 400) << query;
    }
}

TEST(DashboardServer, RefusesHostsOtherThanItsOwnLoopbackAddress) {
    RunningDashboard dashboard;
    const std::string port = std::to_string(dashboard.server().port());
    const std::vector<std::pair<std::string, int>> hosts{
        {"127.0.0.1:" + port, 200}, {"localhost:" + port, 200}, {"LocalHost:" + port, 200},
        {"attacker.example:" + port, 403},  // a name rebound to 127.0.0.1
        {"127.0.0.1", 403}, {"127.0.0.1:1" + port, 403}, {"localhost.attacker.example:" + port, 403},
        {"[::1]:" + port, 403}};
    auto client = dashboard.client();
    for (const auto& [host, status] : hosts) {
        const auto response = client.Get(dashboard.withToken("/api/meta").c_str(), {{"Host", host}});
        ASSERT_TRUE(response);
        EXPECT_EQ(response->status, status) << host;
        if (status != 200) {
            EXPECT_EQ(response->body.find('{'), std::string::npos) << host;
        }
    }
}

TEST(DashboardServer, JsonAndTheEventStreamNeedTheTokenOfThePrintedAddress) {
    RunningDashboard dashboard;
    auto client = dashboard.client();
    const std::string token = dashboard.server().token();
    EXPECT_EQ(token.size(), 32u);
    EXPECT_NE(dashboard.server().url().find("token=" + token), std::string::npos);
    for (const std::string path : {"/api/meta", "/api/report?kind=daily", "/events"}) {
        const std::string sep = path.find('?') == std::string::npos ? "?" : "&";
        for (const std::string& wrong : std::vector<std::string>{"", sep + "token=", sep + "token=" + token.substr(1),
                                        sep + "token=" + token + "0", sep + "Token=" + token}) {
            EXPECT_EQ(client.Get((path + wrong).c_str())->status, 403) << path << wrong;
        }
    }
    EXPECT_NE(web::newAccessToken(), web::newAccessToken());
}

TEST(DashboardServer, APortInUseIsAnErrorNotASharedPort) {
    RunningDashboard first;
    web::DashboardServerOptions options;
    options.port = first.server().port();
    const web::DashboardData data{sampleSettings()};
    EXPECT_THROW(web::DashboardServer::start(data, options), gaugepoint::Error);
}

TEST(DashboardServer, AcceptsOnlyGet) {
    RunningDashboard dashboard;
    auto client = dashboard.client();
    const std::string path = dashboard.withToken("/api/meta");
    const std::vector<httplib::Result> answers = [&] {
        std::vector<httplib::Result> all;
        all.push_back(client.Post(path.c_str(), "{}", "application/json"));
        all.push_back(client.Put(path.c_str(), "{}", "application/json"));
        all.push_back(client.Delete(path.c_str()));
        all.push_back(client.Options(path.c_str()));
        all.push_back(client.Patch(path.c_str(), "{}", "application/json"));
        all.push_back(client.Head(path.c_str()));
        return all;
    }();
    for (const auto& answer : answers) {
        ASSERT_TRUE(answer);
        EXPECT_EQ(answer->status, 405);
        EXPECT_EQ(answer->get_header_value("Allow"), "GET");
        EXPECT_FALSE(answer->has_header("Access-Control-Allow-Origin"));
        EXPECT_FALSE(answer->has_header("Access-Control-Allow-Methods"));
    }
}

// A client that sends half a request and then nothing holds one worker until the read timeout,
// not the server.
TEST(DashboardServer, ASlowClientNeitherBlocksOthersNorStaysForever) {
    RunningDashboard dashboard;
    const int slow = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(std::uint16_t(dashboard.server().port()));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(::connect(slow, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    const std::string half = "GET /api/meta HTTP/1.1\r\nHost: 127.0.0.1";
    ASSERT_EQ(::send(slow, half.data(), half.size(), 0), ssize_t(half.size()));

    const auto started = std::chrono::steady_clock::now();
    auto client = dashboard.client();
    EXPECT_EQ(client.Get(dashboard.withToken("/api/meta").c_str())->status, 200);
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(900));

    // The server gives up on it (perhaps with an error status) and hangs up.
    std::string answer;
    bool hungUp = false;
    for (pollfd readable{slow, POLLIN, 0}; !hungUp && ::poll(&readable, 1, 5000) == 1;) {
        char bytes[512];
        const ssize_t got = ::recv(slow, bytes, sizeof bytes, 0);
        hungUp = got <= 0;
        if (got > 0) answer.append(bytes, std::size_t(got));
    }
    ::close(slow);
    EXPECT_TRUE(hungUp);
    EXPECT_EQ(answer.find("200 OK"), std::string::npos) << answer;
}

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kAddressSanitizer = true;
#elif defined(__has_feature)
constexpr bool kAddressSanitizer = __has_feature(address_sanitizer);
#else
constexpr bool kAddressSanitizer = false;
#endif

std::size_t residentBytes() {
    std::ifstream statm("/proc/self/statm");
    std::size_t pages = 0, resident = 0;
    statm >> pages >> resident;
    return resident * std::size_t(::sysconf(_SC_PAGESIZE));
}

TEST(DashboardServer, AThousandRequestsInARowDoNotGrowTheProcess) {
    RunningDashboard dashboard;
    auto client = dashboard.client();
    const std::string path = dashboard.withToken("/api/report?kind=daily&last=30");
    for (int i = 0; i < 100; ++i) ASSERT_EQ(client.Get(path.c_str())->status, 200);  // caches and pools settle
    const std::size_t before = residentBytes();
    for (int i = 0; i < 1000; ++i) ASSERT_EQ(client.Get(path.c_str())->status, 200);
    const double grownKiB = (double(residentBytes()) - double(before)) / 1024;
    std::cout << "resident memory after 1,000 requests: " << grownKiB << " KiB more\n";
    if (!kAddressSanitizer) {
        EXPECT_LT(grownKiB, 2048);  // (ASan's quarantine holds freed memory on purpose)
    }
}

TEST(DashboardServer, TheEventStreamTellsWhenTheStoresChangeAndEndsWithTheServer) {
    ScratchDirectory stores;
    web::DashboardSettings settings = sampleSettings();
    settings.configuration.appGroupDirectory = stores.path();
    auto dashboard = std::make_unique<RunningDashboard>(settings);
    std::string received;
    std::mutex mutex;
    std::thread reader([&] {
        auto client = dashboard->client();
        client.Get(dashboard->withToken("/events").c_str(), [&](const char* data, std::size_t length) {
            std::lock_guard lock(mutex);
            received.append(data, length);
            return true;
        });
    });
    const auto waitFor = [&](std::string_view text) {
        for (int i = 0; i < 100; ++i) {
            {
                std::lock_guard lock(mutex);
                if (received.find(text) != std::string::npos) return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        return false;
    };
    ASSERT_TRUE(waitFor("event: hello"));
    writeFile(stores / "quota-usage.sqlite", "a commit");  // what a scan in another process does
    EXPECT_TRUE(waitFor("event: change\ndata: 1\n\n")) << received;

    const auto stopping = std::chrono::steady_clock::now();
    dashboard.reset();  // stops the server while the stream is open
    reader.join();
    EXPECT_LT(std::chrono::steady_clock::now() - stopping, std::chrono::seconds(4));
}

// One code path: each answer is byte for byte what the command prints for the same arguments.
TEST(DashboardServer, JsonEqualsWhatTheCommandPrints) {
    RunningDashboard dashboard;
    auto client = dashboard.client();
    const std::vector<std::pair<std::string, std::vector<std::string>>> pairs{
        {"/api/report?kind=daily&last=30", {"report", "daily", "--since", "2026-10-08"}},
        {"/api/report?kind=weekly&last=90&provider=claude", {"report", "weekly", "--since", "2026-08-09", "--provider", "claude"}},
        {"/api/report?kind=monthly&last=365&timezone=Asia/Shanghai", {"report", "monthly", "--since", "2025-11-08", "-z", "Asia/Shanghai"}},
        {"/api/report?kind=session", {"report", "session"}},
        {"/api/report?kind=blocks&last=30", {"report", "blocks", "--since", "2026-10-08"}},
        {"/api/widget?lang=en", {"widget", "--format", "json", "--lang", "en"}},
        {"/api/widget?lang=zh-Hans", {"widget", "--format", "json", "--lang", "zh-Hans"}},
        {"/api/widget?from=sources&lang=en", {"widget", "--from-sources", "--format", "json", "--lang", "en"}},
    };
    for (auto [path, command] : pairs) {
        if (command.front() == "report") {
            command.insert(command.end(), {"--no-scan", "--json"});
            if (std::find(command.begin(), command.end(), "-z") == command.end()) {
                command.insert(command.end(), {"--timezone", "UTC"});
            }
        }
        const auto expected = onSample(command);
        ASSERT_EQ(expected.exitCode, 0) << expected.err;
        const auto answer = client.Get(dashboard.withToken(path).c_str());
        ASSERT_EQ(answer->status, 200) << path << answer->body;
        EXPECT_EQ(answer->body + "\n", expected.out) << path;
    }
}

TEST(DashboardCommand, RefusesBadOptionsInOneLineAndExportsAsJson) {
    ScratchDirectory out;
    const std::vector<std::vector<std::string>> wrong{
        {"dashboard", "--port", "0"},
        {"dashboard", "--port", "70000"},
        {"dashboard", "--port", "8080", "--export", (out / "x.html").string()},
        {"dashboard", "--timezone", "Mars/Base", "--export", (out / "x.html").string()}};
    for (const auto& args : wrong) {
        const auto result = onSample(args);
        EXPECT_EQ(result.exitCode, 2) << args[1];
        EXPECT_EQ(result.err.rfind("gaugepoint: ", 0), 0u) << result.err;
        EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
    }
    EXPECT_FALSE(std::filesystem::exists(out / "x.html"));
    const auto exported = onSample({"dashboard", "--json", "--export", (out / "y.html").string()});
    EXPECT_EQ(exported.exitCode, 0) << exported.err;
    EXPECT_EQ(exported.out, "{\"exported\":\"" + (out / "y.html").string() + "\"}\n");
}

TEST(DashboardRequestGuard, KeysOfAnExportAreEncodedAsThePageEncodesThem) {
    EXPECT_EQ(web::dashboardRequestKey("/api/meta", {}), "/api/meta");
    EXPECT_EQ(web::dashboardRequestKey("/api/report", {{"timezone", "Europe/Berlin"}, {"kind", "daily"}}),
              "/api/report?kind=daily&timezone=Europe%2FBerlin");
    EXPECT_EQ(web::dashboardRequestKey("/api/x", {{"q", "a b&c=d~*'()é"}}), "/api/x?q=a%20b%26c%3Dd~*'()%C3%A9");
}

}  // namespace
}  // namespace gaugepoint::testing
