#pragma once

// Reading snapshot documents and printing snapshots, shared by widget, history and sources.

#include <filesystem>
#include <string>
#include <string_view>

#include "CommandSupport.hpp"
#include "gaugepoint/model/QuotaSnapshot.hpp"
#include "gaugepoint/platform/Json.hpp"
#include "gaugepoint/platform/QuotaSyncConfiguration.hpp"

namespace gaugepoint::cli {

// A quota snapshot JSON document. Throws gaugepoint::Error naming the file and, for a decoding
// failure, the key path or position.
QuotaSnapshot readSnapshotDocument(const std::string& path);

// The sibling app's widget snapshot file, imported (default location when `path` is empty).
QuotaSnapshot readSiblingSnapshot(const std::string& path);

// Where a command reads the snapshot it stores: --snapshot FILE (a quota snapshot document, "-"
// for stdin) or --sibling FILE (the sibling app's widget file, imported).
struct SnapshotInput {
    std::string snapshotPath;
    std::string siblingPath;
    CLI::Option* snapshotOption = nullptr;
    CLI::Option* siblingOption = nullptr;

    // Adds the two options to `command`; they exclude each other.
    void addOptions(CLI::App& command);
    // The snapshot named on the command line. Throws UsageError when neither option was given.
    QuotaSnapshot read(std::string_view commandName) const;
};

// Prints `snapshot` as widget texts: "text" (aligned lines), "json", "waybar" or "line".
void printWidget(const QuotaSnapshot& snapshot, std::string_view format, const GlobalOptions& globals);

// One line naming each provider with what is left of its top window: "Claude 58% · Codex 88%".
std::string snapshotSummary(const QuotaSnapshot& snapshot, std::string_view language);

}  // namespace gaugepoint::cli
