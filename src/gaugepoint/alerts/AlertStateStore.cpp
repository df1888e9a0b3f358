#include "gaugepoint/alerts/AlertStateStore.hpp"

namespace gaugepoint {
namespace {

const SQLiteStoreSetup kSetup{
    "Unable to open alerts database at ",
    "CREATE TABLE IF NOT EXISTS alert_fired (\n"
    "  key TEXT PRIMARY KEY,\n"
    "  rule TEXT NOT NULL,\n"
    "  provider_id TEXT NOT NULL DEFAULT '',\n"
    "  window_id TEXT NOT NULL DEFAULT '',\n"
    "  period_end REAL NOT NULL DEFAULT 0,\n"
    "  fired_at REAL NOT NULL,\n"
    "  silent INTEGER NOT NULL DEFAULT 0,\n"
    "  envelope_id TEXT,\n"
    "  desktop TEXT\n"
    ");\n"
    "CREATE TABLE IF NOT EXISTS alert_notification_ids (window_key TEXT PRIMARY KEY, notification_id INTEGER NOT NULL);\n"
    "CREATE TABLE IF NOT EXISTS alert_state (name TEXT PRIMARY KEY, value TEXT NOT NULL);\n",
    {}};

constexpr const char* kBaselined = "baselined";

std::optional<std::string> stateOf(sqlite::Connection& c, std::string_view name) {
    sqlite::Statement s{c, "SELECT value FROM alert_state WHERE name = ?", "prepare state", "execute state"};
    s.bind(1, name);
    if (!s.step()) return {};
    return std::string(s.text(0).value_or(""));
}

void putState(sqlite::Connection& c, std::string_view name, std::string_view value) {
    sqlite::Statement s{c, "INSERT OR REPLACE INTO alert_state (name, value) VALUES (?, ?)", "prepare setState",
                        "execute setState"};
    s.bind(1, name).bind(2, value).run();
}

// Inserts `alert` unless its key is there; true when it was added.
bool insert(sqlite::Statement& s, sqlite::Connection& c, const FiredAlert& alert, bool silent) {
    s.bind(1, alert.key).bind(2, alert.rule).bind(3, alert.providerID).bind(4, alert.windowID);
    s.bind(5, alert.periodEnd).bind(6, secondsSince1970(alert.firedAt)).bind(7, std::int64_t(silent));
    s.run();
    const bool added = c.changes() == 1;
    s.reset();
    return added;
}

}  // namespace

AlertStateStore::AlertStateStore(QuotaSyncConfiguration configuration)
    : SQLiteStore(std::move(configuration), std::nullopt, defaultFilename) {}

std::vector<FiredAlert> AlertStateStore::load() const {
    return run(kSetup, [](sqlite::Connection& c) {
        sqlite::Statement s{c,
                            "SELECT key, rule, provider_id, window_id, period_end, fired_at, silent, envelope_id, "
                            "desktop FROM alert_fired ORDER BY key",
                            "prepare load", "execute load"};
        std::vector<FiredAlert> alerts;
        while (s.step()) {
            alerts.push_back({std::string(s.text(0).value_or("")), std::string(s.text(1).value_or("")),
                              std::string(s.text(2).value_or("")), std::string(s.text(3).value_or("")), s.real(4),
                              dateFromSeconds(s.real(5)), s.integer(6) != 0, sqlite::optionalText(s, 7),
                              sqlite::optionalText(s, 8)});
        }
        return alerts;
    });
}

bool AlertStateStore::baselined() const {
    return run(kSetup, [](sqlite::Connection& c) { return stateOf(c, kBaselined).has_value(); });
}

std::vector<FiredAlert> AlertStateStore::claim(const std::vector<FiredAlert>& alerts, Date now) const {
    return run(kSetup, [&](sqlite::Connection& c) {
        sqlite::Transaction transaction{c, "claim"};
        const bool first = !stateOf(c, kBaselined);
        sqlite::Statement s{c,
                            "INSERT OR IGNORE INTO alert_fired (key, rule, provider_id, window_id, period_end, "
                            "fired_at, silent) VALUES (?, ?, ?, ?, ?, ?, ?)",
                            "prepare claim", "execute claim"};
        std::vector<FiredAlert> added;
        for (const auto& alert : alerts) {
            if (insert(s, c, alert, first) && !first) added.push_back(alert);
        }
        if (first) putState(c, kBaselined, formatISO8601(now));
        sqlite::Statement trim{c, "DELETE FROM alert_fired WHERE period_end > 0 AND period_end < ?", "prepare trim",
                               "execute trim"};
        trim.bind(1, secondsSince1970(now) - retentionSeconds).run();
        transaction.commit();
        return added;
    });
}

void AlertStateStore::recordDelivery(std::string_view key, const std::optional<std::string>& envelopeID,
                                     const std::optional<std::string>& desktop) const {
    run(kSetup, [&](sqlite::Connection& c) {
        sqlite::Statement s{c, "UPDATE alert_fired SET envelope_id = ?, desktop = ? WHERE key = ?",
                            "prepare recordDelivery", "execute recordDelivery"};
        s.bind(1, envelopeID).bind(2, desktop).bind(3, key).run();
    });
}

std::optional<std::uint32_t> AlertStateStore::notificationID(std::string_view windowKey) const {
    return run(kSetup, [&](sqlite::Connection& c) -> std::optional<std::uint32_t> {
        sqlite::Statement s{c, "SELECT notification_id FROM alert_notification_ids WHERE window_key = ?",
                            "prepare notificationID", "execute notificationID"};
        s.bind(1, windowKey);
        if (!s.step()) return {};
        return std::uint32_t(s.integer(0));
    });
}

void AlertStateStore::setNotificationID(std::string_view windowKey, std::uint32_t id) const {
    run(kSetup, [&](sqlite::Connection& c) {
        sqlite::Statement s{c, "INSERT OR REPLACE INTO alert_notification_ids (window_key, notification_id) VALUES (?, ?)",
                            "prepare setNotificationID", "execute setNotificationID"};
        s.bind(1, windowKey).bind(2, std::int64_t(id)).run();
    });
}

std::optional<std::string> AlertStateStore::state(std::string_view name) const {
    return run(kSetup, [&](sqlite::Connection& c) { return stateOf(c, name); });
}

void AlertStateStore::setState(std::string_view name, std::string_view value) const {
    run(kSetup, [&](sqlite::Connection& c) { putState(c, name, value); });
}

}  // namespace gaugepoint
