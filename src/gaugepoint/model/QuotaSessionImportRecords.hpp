#pragma once

// What importers remember about the session files they read: per file how far it was read and
// what it looked like then, and per source and provider the last scan's checkpoint.

#include <boost/describe/class.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "gaugepoint/model/QuotaSessionModes.hpp"
#include "gaugepoint/platform/Date.hpp"

namespace gaugepoint {

// One file as an importer left it: read up to lastOffset (bytes) by parser parserVersion, when
// the file had this identity, size (bytes) and modification time.
struct QuotaSessionFileRegistryEntry {
    std::string path;
    std::string sourceID;
    std::optional<std::string> sessionID;
    std::optional<std::string> fileIdentifier;
    std::optional<std::int64_t> size;
    std::optional<Date> modifiedAt;
    std::int64_t lastOffset = 0;
    std::string providerID;
    QuotaSessionContentCaptureMode captureMode = QuotaSessionContentCaptureMode::metadataOnly;
    std::int64_t parserVersion = 0;
    Date updatedAt;
    bool operator==(const QuotaSessionFileRegistryEntry&) const = default;
};
BOOST_DESCRIBE_STRUCT(QuotaSessionFileRegistryEntry, (),
                      (path, sourceID, sessionID, fileIdentifier, size, modifiedAt, lastOffset, providerID, captureMode,
                       parserVersion, updatedAt))

struct QuotaSessionImportCandidateFileFingerprint {
    std::string path;
    std::optional<std::int64_t> size;
    std::optional<Date> modifiedAt;
    bool operator==(const QuotaSessionImportCandidateFileFingerprint&) const = default;
};
BOOST_DESCRIBE_STRUCT(QuotaSessionImportCandidateFileFingerprint, (), (path, size, modifiedAt))

// The last scan of one provider's files for one source.
struct QuotaSessionImportCheckpoint {
    std::string sourceID;
    std::string providerID;
    std::string scanSignature;
    std::vector<QuotaSessionImportCandidateFileFingerprint> candidateFileFingerprints;
    QuotaSessionSyncMode syncMode = QuotaSessionSyncMode::lite;
    std::string rangePresetID;
    std::string depthPresetID;
    std::int64_t parserVersion = 0;
    Date updatedAt;
    bool operator==(const QuotaSessionImportCheckpoint&) const = default;
};
BOOST_DESCRIBE_STRUCT(QuotaSessionImportCheckpoint, (),
                      (sourceID, providerID, scanSignature, candidateFileFingerprints, syncMode, rangePresetID,
                       depthPresetID, parserVersion, updatedAt))

struct QuotaSessionImportCheckpointCatalog {
    static constexpr std::int64_t currentVersion = 1;

    std::int64_t version = currentVersion;
    Date updatedAt;
    std::vector<QuotaSessionImportCheckpoint> entries;
    bool operator==(const QuotaSessionImportCheckpointCatalog&) const = default;
};
BOOST_DESCRIBE_STRUCT(QuotaSessionImportCheckpointCatalog, (), (version, updatedAt, entries))

}  // namespace gaugepoint
