// gaugepoint sync setup|connect|push|pull|status: same-account sync through a PostgreSQL server.

#include <iostream>

#include <boost/json.hpp>

#include "Commands.hpp"
#include "SyncServer.hpp"
#include "gaugepoint/alerts/QuotaAlerts.hpp"
#include "gaugepoint/reports/LocalQuotaSnapshot.hpp"

namespace gaugepoint::cli {

std::optional<std::string> resolveSyncURL(const std::string& urlOption, const GlobalOptions& globals) {
    if (!urlOption.empty()) return urlOption;
    return resolveConfiguration(globals).syncServer();
}

SameAccountSync syncWith(const std::string& url, const GlobalOptions& globals, std::optional<std::int64_t> retries) {
    SameAccountSyncOptions options;
    options.connectionString = url;
    if (retries) options.retry.maxRetries = *retries;
    return SameAccountSync{resolveConfiguration(globals), options};
}

std::string pushSummaryLine(const SyncPushSummary& s) {
    std::string line = "pushed " + counted(s.sourceRecords, "source record") + ", " + counted(s.descriptors, "session") +
                       ", " + counted(s.notifyEvents, "notification") + " and " + counted(s.deletions, "deletion") +
                       " to " + s.server;
    if (s.conflictsWon + s.conflictsLost > 0) {
        line += " · " + counted(s.conflictsWon + s.conflictsLost, "record") + " changed meanwhile elsewhere (" +
                groupedInteger(s.conflictsWon) + " ours newer, " + groupedInteger(s.conflictsLost) + " theirs)";
    }
    return line;
}

namespace {

struct ServerOptions {
    std::string url;
    bool clear = false;
    std::optional<std::int64_t> retries;
};

std::string requireURL(const ServerOptions& options, const GlobalOptions& globals) {
    if (auto url = resolveSyncURL(options.url, globals)) return *url;
    throw UsageError("no sync server: give --url, set GAUGEPOINT_SYNC_URL, or run `gaugepoint sync connect --url ...`");
}

void setup(const ServerOptions& options, const GlobalOptions& globals) {
    const std::string server = syncWith(requireURL(options, globals), globals, options.retries).setup();
    if (globals.json) return writeOutput("-", boost::json::serialize(boost::json::object{{"server", server}}) + "\n");
    writeOutput("-", "ready: schema gaugepoint on " + server + "\n");
}

// Checks the server by connecting, then keeps its connection string (never one with a password).
void connect(const ServerOptions& options, const GlobalOptions& globals) {
    const auto configuration = resolveConfiguration(globals);
    if (options.clear) {
        configuration.setSyncServer(std::nullopt);
        return writeOutput("-", "sync is off\n");
    }
    if (options.url.empty()) throw UsageError("sync connect needs --url or --clear");
    if (PostgresConnection::hasPassword(options.url)) {
        throw UsageError("--url: a password would be stored in plain text; keep it in ~/.pgpass or a service file");
    }
    const auto connection = PostgresConnection::open(options.url);
    configuration.setSyncServer(options.url);
    writeOutput("-", "sync server: " + connection.description() + "\n");
}

void push(const ServerOptions& options, const GlobalOptions& globals) {
    const auto summary = syncWith(requireURL(options, globals), globals, options.retries).push();
    if (globals.json) return printJson(summary);
    writeOutput("-", pushSummaryLine(summary) + "\n");
}

void pull(const ServerOptions& options, const GlobalOptions& globals) {
    const auto s = syncWith(requireURL(options, globals), globals, options.retries).pull();
    const auto configuration = resolveConfiguration(globals);
    const auto alerts = globals.now.empty() ? QuotaAlerts::afterReadingChange(
                                                  configuration, LocalQuotaSnapshot::latest(configuration),
                                                  resolveNow(globals), resolveLanguage(globals), true)
                                            : std::nullopt;
    if (alerts) std::cerr << "gaugepoint: " << *alerts << "\n";
    if (globals.json) return printJson(s);
    std::string line = "pulled " + counted(s.snapshots, "snapshot") + ", " + counted(s.descriptors, "session") + ", " +
                       counted(s.notifyEvents, "notification") + " and " + counted(s.deletions, "deletion") + " from " +
                       s.server;
    if (s.skippedForeignEpoch > 0) line += " · skipped " + counted(s.skippedForeignEpoch, "record") + " of another epoch";
    if (s.undecodable > 0) line += " · " + counted(s.undecodable, "record") + " could not be read";
    writeOutput("-", line + "\n");
}

std::string dateText(const std::optional<Date>& date) { return timeText(date, "never"); }

void status(const ServerOptions& options, const GlobalOptions& globals) {
    const auto s = syncWith(requireURL(options, globals), globals, options.retries).status();
    if (globals.json) return printJson(s);
    std::vector<std::vector<std::string>> rows{
        {"server", s.server},
        {"epoch", s.epoch.value_or("none yet")},
        {"server epoch", s.cloudEpoch.value_or("none yet")},
        {"last push", dateText(s.lastPushAt)},
        {"last pull", dateText(s.lastPullAt)},
        {"pulled through", groupedInteger(s.pulledThrough) + " of " + groupedInteger(s.latestChange)},
        {"pushed, pulled", groupedInteger(s.recordsPushed) + ", " + groupedInteger(s.recordsPulled) + " records"},
        {"other epochs", counted(s.skippedForeignEpoch, "record") + " skipped"}};
    for (const auto& [type, count] : s.serverRecords) rows.push_back({"on server: " + type, groupedInteger(count)});
    writeOutput("-", alignedRows(rows));
}

CLI::App* addServerVerb(CLI::App& group, const char* name, const char* description,
                        const std::shared_ptr<ServerOptions>& options) {
    CLI::App* verb = addGroup(group, name, description);
    verb->add_option("--url", options->url,
                     "A libpq connection string (default $GAUGEPOINT_SYNC_URL, else the one `sync connect` saved)")
        ->option_text("URL");
    verb->add_option("--retries", options->retries,
                     "Tries again after a failure that may pass (a lost connection, a busy server) at most N times, "
                     "waiting longer each time (default 5)")
        ->option_text("N")
        ->check(Values::wholeNumber(0, "5", 100));
    return verb;
}

}  // namespace

void registerSyncServerCommands(CLI::App& group, GlobalOptions& globals) {
    auto options = std::make_shared<ServerOptions>();
    addServerVerb(group, "setup", "Create the sync schema on a PostgreSQL server (safe to repeat)", options)
        ->callback([options, &globals] { setup(*options, globals); });
    auto* connectVerb = addServerVerb(group, "connect", "Check a sync server and keep its connection string", options);
    connectVerb->add_flag("--clear", options->clear, "Forget the kept server: sync is off");
    connectVerb->callback([options, &globals] { connect(*options, globals); });
    addServerVerb(group, "push", "Send this machine's snapshot, sessions and notifications to the server", options)
        ->callback([options, &globals] { push(*options, globals); });
    addServerVerb(group, "pull", "Take the other machines' records from the server", options)
        ->callback([options, &globals] { pull(*options, globals); });
    addServerVerb(group, "status", "The server, the epoch, the last push and pull, and counts", options)
        ->callback([options, &globals] { status(*options, globals); });
}

}  // namespace gaugepoint::cli
