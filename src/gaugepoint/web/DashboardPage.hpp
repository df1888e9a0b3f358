#pragma once

// The dashboard's page and its assets, built into the binary (no network, no CDN): one page
// whose script draws every view (overview, usage, sessions, blocks, inbox) from the JSON routes.

#include <optional>
#include <string>
#include <string_view>

#include "gaugepoint/web/DashboardData.hpp"

namespace gaugepoint::web {

struct DashboardAsset {
    std::string_view bytes;
    const char* contentType;
};

// The page as the server sends it: it loads /app.css and /app.js.
std::string dashboardPage();

// "/app.js" and "/app.css"; none for any other path.
std::optional<DashboardAsset> dashboardAsset(std::string_view path);

// One self-contained HTML file: the page with its script, styles and every answer the views ask
// for inline, as of `data.now()`, readable with no server. Throws as DashboardData::answer.
std::string dashboardExport(const DashboardData& data);

}  // namespace gaugepoint::web
