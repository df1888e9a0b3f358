#include <gtest/gtest.h>

#include "StoreTestSupport.hpp"
#include "gaugepoint/stores/QuotaSessionFileRegistry.hpp"
#include "gaugepoint/stores/QuotaUsageEntryStore.hpp"
#include "gaugepoint/stores/SQLiteStatementCache.hpp"

namespace gaugepoint {
namespace {

using testing::at;
using testing::configurationIn;
using testing::RawDatabase;
using testing::ScratchDirectory;
using Mode = QuotaSessionContentCaptureMode;

QuotaSessionFileRegistryEntry entry(std::string path, std::string source, std::string provider, Mode mode,
                                    std::int64_t offset, const char* updated = "2026-11-21T10:00:00Z") {
    QuotaSessionFileRegistryEntry e;
    e.path = std::move(path);
    e.sourceID = std::move(source);
    e.providerID = std::move(provider);
    e.captureMode = mode;
    e.lastOffset = offset;
    e.parserVersion = 3;
    e.updatedAt = at(updated);
    return e;
}

std::vector<std::string> paths(const std::vector<QuotaSessionFileRegistryEntry>& entries) {
    std::vector<std::string> list;
    for (const auto& e : entries) list.push_back(e.path + "@" + e.sourceID + ":" + std::to_string(e.lastOffset));
    return list;
}

// The registry file of `config`, in its directory made for it (to be written raw before opening).
std::filesystem::path registryFile(const QuotaSyncConfiguration& config) {
    std::filesystem::create_directories(*config.appGroupDirectory);
    return *config.appGroupDirectory / QuotaSessionFileRegistry::defaultFilename;
}

TEST(SessionFileRegistry, EntriesAreKeyedByPathSourceProviderAndMode) {
    ScratchDirectory dir;
    const QuotaSessionFileRegistry registry{configurationIn(dir)};
    auto full = entry("/logs/a.jsonl", "mac", "claude", Mode::metadataOnly, 100);
    full.sessionID = "s1";
    full.fileIdentifier = "1:2";
    full.size = 100;
    full.modifiedAt = at("2026-11-21T09:00:00.5Z");
    registry.upsert(full);
    registry.upsert(entry("/logs/a.jsonl", "linux", "claude", Mode::metadataOnly, 50, "2026-11-21T11:00:00Z"));
    registry.upsert(entry("/logs/a.jsonl", "mac", "claude", Mode::fullTranscript, 70, "2026-11-21T08:00:00Z"));
    registry.upsert(entry("/logs/b.jsonl", "mac", "codex", Mode::metadataOnly, 10, "2026-11-21T11:00:00Z"));

    EXPECT_EQ(registry.load("/logs/a.jsonl", "mac", "claude", Mode::metadataOnly), full);
    EXPECT_EQ(registry.load("/logs/a.jsonl", "linux", "claude", Mode::metadataOnly)->lastOffset, 50);
    EXPECT_TRUE(registry.load("/logs/a.jsonl", std::nullopt, "claude", Mode::metadataOnly));  // any source
    EXPECT_FALSE(registry.load("/logs/a.jsonl", "mac", "codex", Mode::metadataOnly));
    EXPECT_EQ(paths(registry.list()), (std::vector<std::string>{"/logs/a.jsonl@linux:50", "/logs/b.jsonl@mac:10",
                                                                "/logs/a.jsonl@mac:100", "/logs/a.jsonl@mac:70"}));
    EXPECT_EQ(paths(registry.list("claude", Mode::metadataOnly, "mac")), std::vector<std::string>{"/logs/a.jsonl@mac:100"});

    auto moved = full;
    moved.lastOffset = 200;
    registry.upsert(moved);
    EXPECT_EQ(registry.load("/logs/a.jsonl", "mac", "claude", Mode::metadataOnly)->lastOffset, 200);
    EXPECT_EQ(registry.remove("/logs/a.jsonl", std::nullopt, "claude", Mode::metadataOnly), 2);
    EXPECT_EQ(registry.remove("codex"), 1);
    EXPECT_EQ(registry.clear(), 1);
}

TEST(SessionFileRegistry, ARegistryFromBeforeSourceScopingIsRebuiltKeepingEveryRow) {
    ScratchDirectory dir;
    const auto config = configurationIn(dir);
    const auto file = registryFile(config);
    {
        RawDatabase raw{file};
        ASSERT_EQ(raw.exec("CREATE TABLE session_file_registry (path TEXT NOT NULL, provider_id TEXT NOT NULL,"
                           " capture_mode TEXT NOT NULL, file_identifier TEXT, size INTEGER, modified_at REAL,"
                           " last_offset INTEGER NOT NULL, parser_version INTEGER NOT NULL, updated_at REAL NOT NULL,"
                           " PRIMARY KEY (path, provider_id, capture_mode));"
                           "INSERT INTO session_file_registry VALUES ('/a', 'claude', 'metadataOnly', '1:1', 5, 1.5, 5, 1, 10);"
                           "INSERT INTO session_file_registry VALUES ('/b', 'codex', 'promptsOnly', NULL, NULL, NULL, 0, 1, 20);"),
                  "");
    }
    const QuotaSessionFileRegistry registry{config};
    EXPECT_EQ(paths(registry.list()), (std::vector<std::string>{"/b@:0", "/a@:5"}));
    EXPECT_EQ(registry.load("/a", "", "claude", Mode::metadataOnly)->fileIdentifier, "1:1");
    RawDatabase raw{file};
    EXPECT_EQ(raw.column("SELECT name FROM pragma_table_info('session_file_registry') WHERE pk > 0 ORDER BY pk"),
              (std::vector<std::string>{"path", "source_id", "provider_id", "capture_mode"}));
    EXPECT_EQ(raw.column("SELECT COUNT(*) FROM sqlite_master WHERE name LIKE 'idx_session_file_registry_%'"),
              std::vector<std::string>{"4"});
    registry.upsert(entry("/a", "mac", "claude", Mode::metadataOnly, 9));  // another source: a row of its own
    EXPECT_EQ(registry.list().size(), 3u);
}

// Import tables written before prefix digests and tool titles were kept gain both columns, keep
// their rows, and take a title (as one line) from then on.
TEST(SessionFileRegistry, OlderImportTablesGainTheirNewColumnsKeepingTheirRows) {
    ScratchDirectory dir;
    const auto config = configurationIn(dir);
    const auto file = registryFile(config);
    {
        RawDatabase raw{file};
        ASSERT_EQ(raw.exec("CREATE TABLE session_file_registry (path TEXT NOT NULL, source_id TEXT NOT NULL DEFAULT '',"
                           " provider_id TEXT NOT NULL, capture_mode TEXT NOT NULL, session_id TEXT, file_identifier TEXT,"
                           " size INTEGER, modified_at REAL, last_offset INTEGER NOT NULL, parser_version INTEGER NOT NULL,"
                           " updated_at REAL NOT NULL, PRIMARY KEY (path, source_id, provider_id, capture_mode));"
                           "CREATE TABLE import_files (file_key INTEGER PRIMARY KEY, path TEXT NOT NULL,"
                           " source_id TEXT NOT NULL, provider_id TEXT NOT NULL, capture_mode TEXT NOT NULL,"
                           " parser_state TEXT NOT NULL DEFAULT '', UNIQUE (path, source_id, provider_id, capture_mode));"
                           "CREATE TABLE import_sessions (provider_id TEXT NOT NULL, session_id TEXT NOT NULL,"
                           " project_path TEXT, PRIMARY KEY (provider_id, session_id)) WITHOUT ROWID;"
                           "INSERT INTO import_sessions VALUES ('goose', 's1', '/home/dev/p');"),
                  "");
    }
    const QuotaSessionFileRegistry registry{config};
    const QuotaUsageEntryStore usage{registry};
    EXPECT_EQ(usage.sessionContents({{"goose", "s1"}}).front().title, std::nullopt);
    registry.inTransaction("titles", [](sqlite::Connection& connection) {
        sqlite::StatementCache statements{connection};
        QuotaUsageEntryStore::noteSessionTitles(statements, "goose", {{"s1", "  Tidy\x1b[2J the\nbuild "}});
    });
    const auto content = usage.sessionContents({{"goose", "s1"}}).front();
    EXPECT_EQ(content.projectPath, "/home/dev/p");
    EXPECT_EQ(content.title, "Tidy [2J the build");
    EXPECT_EQ(usage.dirtySessions(), (std::vector<QuotaUsageEntryStore::SessionKey>{{"goose", "s1"}}));
    RawDatabase raw{file};
    EXPECT_EQ(raw.column("SELECT COUNT(*) FROM pragma_table_info('import_files') WHERE name = 'prefix_digest'"),
              std::vector<std::string>{"1"});
}

TEST(SessionFileRegistry, FileIdentifiersFollowTheFileNotThePath) {
    ScratchDirectory dir;
    testing::writeFile(dir / "log", "one\n");
    const auto first = QuotaSessionFileRegistry::fileIdentifier(dir / "log");
    ASSERT_TRUE(first);
    std::ofstream(dir / "log", std::ios::app) << "two\n";
    EXPECT_EQ(QuotaSessionFileRegistry::fileIdentifier(dir / "log"), first);  // appended: the same file
    testing::writeFile(dir / "new", "one\n");
    std::filesystem::rename(dir / "new", dir / "log");
    EXPECT_NE(QuotaSessionFileRegistry::fileIdentifier(dir / "log"), first);  // replaced
    EXPECT_FALSE(QuotaSessionFileRegistry::fileIdentifier(dir / "missing"));
}

TEST(SessionFileRegistry, ATransactionThatFailsLeavesNothing) {
    ScratchDirectory dir;
    const QuotaSessionFileRegistry registry{configurationIn(dir)};
    EXPECT_THROW(registry.inTransaction("import", [&](sqlite::Connection& connection) {
        QuotaSessionFileRegistry::upsert(connection, entry("/a", "mac", "claude", Mode::metadataOnly, 5));
        throw std::runtime_error("parser gave up");
    }), std::runtime_error);
    EXPECT_TRUE(registry.list().empty());
    registry.inTransaction("import", [&](sqlite::Connection& connection) {
        QuotaSessionFileRegistry::upsert(connection, entry("/a", "mac", "claude", Mode::metadataOnly, 5));
    });
    EXPECT_EQ(registry.list().size(), 1u);
}

TEST(SessionImportStateStore, CheckpointsArePerSourceAndProvider) {
    ScratchDirectory dir;
    const QuotaSessionImportStateStore states{configurationIn(dir)};
    EXPECT_EQ(states.load(), QuotaSessionImportCheckpointCatalog{});
    QuotaSessionImportCheckpoint claude{"mac", "claude", "sig-1", {{"/a", 5, at("2026-11-21T09:00:00Z")}},
                                        QuotaSessionSyncMode::lite, "all", "full", 3, at("2026-11-21T10:00:00Z")};
    states.upsert(claude);
    auto codex = claude;
    codex.providerID = "codex";
    states.upsert(codex);
    claude.scanSignature = "sig-2";
    claude.updatedAt = at("2026-11-21T11:00:00Z");
    states.upsert(claude);
    EXPECT_EQ(states.checkpoint("mac", "claude"), claude);
    EXPECT_FALSE(states.checkpoint("linux", "claude"));
    const auto catalog = states.load();
    EXPECT_EQ(catalog.entries.size(), 2u);
    EXPECT_EQ(catalog.updatedAt, at("2026-11-21T11:00:00Z"));
    EXPECT_EQ(states.documentURL().filename(), "quota-session-import-checkpoints.json");
    testing::writeFile(states.documentURL(), "{\"version\":1,");
    EXPECT_TRUE(states.load().entries.empty());
    states.upsert(claude);  // the damaged document is kept beside the new one
    EXPECT_EQ(states.load().entries.size(), 1u);
    std::size_t copies = 0;
    for (const auto& entry : std::filesystem::directory_iterator(states.documentURL().parent_path())) {
        if (entry.path().filename().string().starts_with("quota-session-import-checkpoints.json.corrupt-")) {
            EXPECT_EQ(testing::readFile(entry.path()), "{\"version\":1,");
            ++copies;
        }
    }
    EXPECT_EQ(copies, 1u);
}

}  // namespace
}  // namespace gaugepoint
