// gaugepoint dashboard: the local web dashboard, served on 127.0.0.1 or exported to one file.

#include <pthread.h>
#include <spawn.h>
#include <sys/wait.h>

#include <csignal>
#include <iostream>
#include <thread>

#include <boost/json.hpp>

#include "Commands.hpp"
#include "gaugepoint/model/QuotaLanguagePreference.hpp"
#include "gaugepoint/web/DashboardPage.hpp"
#include "gaugepoint/web/DashboardServer.hpp"

extern char** environ;

namespace gaugepoint::cli {
namespace {

struct DashboardOptions {
    int port = 0;
    bool open = false;
    std::string exportPath;
    std::string timezone;
};

web::DashboardSettings settingsOf(const DashboardOptions& options, const GlobalOptions& globals) {
    web::DashboardSettings settings;
    settings.configuration = resolveConfiguration(globals);
    if (!globals.now.empty()) settings.pinnedNow = resolveNow(globals);
    settings.language = resolveLanguage(globals);
    settings.timeZone = options.timezone.empty() ? systemCalendar().timeZoneID() : options.timezone;
    if (!LocalCalendar::inTimeZone(settings.timeZone)) {
        throw UsageError("--timezone takes a time zone such as UTC or Europe/Berlin (got \"" + options.timezone +
                         "\"), e.g. --timezone UTC");
    }
    return settings;
}

// The user's browser, through xdg-open; a failure to start it is only a warning.
void openBrowser(const std::string& url) {
    const char* argv[] = {"xdg-open", url.c_str(), nullptr};
    pid_t pid = 0;
    if (::posix_spawnp(&pid, "xdg-open", nullptr, nullptr, const_cast<char* const*>(argv), environ) != 0) {
        std::cerr << "gaugepoint: cannot start xdg-open; open the address above by hand\n";
        return;
    }
    std::thread([pid] { ::waitpid(pid, nullptr, 0); }).detach();  // xdg-open returns soon; no zombie stays
}

void serve(const web::DashboardData& data, const DashboardOptions& options, const GlobalOptions& globals) {
    // Ctrl-C and SIGTERM end the server cleanly: every thread started below inherits the blocked
    // mask, and one thread takes the signal with sigwait.
    sigset_t stopping;
    sigemptyset(&stopping);
    sigaddset(&stopping, SIGINT);
    sigaddset(&stopping, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopping, nullptr);
    std::signal(SIGPIPE, SIG_IGN);  // a closed browser tab must not end the process
    web::DashboardServerOptions serverOptions;
    serverOptions.port = options.port;
    const auto started = web::DashboardServer::start(data, serverOptions);
    web::DashboardServer& server = *started;
    const bool chinese = isChineseLanguage(resolveLanguage(globals));
    std::cout << (chinese ? "gaugepoint 仪表板：" : "gaugepoint dashboard: ") << server.url() << "\n"
              << (chinese ? "（按 Ctrl-C 停止）" : "(Ctrl-C stops it)") << std::endl;
    if (options.open) openBrowser(server.url());
    std::thread([&server, stopping] {
        int signal = 0;
        sigwait(&stopping, &signal);
        server.stop();
    }).detach();
    server.run();
}

void run(const DashboardOptions& options, const GlobalOptions& globals) {
    const web::DashboardData data{settingsOf(options, globals)};
    if (options.exportPath.empty()) return serve(data, options, globals);
    writeOutput(options.exportPath, whileDoing("exporting the dashboard", [&] { return web::dashboardExport(data); }));
    if (globals.json) {
        return writeOutput("-", boost::json::serialize(boost::json::object{{"exported", options.exportPath}}) + "\n");
    }
    if (options.exportPath == "-") return;  // the page itself went to standard output
    const bool chinese = isChineseLanguage(resolveLanguage(globals));
    std::cout << (chinese ? "仪表板已导出到 " : "Dashboard exported to ") << options.exportPath << "\n";
}

}  // namespace

void registerDashboardCommand(CLI::App& root, GlobalOptions& globals) {
    auto options = std::make_shared<DashboardOptions>();
    CLI::App* command = addGroup(root, "dashboard",
                                 "Quota, usage, sessions and blocks in the browser: a local web page on 127.0.0.1 "
                                 "that follows the stores as scans and pulls change them");
    auto* port = command->add_option("--port", options->port, "Listen on this port (default: a free one)")
                     ->option_text("N")
                     ->check(Values::wholeNumber(1, "8080", 65535));
    command->add_flag("--open", options->open, "Open the address in the browser (xdg-open)");
    command->add_option("--export", options->exportPath,
                        "Write the pages as of now into one self-contained HTML file instead of serving them")
        ->option_text("FILE.html")
        ->excludes(port);
    command->add_option("-z,--timezone", options->timezone,
                        "The time zone of the usage days (default: TZ, else the system's)")
        ->option_text("ZONE");
    command->callback([options, &globals] { run(*options, globals); });
}

}  // namespace gaugepoint::cli
