#include <gtest/gtest.h>

#include <algorithm>

#include "InboxTestSupport.hpp"
#include "gaugepoint/notify/NotificationCenter.hpp"

namespace gaugepoint {
namespace {

using namespace testing;
using Grouping = NotifyInboxThreadGrouping;

TEST(NotifyInboxStore, KeysetPagingOverEqualTimesNeverRepeatsOrSkips) {
    ScratchDirectory dir;
    const QuotaNotifyInboxStore store{configurationIn(dir)};
    // Three distinct times, one of which ISO 8601 with six decimals cannot hold; ids with commas.
    const double times[] = {kNoon, kNoon + 0.1 + 0.2 + 1e-7, kNoon - 3600};
    std::vector<QuotaNotifyArchiveEntry> entries;
    for (int i = 0; i < 61; ++i) entries.push_back(entry("e" + std::to_string(i * 37 % 61) + (i % 5 ? "" : ",x"), times[i % 3]));
    store.upsert(entries);

    std::vector<std::string> byCursor, byOffset;
    std::optional<NotifyInboxCursor> cursor;
    for (int pages = 0; pages < 100; ++pages) {
        const auto page = store.loadPage(cursor, 7);
        if (page.empty()) break;
        for (const auto& id : idsOf(page)) byCursor.push_back(id);
        cursor = NotifyInboxCursor::parse(NotifyInboxCursor::after(page.back()).toString());  // as the command passes it
        ASSERT_TRUE(cursor);
    }
    for (std::int64_t offset = 0; offset < 70; offset += 7) {
        for (const auto& id : idsOf(store.loadPage(offset, 7))) byOffset.push_back(id);
    }
    const auto all = store.loadAllEntries();
    EXPECT_EQ(byCursor, idsOf(all));
    EXPECT_EQ(byOffset, idsOf(all));
    EXPECT_EQ(all.size(), 61u);
    EXPECT_TRUE(std::is_sorted(all.begin(), all.end(), [](const auto& a, const auto& b) {
        return a.createdAt != b.createdAt ? a.createdAt > b.createdAt : a.envelopeID > b.envelopeID;
    }));
    EXPECT_EQ(store.totalCount(), 61);
    EXPECT_EQ(store.knownEnvelopeIDs().size(), 61u);
    EXPECT_TRUE(store.contains("e0,x"));
    EXPECT_FALSE(store.contains("e0"));
    EXPECT_EQ(store.load().version, 2);
}

TEST(NotifyInboxStore, DeletesReturnHowManyRowsWent) {
    ScratchDirectory dir;
    const QuotaNotifyInboxStore store{configurationIn(dir)};
    store.upsert({entry("a1", kNoon - 10, "A", "general", "G"), entry("a2", kNoon - 5, "A", "general", "G"),
                  entry("b1", kNoon, "B", "general", "G"), entry("c1", kNoon, "C", "quota"),
                  entry("old", kNoon - 7200, "D")});
    EXPECT_EQ(store.envelopeIDs("A", Grouping::thread), (std::vector<std::string>{"a2", "a1"}));
    EXPECT_EQ(store.envelopeIDs("G", Grouping::group), (std::vector<std::string>{"b1", "a2", "a1"}));
    EXPECT_EQ(store.envelopeIDsMatchingCategory("quota"), std::vector<std::string>{"c1"});
    EXPECT_EQ(store.deleteMessages({}), 0);
    EXPECT_EQ(store.deleteMessages({"a1", "missing"}), 1);
    EXPECT_EQ(store.deleteThread("G", Grouping::group), 2);
    EXPECT_EQ(store.deleteMessagesMatchingCategory("quota"), 1);
    EXPECT_EQ(store.trimOldEntries(3600), 1);
    EXPECT_EQ(store.totalCount(), 0);

    // More ids than one DELETE takes.
    std::vector<QuotaNotifyArchiveEntry> many;
    std::vector<std::string> ids{"not-there"};
    for (int i = 0; i < 1203; ++i) {
        many.push_back(entry("m" + std::to_string(i), kNoon - i, i % 2 ? "odd" : "even"));
        ids.push_back(many.back().envelopeID);
    }
    store.upsert(many);
    EXPECT_EQ(store.deleteThread("odd", Grouping::thread), 601);
    EXPECT_EQ(store.deleteMessages(ids), 602);
}

// Rows as the companion app writes them, by position: the store's table must have the shared
// columns in the shared order.
TEST(NotifyInboxStore, ReadsAndWritesTheColumnsOfASharedDatabase) {
    ScratchDirectory dir;
    const QuotaNotifyInboxStore store{configurationIn(dir)};
    store.ensureOpen();
    RawDatabase raw{store.databaseURL()};
    ASSERT_EQ(raw.exec("INSERT INTO notify_inbox VALUES ('e1', 't1', 1795262400.5, 1795262401, 'mailbox', 'T', 'S', 'B', "
                       "'src', 'Studio', 'line', 'claude', 'Claude', 'g', 'bolt', 'quota', 'warn', 0, 'tok', 'rec', "
                       "'[\"banner\",\"watch\"]', '{\"url\":\"u\",\"badge\":2,\"autoCopy\":true,\"extras\":{\"k\":\"v\"}}');"
                       "INSERT INTO notify_inbox (envelope_id, thread_id, created_at, archived_at, origin, delivered_via, "
                       "cold_ext) VALUES ('e2', 't1', 1, 1, 'local', 'not json', '{\"url\":3}');"),
              "");
    const auto entries = store.loadAllEntries();
    ASSERT_EQ(entries.size(), 2u);
    const QuotaNotifyArchiveEntry expected{
        "e1", "t1", dateFromSeconds(1795262400.5), dateFromSeconds(1795262401), "mailbox", "T", "S", "B", "src",
        "Studio", "line", "claude", "Claude", "g", "bolt", "quota", "warn", false, "tok", "rec", {"banner", "watch"},
        NotifyInboxColdExt{"u", {}, {}, 2, true, {}, std::map<std::string, std::string>{{"k", "v"}}, {}}};
    EXPECT_EQ(entries[0], expected);
    EXPECT_TRUE(entries[1].deliveredVia.empty());  // undecodable JSON columns read as empty...
    EXPECT_FALSE(entries[1].coldExt);               // ...and the message is still listed

    auto written = expected;
    written.envelopeID = "e3";
    store.upsert(written);
    EXPECT_EQ(raw.column("SELECT delivered_via || ' ' || is_archive || ' ' || created_at || ' ' || cold_ext FROM "
                         "notify_inbox WHERE envelope_id = 'e3'"),
              std::vector<std::string>{
                  R"(["banner","watch"] 0 1795262400.5 {"url":"u","badge":2,"autoCopy":true,"extras":{"k":"v"}})"});
}

TEST(NotifyInboxStore, AnInboxOfAnotherSchemaVersionOpensEmptyAtVersion2) {
    for (const char* old : {"PRAGMA user_version = 1; CREATE TABLE notify_inbox (envelope_id TEXT PRIMARY KEY, json TEXT);"
                            "INSERT INTO notify_inbox VALUES ('x', '{}');",
                            "CREATE TABLE notify_inbox (id TEXT, created_at REAL); INSERT INTO notify_inbox VALUES ('x', 1);",
                            "PRAGMA user_version = 3; CREATE TABLE notify_inbox (envelope_id TEXT, thread_id TEXT, "
                            "created_at REAL, archived_at REAL, origin TEXT); INSERT INTO notify_inbox VALUES ('x', 't', 1, 1, 'o');"}) {
        ScratchDirectory dir;
        const QuotaNotifyInboxStore store{configurationIn(dir)};
        {
            RawDatabase raw{store.databaseURL()};
            ASSERT_EQ(raw.exec(std::string(old) + "CREATE TABLE keep (k TEXT); INSERT INTO keep VALUES ('kept');"), "") << old;
        }
        EXPECT_EQ(store.totalCount(), 0) << old;
        store.upsert(entry("new", kNoon));
        EXPECT_EQ(idsOf(store.loadAllEntries()), std::vector<std::string>{"new"});
        RawDatabase raw{store.databaseURL()};
        EXPECT_EQ(raw.column("PRAGMA user_version"), std::vector<std::string>{"2"});
        EXPECT_EQ(raw.column("SELECT k FROM keep"), std::vector<std::string>{"kept"});
    }
}

TEST(NotifyInboxStore, AFileThatIsNotADatabaseIsReportedAndLeftByteForByte) {
    ScratchDirectory dir;
    const auto config = configurationIn(dir);
    const std::string junk(6000, 'j');
    std::filesystem::create_directories(*config.appGroupDirectory);
    writeFile(*config.appGroupDirectory / "quota-notify-inbox.sqlite", junk);
    const QuotaNotifyInboxStore store{config};
    EXPECT_TRUE(store.loadPage(std::nullopt, 50).empty());
    EXPECT_EQ(store.totalCount(), 0);
    EXPECT_EQ(failureOf([&] { store.ensureOpen(); }), "set journal mode: file is not a database");
    EXPECT_EQ(failureOf([&] { store.upsert(entry("a", kNoon)); }), "set journal mode: file is not a database");
    EXPECT_EQ(failureOf([&] { store.clear(); }), "set journal mode: file is not a database");
    EXPECT_EQ(store.deleteMessages({}), 0);  // runs nothing, so does not even open the file
    EXPECT_EQ(readFile(store.databaseURL()), junk);

    QuotaSyncConfiguration nowhere = config;
    writeFile(dir / "file", "x");
    nowhere.appGroupDirectory = dir / "file" / "group";
    const QuotaNotifyInboxStore homeless{nowhere};
    EXPECT_EQ(failureOf([&] { homeless.upsert(entry("a", kNoon)); }),
              "The App Group container is unavailable: group.gaugepoint.shared.");
}

TEST(NotifyInboxStore, FailedWritesNameTheirStepAndWriteNothing) {
    ScratchDirectory dir;
    const QuotaNotifyInboxStore store{configurationIn(dir)};
    store.upsert(entry("a", kNoon - 7200, "A", "quota"));
    RawDatabase raw{store.databaseURL()};
    ASSERT_EQ(raw.exec("CREATE TRIGGER no_delete BEFORE DELETE ON notify_inbox BEGIN SELECT RAISE(ABORT, 'refused'); END;"
                       "CREATE TRIGGER no_bad BEFORE INSERT ON notify_inbox WHEN NEW.envelope_id = 'bad' "
                       "BEGIN SELECT RAISE(ABORT, 'refused'); END;"),
              "");
    const std::pair<std::function<void()>, const char*> cases[] = {
        {[&] { store.upsert(entry("bad", kNoon)); }, "execute upsert: refused"},
        {[&] { store.upsert({entry("good", kNoon), entry("bad", kNoon)}); }, "execute upsert: refused"},
        {[&] { store.deleteMessage("a"); }, "execute deleteMessage: refused"},
        {[&] { store.deleteMessages({"a"}); }, "execute deleteMessages(envelopeIDs:): refused"},
        {[&] { store.deleteThread("A", Grouping::thread); }, "execute deleteMessages(envelopeIDs:): refused"},
        {[&] { store.deleteMessagesMatchingCategory("quota"); }, "execute deleteMessages(category:): refused"},
        {[&] { store.clear(); }, "execute clear fallback: refused"},
        {[&] { store.trimOldEntries(60); }, "execute trimOldEntries: refused"},
    };
    for (const auto& [write, expected] : cases) EXPECT_EQ(failureOf(write), expected);
    EXPECT_EQ(idsOf(store.loadAllEntries()), std::vector<std::string>{"a"});  // "good" went with "bad"
}

TEST(NotifyInboxStore, TheFirstPageAndCountAreNeverOlderThanTheLastWrite) {
    ScratchDirectory dir;
    const auto config = configurationIn(dir);
    SecondProcess other{[&] {
        QuotaNotifyInboxStore{config}.upsert(entry("c", kNoon + 2));
        return 0;
    }};
    const QuotaNotifyInboxStore store{config};
    store.upsert(entry("a", kNoon));
    const auto firstPage = [&] { return idsOf(store.loadPage(std::nullopt, 2)); };
    EXPECT_EQ(firstPage(), std::vector<std::string>{"a"});
    EXPECT_EQ(store.totalCount(), 1);

    QuotaNotifyInboxStore{config}.upsert(entry("b", kNoon + 1));  // another value, same file
    EXPECT_EQ(firstPage(), (std::vector<std::string>{"b", "a"}));
    EXPECT_EQ(idsOf(store.loadPage(std::nullopt, 1)), std::vector<std::string>{"b"});
    EXPECT_EQ(store.totalCount(), 2);

    RawDatabase raw{store.databaseURL()};  // a connection the store knows nothing of
    raw.exec("DELETE FROM notify_inbox WHERE envelope_id = 'b'");
    EXPECT_EQ(firstPage(), std::vector<std::string>{"a"});
    EXPECT_EQ(store.totalCount(), 1);

    EXPECT_EQ(other.run(), 0);
    EXPECT_EQ(firstPage(), (std::vector<std::string>{"c", "a"}));
    EXPECT_EQ(store.totalCount(), 2);
}

TEST(NotifyInboxStore, ChangesArePostedInThisProcessAndSignalledToOthers) {
    ScratchDirectory dir;
    const auto config = configurationIn(dir);
    SecondProcess other{[&] {
        QuotaNotifyInboxStore{config}.upsert(entry("d", kNoon));
        return 0;
    }};
    const QuotaNotifyInboxStore store{config};
    std::vector<std::int64_t> countsSeen;  // an observer may read the store: the write side is free
    const auto token = NotificationCenter::shared().addObserver(std::string(QuotaNotifyInboxStore::quotaNotifyInboxDidChange),
                                                                [&] { countsSeen.push_back(store.totalCount()); });
    const auto before = store.notifyEventCount();
    store.upsert(entry("a", kNoon));
    const auto firstSignal = NotifyInboxChangeSignal{store.changeSignalURL()}.lastPostedNanoseconds();
    store.upsert({entry("b", kNoon), entry("c", kNoon)});
    const auto secondSignal = NotifyInboxChangeSignal{store.changeSignalURL()}.lastPostedNanoseconds();
    EXPECT_EQ(store.deleteMessages({"missing"}), 0);  // nothing changed: nothing posted
    store.trimOldEntries(1e9);
    EXPECT_EQ(store.clear(), 3);
    NotificationCenter::shared().removeObserver(token);
    EXPECT_EQ(countsSeen, (std::vector<std::int64_t>{1, 3, 0}));
    EXPECT_EQ(store.notifyEventCount() - before, 3u);
    ASSERT_TRUE(firstSignal && secondSignal);
    EXPECT_GT(*secondSignal, *firstSignal);
    EXPECT_EQ(store.changeSignalURL().filename(), "group.gaugepoint.shared.gaugepoint.notify-inbox.did-change");

    EXPECT_EQ(other.run(), 0);
    EXPECT_GT(*NotifyInboxChangeSignal{store.changeSignalURL()}.lastPostedNanoseconds(), *secondSignal);
    EXPECT_EQ(store.notifyEventCount() - before, 3u);  // the other process's posts are its own
}

}  // namespace
}  // namespace gaugepoint
