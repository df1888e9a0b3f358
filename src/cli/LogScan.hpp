#pragma once

// The log scan that `scan` runs and `report` runs first: where the coding tools keep their
// logs, and the scan itself, which ends by publishing this machine's quota snapshot.

#include <filesystem>
#include <string>
#include <vector>

#include "CommandSupport.hpp"
#include "gaugepoint/importers/QuotaLogScanner.hpp"

namespace gaugepoint::cli {

// --claude-dir, --codex-dir, --gemini-dir, --opencode-dir, --copilot-dir, --qwen-dir, --amp-dir,
// --goose-dir, --kimi-dir, --pi-dir (each repeatable).
struct LogHomesOptions {
    std::vector<std::string> claudeDirs, codexDirs, geminiDirs, opencodeDirs, copilotDirs, qwenDirs, ampDirs, gooseDirs,
        kimiDirs, piDirs;
    void addOptions(CLI::App& command);
    // The homes the user named, per provider; providers not named use their tools' own.
    void applyTo(QuotaScanOptions& options) const;
};

// Every home a scan with `options` looks in, the tools' own where none is named.
std::vector<std::filesystem::path> searchedHomes(const QuotaScanOptions& options);

// Says on stderr which homes the user named (--claude-dir, CLAUDE_CONFIG_DIR, ...) that do not
// exist: a typo there would otherwise read as "no usage".
void warnAboutMissingHomes(const LogHomesOptions& homes);

// Imports what the logs added since the last scan, then makes this machine's quota snapshot and
// stores it (source record; history and token ledger when a figure changed). With a pinned
// clock (--now) nothing is published. Shows the scan's progress on a terminal unless `quiet` or
// --json. Throws gaugepoint::Error.
QuotaScanSummary scanAndPublish(QuotaScanOptions options, const GlobalOptions& globals, bool quiet = false);

}  // namespace gaugepoint::cli
