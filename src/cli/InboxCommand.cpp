// gaugepoint inbox: the notification inbox in quota-notify-inbox.sqlite.

#include <map>

#include "Commands.hpp"
#include "gaugepoint/notify/QuotaNotifyInboxStore.hpp"
#include "gaugepoint/platform/Text.hpp"

namespace gaugepoint::cli {
namespace {

struct InboxOptions {
    std::int64_t limit = QuotaNotifyInboxStore::defaultPageSize;
    std::string before;
    std::string file;
    std::vector<std::string> ids;
    std::optional<std::string> category;
    std::optional<std::string> thread;
    std::optional<std::string> grouping;
    double olderThanSeconds = 0;
};

// The store of this invocation, opened now so that an unreadable file is reported rather than
// shown as an empty inbox.
QuotaNotifyInboxStore openStore(const GlobalOptions& globals) {
    QuotaNotifyInboxStore store{resolveConfiguration(globals)};
    store.ensureOpen();
    return store;
}

// "1 entry", "2 entries".
std::string entries(std::int64_t count) { return std::to_string(count) + (count == 1 ? " entry" : " entries"); }

// {"<key>": count} with --json, else `text`.
void printCount(std::string_view key, std::int64_t count, const std::string& text, const GlobalOptions& globals) {
    if (!globals.json) return writeOutput("-", text + "\n");
    json::JsonWriter w;
    w.beginObject();
    json::writeMember(w, key, count);
    w.endObject();
    writeOutput("-", w.take() + "\n");
}

// The one place `inbox add` reads its document; it moves to the bounded reader with the rest.
std::string readEntryDocument(const std::string& path) { return readInput(path, InputLimit::document("an inbox document")); }

// Every entry names itself by a non-empty envelope id, and no id twice: the store keeps one row
// per id, so a second entry would silently replace the first while "stored 2" was printed.
void checkEnvelopeIDs(const std::vector<QuotaNotifyArchiveEntry>& entries, const std::string& path) {
    std::map<std::string_view, std::size_t> seen;
    for (std::size_t i = 0; i < entries.size(); ++i) {
        const std::string& id = entries[i].envelopeID;
        if (trimmed(id).empty()) {
            throw Error(inputName(path) + ": [" + std::to_string(i) + "].envelopeID is empty; every entry needs an id");
        }
        if (const auto [at, fresh] = seen.emplace(id, i); !fresh) {
            throw Error(inputName(path) + ": envelopeID \"" + singleLine(id) + "\" is given twice ([" +
                        std::to_string(at->second) + "] and [" + std::to_string(i) + "]); nothing was stored");
        }
    }
}

// One entry (an object) or a list of entries (an array).
std::vector<QuotaNotifyArchiveEntry> decodeEntries(const std::string& path) {
    const std::string text = readEntryDocument(path);
    std::vector<QuotaNotifyArchiveEntry> entries;
    try {
        const auto document = json::parse(text);
        if (document.is_array()) {
            entries = json::fromValue<std::vector<QuotaNotifyArchiveEntry>>(document);
        } else {
            entries = {json::fromValue<QuotaNotifyArchiveEntry>(document)};
        }
    } catch (const json::DecodingError& e) {
        throw Error("cannot decode " + inputName(path) + ": " + e.what());
    }
    checkEnvelopeIDs(entries, path);
    return entries;
}

void list(const InboxOptions& options, const GlobalOptions& globals) {
    std::optional<NotifyInboxCursor> before;
    if (!options.before.empty()) {
        before = NotifyInboxCursor::parse(options.before);
        if (!before) {
            throw UsageError("--before: expected CREATED_AT,ENVELOPE_ID such as 1795251600.5,env-2, got \"" +
                             options.before + "\"");
        }
    }
    const auto store = openStore(globals);
    // One entry past the page tells whether there is a next page.
    auto page = store.loadPage(before, options.limit + 1);
    std::optional<NotifyInboxCursor> next;
    if (std::int64_t(page.size()) > options.limit) {
        page.resize(std::size_t(options.limit));
        if (!page.empty()) next = NotifyInboxCursor::after(page.back());
    }
    if (globals.json) {
        json::JsonWriter w{true};
        w.beginObject();
        json::writeMember(w, "entries", page);
        w.key("nextCursor");
        next ? w.string(next->toString()) : w.null();
        w.endObject();
        return writeOutput("-", w.take() + "\n");
    }
    std::vector<std::vector<std::string>> rows;
    for (const auto& entry : page) {
        rows.push_back({timeText(entry.createdAt), singleLine(entry.envelopeID), singleLine(entry.category),
                        singleLine(entry.title.empty() ? entry.body : entry.title)});
    }
    std::string footer = entries(std::int64_t(page.size()));
    if (next) footer += "; next page: --before " + next->toString();
    writeOutput("-", alignedRows(rows) + footer + "\n");
}

void add(const InboxOptions& options, const GlobalOptions& globals) {
    const auto list = decodeEntries(options.file);
    openStore(globals).upsert(list);
    printCount("stored", std::int64_t(list.size()), "stored " + entries(std::int64_t(list.size())), globals);
}

void remove(const InboxOptions& options, const GlobalOptions& globals) {
    const int given = int(!options.ids.empty()) + int(options.category.has_value()) + int(options.thread.has_value());
    if (given != 1) throw UsageError("inbox delete needs exactly one of ID..., --category NAME or --thread ID");
    if (options.grouping && !options.thread) throw UsageError("--grouping goes with --thread");
    const auto store = openStore(globals);
    std::int64_t removed = 0;
    if (options.category) {
        removed = store.deleteMessagesMatchingCategory(*options.category);
    } else if (options.thread) {
        const auto grouping = options.grouping == "group" ? NotifyInboxThreadGrouping::group : NotifyInboxThreadGrouping::thread;
        removed = store.deleteThread(*options.thread, grouping);
    } else {
        removed = store.deleteMessages(options.ids);
    }
    printCount("removed", removed, entries(removed) + " removed", globals);
}

}  // namespace

void registerInboxCommand(CLI::App& root, GlobalOptions& globals) {
    auto options = std::make_shared<InboxOptions>();
    CLI::App* group = addGroup(root, "inbox", "The notification inbox, newest first");
    group->require_subcommand(1);

    CLI::App* listCommand = addGroup(*group, "list", "Show one page of entries, newest first");
    listCommand->add_option("--limit", options->limit, "Entries per page (default 50)")
        ->option_text("N")->check(Values::wholeNumber(1, "50", 1'000'000));
    listCommand->add_option("--before", options->before, "Continue after this cursor (from the previous page)")
        ->option_text("CURSOR");
    listCommand->callback([options, &globals] { list(*options, globals); });

    addGroup(*group, "count", "Show how many entries the inbox holds")->callback([&globals] {
        const std::int64_t count = openStore(globals).totalCount();
        printCount("count", count, entries(count), globals);
    });

    CLI::App* addCommand = addGroup(*group, "add", "Store an entry or a list of entries (all or none)");
    addCommand->add_option("file", options->file, "A JSON entry or array of entries ('-': stdin)")->required();
    addCommand->callback([options, &globals] { add(*options, globals); });

    CLI::App* deleteCommand = addGroup(*group, "delete", "Delete entries by id, by category or by thread");
    deleteCommand->add_option("ids", options->ids, "Envelope ids")->option_text("ID...");
    deleteCommand->add_option("--category", options->category, "Every entry of this category")->option_text("NAME");
    deleteCommand->add_option("--thread", options->thread, "Every entry of this thread")->option_text("ID");
    deleteCommand->add_option("--grouping", options->grouping, "What --thread names: thread (default) or group id")
        ->check(Values::oneOf({"thread", "group"}))
        ->option_text("thread|group");
    deleteCommand->callback([options, &globals] { remove(*options, globals); });

    addGroup(*group, "clear", "Delete every entry")->callback([&globals] {
        const std::int64_t removed = openStore(globals).clear();
        printCount("removed", removed, entries(removed) + " removed", globals);
    });

    CLI::App* trim = addGroup(*group, "trim", "Delete entries created longer ago than an age");
    trim->add_option("--older-than", options->olderThanSeconds, "Age in seconds")
        ->option_text("SECONDS")->required()->check(Values::number(0, "86400"));
    trim->callback([options, &globals] {
        const std::int64_t removed = openStore(globals).trimOldEntries(options->olderThanSeconds);
        printCount("removed", removed, entries(removed) + " removed", globals);
    });
}

}  // namespace gaugepoint::cli
