// The pages in a real browser: Chromium, headless, prints the DOM once the script has drawn a
// view. Skipped with a message where Chromium is not installed or cannot start.

#include <boost/json.hpp>

#include <charconv>
#include <regex>

#include "DashboardTestSupport.hpp"
#include "gaugepoint/web/DashboardPage.hpp"

namespace gaugepoint::testing {
namespace {

std::optional<std::string> chromium() {
    const char* path = std::getenv("PATH");
    std::string_view dirs = path ? path : "/usr/bin";
    while (!dirs.empty()) {
        const auto end = dirs.find(':');
        const std::filesystem::path dir(dirs.substr(0, end));
        for (const char* name : {"chromium", "chromium-browser"}) {
            if (::access((dir / name).c_str(), X_OK) == 0) return (dir / name).string();
        }
        dirs = end == std::string_view::npos ? std::string_view{} : dirs.substr(end + 1);
    }
    return std::nullopt;
}

struct Rendered {
    std::string dom;
    std::string console;  // the page's console messages, one a line
};

// The DOM of `url` after the page's script ran; the fetches it makes do not count against the
// 2 s of page time (Chromium's virtual time waits for the network).
std::optional<Rendered> render(const std::string& url, const ScratchDirectory& profile) {
    static const auto browser = chromium();
    if (!browser) return std::nullopt;
    const auto result = runCommand(*browser, {"--headless", "--no-sandbox", "--disable-gpu", "--no-first-run",
                                              "--user-data-dir=" + (profile / "chromium").string(),
                                              "--enable-logging=stderr", "--v=0", "--virtual-time-budget=2000",
                                              "--dump-dom", url});
    if (result.exitCode != 0 || result.out.find("<body") == std::string::npos) return std::nullopt;
    Rendered rendered{result.out, {}};
    std::istringstream lines(result.err);
    for (std::string line; std::getline(lines, line);) {
        if (line.find(":CONSOLE") != std::string::npos) rendered.console += line + "\n";
    }
    return rendered;
}

#define RENDER_OR_SKIP(variable, url, profile)                                                    \
    const auto variable = render(url, profile);                                                   \
    if (!variable) GTEST_SKIP() << "chromium is not installed or cannot start (scripts/bootstrap " \
                                   "installs it); the browser checks did not run";

boost::json::value commandJson(std::vector<std::string> args) {
    const auto result = onSample(std::move(args));
    EXPECT_EQ(result.exitCode, 0) << result.err;
    return boost::json::parse(result.out);
}

// A number as the page writes it into an attribute (JavaScript's shortest form: 0.8, 12.5).
std::string attribute(double value) {
    char text[32];
    const auto end = std::to_chars(text, text + sizeof text, value).ptr;
    return std::string(text, end);
}

// The usage view's table against `report daily --json` for the same 30 days.
void expectUsageOfTheLast30Days(const Rendered& page) {
    ASSERT_NE(page.dom.find("data-view=\"usage\""), std::string::npos) << page.dom;
    const auto report = commandJson({"report", "daily", "--since", "2026-10-08", "--timezone", "UTC", "--no-scan", "--json"});
    const auto& totals = report.at("totals");
    const auto row = page.dom.find("id=\"gp-usage-total\"");
    ASSERT_NE(row, std::string::npos) << page.dom;
    const std::string totalRow = page.dom.substr(row, page.dom.find("</tr>", row) - row);
    const std::regex total(R"re(data-tokens="(\d+)".*data-cost="([^"]+)")re");
    std::smatch found;
    ASSERT_TRUE(std::regex_search(totalRow, found, total)) << totalRow;
    EXPECT_EQ(std::stoll(found[1]), totals.at("totalTokens").to_number<std::int64_t>());
    EXPECT_EQ(std::stod(found[2]), totals.at("totalCost").to_number<double>());
    const auto& days = report.at("daily").as_array();
    ASSERT_FALSE(days.empty());
    for (const auto& day : days) {
        const std::string row = "<tr data-period=\"" + std::string(day.at("date").as_string()) + "\">";
        const auto at = page.dom.find(row);
        ASSERT_NE(at, std::string::npos) << row;
        const std::string tokens = "data-tokens=\"" + std::to_string(day.at("totalTokens").to_number<std::int64_t>()) + "\"";
        EXPECT_LT(page.dom.find(tokens, at), page.dom.find("</tr>", at)) << row << " " << tokens;
        // A day whose cost leaves tokens out is marked, never shown as a plain price.
        const bool marked = page.dom.find("class=\"unpriced\">*", at) < page.dom.find("</tr>", at);
        EXPECT_EQ(marked, day.at("unpricedTokens").to_number<std::int64_t>() > 0) << row;
    }
}

// The overview's windows against `widget --format json`: every window of every provider.
void expectOverviewOfThisMachine(const Rendered& page) {
    ASSERT_NE(page.dom.find("data-view=\"overview\""), std::string::npos) << page.dom;
    const auto widget = commandJson({"widget", "--format", "json", "--lang", "en"});
    std::size_t windows = 0;
    for (const auto& provider : widget.at("providers").as_array()) {
        const auto card = page.dom.find("data-provider=\"" + std::string(provider.at("id").as_string()) + "\"");
        ASSERT_NE(card, std::string::npos) << provider;
        for (const auto& window : provider.at("windows").as_array()) {
            const std::string mark = "data-window=\"" + std::string(window.at("id").as_string()) +
                                     "\" data-used-percent=\"" + attribute(window.at("usedPercent").to_number<double>()) + "\"";
            EXPECT_NE(page.dom.find(mark, card), std::string::npos) << mark;
            EXPECT_NE(page.dom.find(std::string(window.at("resetSummaryText").as_string()), card), std::string::npos);
            ++windows;
        }
    }
    EXPECT_GT(windows, 0u) << "the sample has official Codex windows";
}

void expectNoErrors(const Rendered& page) {
    EXPECT_EQ(page.dom.find("data-errors"), std::string::npos) << page.dom;
    EXPECT_EQ(page.console, "");
}

TEST(DashboardInBrowser, OverviewAndUsageShowTheCommandsNumbersWithoutConsoleErrors) {
    RunningDashboard dashboard;
    ScratchDirectory profile;
    const std::string url = dashboard.server().url();
    RENDER_OR_SKIP(overview, url + "#overview", profile);
    expectOverviewOfThisMachine(*overview);
    expectNoErrors(*overview);
    RENDER_OR_SKIP(usage, url + "#usage", profile);
    expectUsageOfTheLast30Days(*usage);
    expectNoErrors(*usage);
    for (const char* view : {"#sessions", "#blocks", "#inbox"}) {
        RENDER_OR_SKIP(other, url + view, profile);
        EXPECT_NE(other->dom.find("data-ready="), std::string::npos) << view;
        expectNoErrors(*other);
    }
}

TEST(DashboardInBrowser, TheExportedFileShowsTheSameWithNoServer) {
    ScratchDirectory out;
    const auto exported = onSample({"dashboard", "--export", (out / "dashboard.html").string()});
    ASSERT_EQ(exported.exitCode, 0) << exported.err;
    const std::string html = readFile(out / "dashboard.html");
    for (const char* load : {"<link", "<script src=", "https://", "fetch(\"http"}) {
        EXPECT_EQ(html.find(load), std::string::npos) << "an exported file loads nothing: " << load;
    }
    const std::string file = "file://" + (out / "dashboard.html").string();
    RENDER_OR_SKIP(overview, file + "#overview", out);
    expectOverviewOfThisMachine(*overview);
    expectNoErrors(*overview);
    RENDER_OR_SKIP(usage, file + "#usage", out);
    expectUsageOfTheLast30Days(*usage);
    expectNoErrors(*usage);
}

}  // namespace
}  // namespace gaugepoint::testing
