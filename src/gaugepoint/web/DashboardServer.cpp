#include "gaugepoint/web/DashboardServer.hpp"

#include <dlfcn.h>

#include <filesystem>

#include "gaugepoint/platform/Error.hpp"
#include "gaugepoint/platform/SharedLibrary.hpp"
#include "gaugepoint/stores/StoreChangeStamp.hpp"
#include "gaugepoint/web/DashboardPage.hpp"

namespace gaugepoint::web {
namespace {

constexpr const char* kModuleName = "gaugepoint-web.so";

DashboardResponse text(int status, std::string message) {
    return {status, std::move(message) + "\n", "text/plain; charset=utf-8"};
}

DashboardResponse answer(const DashboardData& data, const std::string& path, const DashboardParameters& parameters) {
    if (path == "/") return {200, dashboardPage(), "text/html; charset=utf-8"};
    if (const auto asset = dashboardAsset(path)) return {200, std::string(asset->bytes), asset->contentType};
    try {
        if (auto body = data.answer(path, parameters)) return {200, std::move(*body), "application/json; charset=utf-8"};
        return text(404, "no such page");
    } catch (const DashboardQueryError& e) {
        return text(400, e.what());
    } catch (const std::exception& e) {
        return text(500, e.what());
    }
}

// The module beside the program, or in ../lib/gaugepoint when installed that way.
DashboardServerFactory loadFactory() {
    if (gaugepoint_web_http_server) return gaugepoint_web_http_server;
    Dl_info self{};
    std::filesystem::path program;
    if (::dladdr(reinterpret_cast<void*>(&loadFactory), &self) && self.dli_fname) {
        program = std::filesystem::weakly_canonical(self.dli_fname);
    }
    const std::string beside = (program.parent_path() / kModuleName).string();
    const std::string installed = (program.parent_path().parent_path() / "lib/gaugepoint" / kModuleName).string();
    const auto module = SharedLibrary::open({beside.c_str(), installed.c_str()});
    DashboardServerFactory factory = nullptr;
    if (!module || !module->bind("gaugepoint_web_http_server", factory)) {
        const char* why = ::dlerror();
        throw Error(std::string("cannot load the dashboard's HTTP module ") + kModuleName + " (looked in " +
                    program.parent_path().string() + " and ../lib/gaugepoint)" + (why ? std::string(": ") + why : ""));
    }
    return factory;
}

}  // namespace

std::unique_ptr<DashboardServer> DashboardServer::start(const DashboardData& data, DashboardServerOptions options) {
    const auto directory = data.settings().configuration.resolvedAppGroupDirectory().value_or("");
    DashboardRoutes routes{
        [&data](const std::string& path, const DashboardParameters& parameters) { return answer(data, path, parameters); },
        [directory] { return storeChangeStamp(directory); }};
    std::string error;
    std::unique_ptr<DashboardServer> server{loadFactory()(std::move(routes), options, error)};
    if (!server) throw Error(error);
    return server;
}

std::string DashboardServer::url() const {
    return "http://127.0.0.1:" + std::to_string(port()) + "/?token=" + token();
}

}  // namespace gaugepoint::web
