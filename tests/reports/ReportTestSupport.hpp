#pragma once

// Usage entries written straight into a scratch store, for reports over hand-made fixtures.

#include <string>
#include <vector>

#include "StoreTestSupport.hpp"
#include "gaugepoint/stores/QuotaUsageEntryStore.hpp"

namespace gaugepoint::testing {

inline QuotaUsageEntry usageEntry(const std::string& provider, const std::string& iso, std::int64_t input,
                                  const std::string& model = "claude-sonnet-4-5-20250929", std::int64_t output = 0,
                                  std::optional<double> reportedCost = std::nullopt, const std::string& session = "s1") {
    static int next = 0;
    QuotaUsageEntry e;
    e.providerID = provider;
    e.sessionID = session;
    e.dedupKey = "k" + std::to_string(++next);
    e.timestamp = at(iso);
    e.model = model;
    e.tokens = {input, output, 0, 0, reportedCost};
    return e;
}

class UsageFixture {
public:
    UsageFixture() : configuration(configurationIn(dir)) {}

    // Records `entries` as the whole content of one log file.
    void add(const std::vector<QuotaUsageEntry>& entries, const std::string& file = "log.jsonl") const {
        const QuotaSessionFileRegistry registry{configuration};
        registry.inTransaction("test entries", [&](sqlite::Connection& connection) {
            sqlite::StatementCache c{connection};
            QuotaSessionFileRegistryEntry entry;
            entry.path = file;
            entry.sourceID = "test";
            entry.providerID = entries.empty() ? "claude" : entries.front().providerID;
            const auto key = QuotaUsageEntryStore::fileKey(c, entry);
            QuotaUsageEntryStore::record(c, key, entries, {}, entry.providerID, {});
            return true;
        });
    }
    QuotaUsageEntryStore store() const { return QuotaUsageEntryStore{QuotaSessionFileRegistry{configuration}}; }

    ScratchDirectory dir;
    QuotaSyncConfiguration configuration;
};

}  // namespace gaugepoint::testing
