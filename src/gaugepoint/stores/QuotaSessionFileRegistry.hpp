#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "gaugepoint/model/QuotaSessionImportRecords.hpp"
#include "gaugepoint/platform/Error.hpp"
#include "gaugepoint/stores/SQLiteStatementCache.hpp"
#include "gaugepoint/stores/SQLiteStore.hpp"

namespace gaugepoint {

enum class QuotaSessionFileRegistryErrorKind { missingAppGroupContainer, sqliteFailure };

class QuotaSessionFileRegistryError : public KindedError<QuotaSessionFileRegistryErrorKind> {
public:
    static QuotaSessionFileRegistryError missingAppGroupContainer(const std::string& identifier) {
        return {Kind::missingAppGroupContainer, "The App Group container is unavailable: " + identifier + "."};
    }
    static QuotaSessionFileRegistryError sqliteFailure(const std::string& message) { return {Kind::sqliteFailure, message}; }

private:
    using KindedError::KindedError;
};

// How far each session file has been imported, per (path, source, provider, capture mode), in
// "quota-session-file-registry.sqlite", so that an import reads only what was appended and
// notices a file that was replaced or cut short. A value: copies share one connection; calls
// from any thread serialise on it. Every operation but walCheckpoint throws
// QuotaSessionFileRegistryError.
class QuotaSessionFileRegistry : public SQLiteStore<QuotaSessionFileRegistryError> {
public:
    static constexpr std::string_view defaultFilename = "quota-session-file-registry.sqlite";

    explicit QuotaSessionFileRegistry(QuotaSyncConfiguration configuration = QuotaSyncConfiguration::standard(),
                                      const std::optional<std::filesystem::path>& containerURLOverride = std::nullopt,
                                      std::string_view databaseFilename = defaultFilename);

    // The entry of a file; with no source, the entry of any source.
    std::optional<QuotaSessionFileRegistryEntry> load(std::string_view path, const std::optional<std::string>& sourceID,
                                                      std::string_view providerID,
                                                      QuotaSessionContentCaptureMode captureMode) const;
    // Entries, filtered by what is given, latest updated first.
    std::vector<QuotaSessionFileRegistryEntry> list(const std::optional<std::string>& providerID = std::nullopt,
                                                    const std::optional<QuotaSessionContentCaptureMode>& captureMode = std::nullopt,
                                                    const std::optional<std::string>& sourceID = std::nullopt) const;
    // The files of one provider, capture mode and source, in no order, with only what tells
    // whether a file changed and where its reading goes on: path, file identifier, size,
    // modification time, last offset and parser version (the rest left empty). A rescan of a
    // large unchanged tree compares every file with these.
    std::vector<QuotaSessionFileRegistryEntry> positions(std::string_view providerID, QuotaSessionContentCaptureMode captureMode,
                                                         std::string_view sourceID) const;
    // Inserts or replaces the entry of (path, source, provider, capture mode).
    void upsert(const QuotaSessionFileRegistryEntry& entry) const;
    // Deletes one file's entry (of any source when none is given), or every entry of a
    // provider, or all; each returns how many went.
    std::int64_t remove(std::string_view path, const std::optional<std::string>& sourceID, std::string_view providerID,
                        QuotaSessionContentCaptureMode captureMode) const;
    std::int64_t remove(std::string_view providerID) const;
    std::int64_t clear() const;
    void walCheckpoint() const noexcept;
    // Changes how much of the file this process's connection maps into memory (PRAGMA
    // mmap_size), for bulk work that would otherwise keep every page it touched resident; the
    // set-up value is SQLiteConnectionHolder::memoryMapBytes. Throws like every operation.
    void setMemoryMapLimit(std::int64_t bytes) const;

    // The identity of the file at `path`: "<device>:<inode>" in decimal. On POSIX systems that
    // pair names one file for as long as it exists, across renames and appends; a file written
    // anew and renamed over the old one has another inode, so a replaced file is noticed even
    // when its size and time look the same. An inode may be reused once its file is deleted,
    // which is why importers compare size and modification time as well. None when the file
    // cannot be examined.
    static std::optional<std::string> fileIdentifier(const std::filesystem::path& path);

