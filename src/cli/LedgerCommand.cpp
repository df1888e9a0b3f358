// gaugepoint ledger: tokens and dollars per source, provider and local day.

#include "Commands.hpp"
#include "TextTable.hpp"
#include "SnapshotOutput.hpp"
#include "gaugepoint/stores/QuotaSessionTokenLedger.hpp"

namespace gaugepoint::cli {
namespace {

struct LedgerOptions {
    SnapshotInput input;
    std::string sourceID;
    std::optional<std::string> providerID;
    int days = 30;
    double olderThanSeconds = 0;
};

QuotaSessionTokenLedger openLedger(const GlobalOptions& globals) { return QuotaSessionTokenLedger{resolveConfiguration(globals)}; }

void record(const LedgerOptions& options, const GlobalOptions& globals) {
    const QuotaSnapshot snapshot = options.input.read("ledger record");
    const std::int64_t written = openLedger(globals).upsert(snapshot);
    if (!globals.json) return writeOutput("-", counted(written, "row") + " recorded\n");
    json::JsonWriter w;
    w.beginObject();
    json::writeMember(w, "recorded", written);
    w.endObject();
    writeOutput("-", w.take() + "\n");
}

void summary(const LedgerOptions& options, const GlobalOptions& globals) {
    const auto ledger = openLedger(globals);
    ledger.databaseURL();  // a missing container is an error, not an empty summary
    const std::string source = options.sourceID.empty() ? resolveConfiguration(globals).localSourceID() : options.sourceID;
    const auto entries = options.providerID ? ledger.dailySummary(source, *options.providerID, options.days)
                                            : ledger.dailySummary(source, options.days);
    if (globals.json) return printJson(entries);
    std::vector<std::vector<std::string>> rows{{"Day", "Tokens", "Cost"}};
    for (const auto& entry : entries) rows.push_back({entry.dayKey, groupedInteger(entry.totalTokens), usdText(entry.costUSD)});
    writeOutput("-", renderTable(rows, TableFormat{{false, true, true}}) + counted(std::int64_t(entries.size()), "row") + "\n");
}

}  // namespace

void registerLedgerCommand(CLI::App& root, GlobalOptions& globals) {
    auto options = std::make_shared<LedgerOptions>();
    CLI::App* group = addGroup(root, "ledger", "Tokens and US dollars per source, provider and local day");
    group->require_subcommand(1);

    CLI::App* add = addGroup(*group, "record", "Record the daily usage a snapshot reports (a newer figure is kept)");
    options->input.addOptions(*add);
    add->callback([options, &globals] { record(*options, globals); });

    CLI::App* show = addGroup(*group, "summary", "The last days of a source, newest first");
    show->add_option("--source", options->sourceID, "The source id (default: this machine)")->option_text("ID");
    show->add_option("--provider", options->providerID, "Only this provider")->option_text("ID");
    show->add_option("--days", options->days, "How many local days, today included (default 30)")
        ->option_text("N")->check(Values::wholeNumber(1, "7", 36600));
    show->callback([options, &globals] { summary(*options, globals); });

    CLI::App* trim = addGroup(*group, "trim", "Delete the days before the day of now minus an interval");
    trim->add_option("--older-than", options->olderThanSeconds, "The interval in seconds")
        ->option_text("SECONDS")->required()->check(Values::number(0, "2592000"));
    trim->callback([options, &globals] { printRemovedCount(openLedger(globals).trimOldEntries(options->olderThanSeconds), "row", globals); });

    addGroup(*group, "clear", "Delete every row")->callback([&globals] { printRemovedCount(openLedger(globals).clear(), "row", globals); });
}

}  // namespace gaugepoint::cli
