#include "gaugepoint/web/DashboardPage.hpp"

#include <boost/json.hpp>

#include "gaugepoint/importers/CodingToolLogs.hpp"

namespace gaugepoint::web {

// The embedded files of resources/web (see CMakeLists.txt).
std::string_view pageTemplate() noexcept;
std::string_view pageScript() noexcept;
std::string_view pageStyles() noexcept;

namespace {

// The template's two marks: where styles and scripts go, linked or inline.
constexpr std::string_view kStylesMark = "<!--gp:styles-->";
constexpr std::string_view kScriptsMark = "<!--gp:scripts-->";

std::string withParts(std::string_view styles, std::string_view scripts) {
    std::string page(pageTemplate());
    page.replace(page.find(kStylesMark), kStylesMark.size(), styles);
    page.replace(page.find(kScriptsMark), kScriptsMark.size(), scripts);
    return page;
}

// Text inside a <script> element ends at the first "</": JSON allows "<\/" for it.
std::string scriptSafe(std::string text) {
    for (std::size_t at = 0; (at = text.find("</", at)) != std::string::npos; at += 3) text.replace(at, 2, "<\\/");
    return text;
}

// Every answer the views of an exported file ask for: the page builds the same keys.
std::vector<std::pair<std::string, DashboardParameters>> exportedRequests() {
    std::vector<std::pair<std::string, DashboardParameters>> requests{
        {"/api/meta", {}},
        {"/api/widget", {{"from", "local"}, {"lang", "en"}}},
        {"/api/widget", {{"from", "local"}, {"lang", "zh-Hans"}}},
        {"/api/widget", {{"from", "sources"}, {"lang", "en"}}},
        {"/api/widget", {{"from", "sources"}, {"lang", "zh-Hans"}}},
        {"/api/sessions", {{"limit", "500"}, {"offset", "0"}}},
        {"/api/inbox", {{"limit", "100"}}},
        {"/api/report", {{"kind", "blocks"}, {"last", "30"}}},
    };
    std::vector<std::string> providers{""};
    for (const auto& tool : codingTools()) providers.push_back(tool->provider().id);
    for (const char* kind : {"daily", "weekly", "monthly"}) {
        for (const char* last : {"30", "90", "365"}) {
            for (const auto& provider : providers) {
                DashboardParameters parameters{{"kind", kind}, {"last", last}};
                if (!provider.empty()) parameters.emplace("provider", provider);
                requests.emplace_back("/api/report", std::move(parameters));
            }
        }
    }
    return requests;
}

}  // namespace

std::string dashboardPage() {
    return withParts(R"(<link rel="stylesheet" href="/app.css">)", R"(<script src="/app.js"></script>)");
}

std::optional<DashboardAsset> dashboardAsset(std::string_view path) {
    if (path == "/app.js") return DashboardAsset{pageScript(), "text/javascript; charset=utf-8"};
    if (path == "/app.css") return DashboardAsset{pageStyles(), "text/css; charset=utf-8"};
    return std::nullopt;
}

std::string dashboardExport(const DashboardData& data) {
    boost::json::object answers;
    for (const auto& [route, parameters] : exportedRequests()) {
        answers[dashboardRequestKey(route, parameters)] = boost::json::parse(*data.answer(route, parameters));
    }
    const std::string scripts = R"(<script type="application/json" id="gp-data">)" +
                                scriptSafe(boost::json::serialize(answers)) + "</script>\n<script>" +
                                std::string(pageScript()) + "</script>";
    return withParts("<style>" + std::string(pageStyles()) + "</style>", scripts);
}

}  // namespace gaugepoint::web
