// gaugepoint sessions: the coding-session catalogue and its messages.

#include <boost/json/serialize.hpp>

#include "Commands.hpp"
#include "TextTable.hpp"
#include "gaugepoint/model/QuotaSessionCatalog.hpp"
#include "gaugepoint/model/QuotaSessionTranscript.hpp"
#include "gaugepoint/platform/Text.hpp"
#include "gaugepoint/stores/QuotaSessionCatalogStore.hpp"

namespace gaugepoint::cli {
namespace {

struct SessionsOptions {
    std::optional<std::string> sourceID;
    std::string sessionID;
    std::vector<std::string> files;
    std::string file;
    std::int64_t limit = 50;
    std::int64_t offset = 0;
    std::string deviceKey;
    std::optional<double> messagesDays;
    std::optional<double> descriptorsDays;
};

QuotaSessionCatalogStore openCatalog(const GlobalOptions& globals) { return QuotaSessionCatalogStore{resolveConfiguration(globals)}; }

std::string dateText(const std::optional<Date>& date) { return timeText(date, "-"); }

// ---- import ----

// What one file holds: descriptors to upsert, or a whole catalogue for the source.
struct ImportFile {
    std::vector<QuotaSessionDescriptor> descriptors;
    bool isCatalog = false;
};

ImportFile readImportFile(const std::string& path) {
    const std::string text = readInput(path, InputLimit::document("a session document"));
    try {
        const auto document = json::parse(text);
        if (document.is_array()) return {json::fromValue<std::vector<QuotaSessionDescriptor>>(document), false};
        if (document.is_object() && document.get_object().contains("descriptors")) {
            return {json::fromValue<QuotaSessionCatalog>(document).descriptors, true};
        }
        return {{json::fromValue<QuotaSessionDescriptor>(document)}, false};
    } catch (const json::DecodingError& e) {
        throw Error("cannot decode " + inputName(path) + ": " + e.what());
    }
}

void importFiles(const SessionsOptions& options, const GlobalOptions& globals) {
    const std::string source = options.sourceID.value_or("");
    // Every file is read and checked before anything is written.
    std::vector<ImportFile> files;
    for (const auto& path : options.files) {
        files.push_back(readImportFile(path));
        for (const auto& d : files.back().descriptors) {
            if (d.sourceID != source) {
                throw Error(inputName(path) + ": session \"" + d.id + "\" belongs to source \"" + d.sourceID +
                            "\", not \"" + source + "\"");
            }
        }
    }
    const auto catalog = openCatalog(globals);
    std::int64_t upserted = 0, removed = 0;
    for (const auto& file : files) {
        if (file.isCatalog) {
            removed += catalog.replaceDescriptorsForSource(source, file.descriptors);
        } else {
            catalog.upsertBatch(file.descriptors, source);
        }
        upserted += std::int64_t(file.descriptors.size());
    }
    if (!globals.json) {
        return writeOutput("-", "imported " + counted(upserted, "session") + " of " + source + ", " + std::to_string(removed) +
                                    " removed\n");
    }
    json::JsonWriter w;
    w.beginObject();
    json::writeMember(w, "imported", upserted);
    json::writeMember(w, "removed", removed);
    w.endObject();
    writeOutput("-", w.take() + "\n");
}

// ---- reading ----

struct DescriptorPage {
    std::int64_t totalCount = 0;
    std::vector<QuotaSessionDescriptor> descriptors;
};
BOOST_DESCRIBE_STRUCT(DescriptorPage, (), (totalCount, descriptors))

void list(const SessionsOptions& options, const GlobalOptions& globals) {
    const auto catalog = openCatalog(globals);
    const DescriptorPage page{catalog.totalCount(options.sourceID),
                              catalog.loadDescriptors(options.sourceID, options.limit, options.offset)};
    if (globals.json) return printJson(page);
    std::vector<std::vector<std::string>> rows{{"Source", "Session", "Provider", "Ended", "Messages", "Tokens", "Title"}};
    for (const auto& d : page.descriptors) {
        rows.push_back({d.sourceID, d.id, d.provider.id, dateText(d.endedAt), groupedInteger(d.messageCount),
                        groupedInteger(d.tokenUsage.totalTokens()), singleLine(d.title)});
    }
    const std::int64_t first = page.descriptors.empty() ? 0 : options.offset + 1;
    const TableFormat format{{false, false, false, false, true, true, false},
                             {true, false, false, false, true, false, false},
                             {false, true, false, false, false, false, true}};
    writeOutput("-", renderTable(rows, format) + std::to_string(first) + "-" +
                         std::to_string(options.offset + std::int64_t(page.descriptors.size())) + " of " +
                         counted(page.totalCount, "session") + "\n");
}

QuotaSessionDescriptor loadOne(const QuotaSessionCatalogStore& catalog, const SessionsOptions& options) {
    auto found = catalog.loadDescriptor(options.sourceID.value_or(""), options.sessionID);
    if (!found) throw Error("no session \"" + options.sessionID + "\" of source \"" + options.sourceID.value_or("") + "\"");
    return std::move(*found);
}

void show(const SessionsOptions& options, const GlobalOptions& globals) {
    const auto d = loadOne(openCatalog(globals), options);
    if (globals.json) return printJson(d);
    const auto& u = d.tokenUsage;
    std::vector<std::vector<std::string>> rows{
        {"session", d.id},
        {"source", d.sourceID + " (" + singleLine(d.sourceName) + ")"},
        {"provider", d.provider.id + " (" + singleLine(d.provider.displayName) + ")"},
        {"title", singleLine(d.title)},
        {"project", singleLine(d.projectPath.value_or("-"))},
        {"started", dateText(d.startedAt)},
        {"ended", dateText(d.endedAt)},
        {"messages", groupedInteger(d.messageCount) + " (" + groupedInteger(d.promptCount) + " prompts)"},
        {"tokens", groupedInteger(u.inputTokens) + " input · " + groupedInteger(u.outputTokens) + " output · " +
                       groupedInteger(u.cacheReadTokens) + " cache read · " + groupedInteger(u.cacheWriteTokens) +
                       " cache write"},
        {"sync mode", std::string(json::rawValue(d.syncMode))},
    };
    for (const auto& m : d.topModels) rows.push_back({"model", m.id + " · " + groupedInteger(m.tokenUsage.totalTokens()) + " tokens"});
    writeOutput("-", alignedRows(rows));
}

void messages(const SessionsOptions& options, const GlobalOptions& globals) {
    const auto catalog = openCatalog(globals);
    const std::string source = options.sourceID.value_or("");
    const auto rows = catalog.loadMessages(source, options.sessionID, options.limit, options.offset);
    if (globals.json) return printJson(rows);
    std::vector<std::vector<std::string>> table{{"Seq", "Role", "Time", "Model", "Tokens", "Text"}};
    for (const auto& r : rows) {
        const std::string text = truncatedToWidth(singleLine(r.text.value_or("")), 60);
        table.push_back({std::to_string(r.seq), r.role, r.timestamp ? timeText(dateFromSeconds(*r.timestamp)) : "-",
                         r.model.value_or("-"), groupedInteger(r.tokenCount), text});
    }
    const TableFormat format{{true, false, false, false, true, false}, {false, false, false, true, false, false},
                             {false, false, false, true, false, true}};
    writeOutput("-", renderTable(table, format) + counted(catalog.messageCount(source, options.sessionID), "message") + "\n");
}

// A list of messages, or a transcript bundle.
std::vector<QuotaSessionMessage> readMessages(const std::string& path) {
    const std::string text = readInput(path, InputLimit::document("a message document"));
    try {
        const auto document = json::parse(text);
        if (document.is_array()) return json::fromValue<std::vector<QuotaSessionMessage>>(document);
        return json::fromValue<QuotaSessionTranscriptBundle>(document).messages;
    } catch (const json::DecodingError& e) {
        throw Error("cannot decode " + inputName(path) + ": " + e.what());
    }
}

void replaceMessages(const SessionsOptions& options, const GlobalOptions& globals) {
    const auto list = readMessages(options.file);
    openCatalog(globals).replaceMessagesForSession(options.sourceID.value_or(""), options.sessionID, list);
    if (!globals.json) return writeOutput("-", "stored " + counted(std::int64_t(list.size()), "message") + "\n");
    json::JsonWriter w;
    w.beginObject();
    json::writeMember(w, "stored", std::int64_t(list.size()));
    w.endObject();
    writeOutput("-", w.take() + "\n");
}

struct ExportDocument {
    std::string deviceKey;
    QuotaSessionDescriptorExport descriptors;
    QuotaSessionMessageExport messages;
};
BOOST_DESCRIBE_STRUCT(ExportDocument, (), (deviceKey, descriptors, messages))

void exportChanges(const SessionsOptions& options, const GlobalOptions& globals) {
    const auto catalog = openCatalog(globals);
    ExportDocument document{options.deviceKey, catalog.exportIncrementalDescriptors(options.deviceKey, options.limit),
                            catalog.exportIncrementalMessages(options.deviceKey, options.limit)};
    // Printed first, then the watermarks move: an output that cannot be written exports nothing.
    if (globals.json) {
        printJson(document);
    } else {
        writeOutput("-", "exported " + counted(std::int64_t(document.descriptors.descriptors.size()), "session") + " and " +
                             counted(std::int64_t(document.messages.messages.size()), "message") + " to " +
                             options.deviceKey + "\n");
    }
    catalog.updateWatermark(options.deviceKey, QuotaSessionCatalogStore::descriptorsTable, document.descriptors.watermark);
    catalog.updateWatermark(options.deviceKey, QuotaSessionCatalogStore::messagesTable, document.messages.watermark);
}

void summary(const SessionsOptions& options, const GlobalOptions& globals) {
    const auto s = openCatalog(globals).storageSummary(options.sourceID);
    if (globals.json) return printJson(s);
    writeOutput("-", alignedRows({
                         {"sessions", groupedInteger(s.descriptorCount)},
                         {"messages", groupedInteger(s.messageCount)},
                         {"first session stored", dateText(s.firstDescriptorInsertedAt)},
                         {"latest session stored", dateText(s.latestDescriptorInsertedAt)},
                         {"latest session change", dateText(s.latestDescriptorUpdatedAt)},
                         {"first message stored", dateText(s.firstMessageInsertedAt)},
                         {"latest message stored", dateText(s.latestMessageInsertedAt)},
                         {"latest message change", dateText(s.latestMessageUpdatedAt)},
                     }));
}

void check(const GlobalOptions& globals) {
    const auto report = QuotaSessionCatalogIntegrityChecker{openCatalog(globals)}.run();
    if (globals.json) return printJson(report);
    std::vector<std::vector<std::string>> rows{
        {"sessions", groupedInteger(report.totalDescriptors)},
        {"message rows", groupedInteger(report.totalMessageRows)},
        {"sessions with messages", groupedInteger(report.distinctMessageSessions)},
        {"messages without a session", groupedInteger(report.orphanedMessageSessionCount) + " sessions"},
        {"anomalies", groupedInteger(report.anomaliesFound)},
        {"checked in", std::to_string(report.elapsedMillis) + " ms"},
    };
    for (const auto& [source, count] : report.descriptorCountsBySource) rows.push_back({"source " + source, groupedInteger(count)});
    writeOutput("-", alignedRows(rows));
}

void trim(const SessionsOptions& options, const GlobalOptions& globals) {
    if (!options.messagesDays && !options.descriptorsDays) throw UsageError("sessions trim needs --messages-days or --descriptors-days");
    const auto catalog = openCatalog(globals);
    const std::int64_t messages = options.messagesDays ? catalog.trimMessagesOlderThan(*options.messagesDays) : 0;
    const std::int64_t sessions = options.descriptorsDays ? catalog.trimDescriptorsOlderThan(*options.descriptorsDays) : 0;
    if (!globals.json) return writeOutput("-", counted(sessions, "session") + " and " + counted(messages, "message") + " removed\n");
    json::JsonWriter w;
    w.beginObject();
    json::writeMember(w, "sessions", sessions);
    json::writeMember(w, "messages", messages);
    w.endObject();
    writeOutput("-", w.take() + "\n");
}

}  // namespace

void registerSessionsCommand(CLI::App& root, GlobalOptions& globals) {
    auto options = std::make_shared<SessionsOptions>();
    CLI::App* group = addGroup(root, "sessions", "The coding-session catalogue and its messages");
    group->require_subcommand(1);
    const auto source = [&](CLI::App* command, bool required) {
        auto* option = command->add_option("--source", options->sourceID, "The source id")->option_text("ID");
        if (required) option->required();
    };
    const auto paging = [&](CLI::App* command, std::int64_t limit) {
        command->add_option("--limit", options->limit, "At most N rows (default " + std::to_string(limit) + ")")
            ->option_text("N")->check(Values::wholeNumber(1, "20"));
        command->add_option("--offset", options->offset, "Skip N rows")->option_text("N")->check(Values::wholeNumber(0, "40"));
    };

    CLI::App* import = addGroup(*group, "import", "Store session descriptors, lists of them, or a whole catalogue of a source");
    source(import, true);
    import->add_option("files", options->files, "Descriptor, list or catalogue documents ('-': stdin)")->required()->option_text("FILE...");
    import->callback([options, &globals] { importFiles(*options, globals); });

    CLI::App* listCommand = addGroup(*group, "list", "Sessions, latest ended first");
    source(listCommand, false);
    paging(listCommand, 50);
    listCommand->callback([options, &globals] { list(*options, globals); });

    CLI::App* showCommand = addGroup(*group, "show", "One session");
    source(showCommand, true);
    showCommand->add_option("session", options->sessionID, "The session id")->required();
    showCommand->callback([options, &globals] { show(*options, globals); });

    CLI::App* messagesCommand = addGroup(*group, "messages", "A session's messages in order");
    source(messagesCommand, true);
    messagesCommand->add_option("session", options->sessionID, "The session id")->required();
    paging(messagesCommand, 50);
    messagesCommand->callback([options, &globals] { messages(*options, globals); });

    CLI::App* replace = addGroup(*group, "replace-messages", "Replace a session's messages (a list or a transcript bundle)");
    source(replace, true);
    replace->add_option("session", options->sessionID, "The session id")->required();
    replace->add_option("file", options->file, "The messages ('-': stdin)")->required()->option_text("FILE");
    replace->callback([options, &globals] { replaceMessages(*options, globals); });

    CLI::App* exportCommand = addGroup(*group, "export", "What changed since this device's last export; then its watermark moves");
    exportCommand->add_option("--device", options->deviceKey, "The device's key")->option_text("KEY")->required();
    exportCommand->add_option("--limit", options->limit, "At most N sessions and N messages (default 50)")
        ->option_text("N")->check(Values::wholeNumber(1, "20"));
    exportCommand->callback([options, &globals] { exportChanges(*options, globals); });

    CLI::App* summaryCommand = addGroup(*group, "summary", "How much the catalogue holds");
    source(summaryCommand, false);
    summaryCommand->callback([options, &globals] { summary(*options, globals); });

    addGroup(*group, "check", "Count what does not add up (repairs nothing)")->callback([&globals] { check(globals); });

    CLI::App* trimCommand = addGroup(*group, "trim", "Delete old messages (by time) and sessions (by end)");
    trimCommand->add_option("--messages-days", options->messagesDays, "Messages older than N days")
        ->option_text("N")->check(Values::number(0, "90"));
    trimCommand->add_option("--descriptors-days", options->descriptorsDays, "Sessions ended more than N days ago")
        ->option_text("N")->check(Values::number(0, "365"));
    trimCommand->callback([options, &globals] { trim(*options, globals); });
}

}  // namespace gaugepoint::cli
