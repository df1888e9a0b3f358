#pragma once

#include <chrono>
#include <filesystem>
#include <functional>

#include "gaugepoint/model/QuotaSnapshot.hpp"
#include "gaugepoint/platform/Error.hpp"
#include "gaugepoint/platform/Files.hpp"
#include "gaugepoint/widgets/TallybarRawSnapshot.hpp"

namespace gaugepoint {

// Why a sibling snapshot could not be imported. what() names the file.
class TallybarSnapshotImportError : public Error {
public:
    enum class Kind {
        unreadable,      // missing, no permission, ...: the system's reason follows the file name
        beingRewritten,  // still empty or changing after the one retry
        malformed,       // not JSON, or not the sibling's shape: the key path or position follows
    };
    TallybarSnapshotImportError(Kind kind, const std::string& message) : Error(message), kind_(kind) {}
    Kind kind() const noexcept { return kind_; }

private:
    Kind kind_;
};

// Reads the sibling menu-bar app's widget snapshot file and maps it to a QuotaSnapshot.
// Only reads; never writes the sibling's file. Safe to use from several threads.
struct TallybarSnapshotImporter {
    // How long to wait before the one retry of a file caught mid-rewrite.
    std::chrono::duration<double> retryDelay{0.15};
    // How the file is read (within kMaxDocumentBytes); tests substitute a counting reader.
    std::function<FileContents(const std::filesystem::path&)> readFile = [](const std::filesystem::path& path) {
        return readFileNoticingRewrites(path, InputLimit::document("a widget snapshot file"));
    };

    // The file's snapshot: version 1, the raw generation time, no source. A file that is empty or
    // changes while read is read once more after retryDelay. Throws TallybarSnapshotImportError.
    QuotaSnapshot loadAndNormalize(const std::filesystem::path& sourceURL) const;

    // The default location of the sibling's file (PathProvider).
    static const std::filesystem::path& defaultSourceURL();

    // Maps a decoded sibling document to a snapshot. Never fails.
    static QuotaSnapshot normalize(const tallybar::RawSnapshot& raw);

    // The provider id the sibling's provider name stands for ("Claude_Code " -> "claude").
    static std::string normalizedProviderID(std::string_view rawProvider);
};

}  // namespace gaugepoint