    // Runs `work` on the registry's connection inside one transaction (BEGIN IMMEDIATE ...
    // COMMIT, rolled back when `work` throws), so that what an importer writes to its own
    // tables in this file and the entries it writes through upsert(connection, entry) commit
    // together or not at all.
    template <class Work>
    auto inTransaction(std::string_view label, Work&& work) const {
        using Result = decltype(work(std::declval<sqlite::Connection&>()));
        if constexpr (std::is_void_v<Result>) {
            runInTransaction(label, [&](sqlite::Connection& connection) { work(connection); });
        } else {
            std::optional<Result> result;
            runInTransaction(label, [&](sqlite::Connection& connection) { result.emplace(work(connection)); });
            return std::move(*result);
        }
    }
    void runInTransaction(std::string_view label, const std::function<void(sqlite::Connection&)>& work) const;
    // Runs `work` on the registry's connection, outside any transaction (for reads).
    void withConnection(const std::function<void(sqlite::Connection&)>& work) const;
    // Runs `work` on a read-only connection of its own, never waiting for the shared one: a read
    // beside a writer that holds it. The file must have been opened with its schema (by any
    // other call) before. Failures as the registry's.
    void withReadConnection(const std::function<void(sqlite::Connection&)>& work) const;
    static void upsert(sqlite::Connection& connection, const QuotaSessionFileRegistryEntry& entry);
    static std::optional<QuotaSessionFileRegistryEntry> load(sqlite::Connection& connection, std::string_view path,
                                                             const std::optional<std::string>& sourceID,
                                                             std::string_view providerID,
                                                             QuotaSessionContentCaptureMode captureMode);
    // For many entries in one transaction, with statements kept in `statements`: the upsert, and
    // the position stored for the file an entry names (path, source, provider and mode), if any.
    static void upsert(sqlite::StatementCache& statements, const QuotaSessionFileRegistryEntry& entry);
    static std::optional<std::int64_t> lastOffset(sqlite::StatementCache& statements,
                                                  const QuotaSessionFileRegistryEntry& entry);
    // For a first import, inside its first transaction: drops the four secondary indexes, which
    // buildIndexes() makes again in one pass (sorting the entries) once the import is written.
    // Should the import stop before, the next open makes them; an open while a writer holds
    // the file leaves them to it.
    static void deferIndexes(sqlite::Connection& connection);
    void buildIndexes() const;

private:
    template <class Operation>
    auto runRegistry(Operation&& operation) const;
};

// The per-source, per-provider scan checkpoints, kept whole in
// "quota-session-import-checkpoints.json" in the App Group directory and replaced atomically.
class QuotaSessionImportStateStore {
public:
    static constexpr std::string_view defaultFilename = "quota-session-import-checkpoints.json";

    explicit QuotaSessionImportStateStore(QuotaSyncConfiguration configuration = QuotaSyncConfiguration::standard(),
                                          std::optional<std::filesystem::path> containerURLOverride = std::nullopt);

    // The document's path; throws QuotaSessionFileRegistryError::missingAppGroupContainer.
    std::filesystem::path documentURL() const;
    // The catalogue; an empty one (version 1) when there is none or it does not decode.
    QuotaSessionImportCheckpointCatalog load() const;
    // Replaces the document. Throws gaugepoint::Error when it cannot be written.
    void save(const QuotaSessionImportCheckpointCatalog& catalog) const;
    // The checkpoint of one source and provider, if any.
    std::optional<QuotaSessionImportCheckpoint> checkpoint(std::string_view sourceID, std::string_view providerID) const;
    // Puts `checkpoint` in place of the one of its source and provider (or adds it), stamps the
    // catalogue with the checkpoint's time and saves. Throws like save().
    void upsert(const QuotaSessionImportCheckpoint& checkpoint) const;

private:
    QuotaSyncConfiguration configuration_;
    std::optional<std::filesystem::path> containerURLOverride_;
};

}  // namespace gaugepoint
