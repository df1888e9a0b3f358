#pragma once

// What every command group shares: the global options, input and output files, exit codes.

#include <CLI/CLI.hpp>

#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "gaugepoint/platform/Date.hpp"

namespace gaugepoint::cli {

// Options accepted before or after the command words.
struct GlobalOptions {
    std::string appGroupDir;  // empty: the default App Group directory
    std::string lang;         // empty: from the environment
    std::string now;          // ISO 8601; empty: the system clock
    bool json = false;        // data output as one JSON document on stdout
};

// A wrong command line discovered after parsing (exit 2), as opposed to a failed operation (exit 1).
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// -i IN / -o OUT of the byte-stream commands; empty or "-" means stdin / stdout.
struct StreamOptions {
    std::string input;
    std::string output;
};
void addStreamOptions(CLI::App& command, StreamOptions& options);

// Adds a command group or verb that inherits the global options and prints help when incomplete.
CLI::App* addGroup(CLI::App& parent, const std::string& name, const std::string& description);

// The reference time: --now when given (UsageError when malformed), else the system clock.
Date resolveNow(const GlobalOptions& globals);

// The interface language code: --lang when given, else the environment (LC_ALL, LC_MESSAGES, LANG).
std::string resolveLanguage(const GlobalOptions& globals);

// Reads a whole file, or stdin for "" and "-". Throws gaugepoint::Error naming the file.
std::string readInput(const std::string& path);

// Writes bytes to a file through a temporary file and a rename (never a partial file), or to
// stdout for "" and "-". Throws gaugepoint::Error naming the file.
void writeOutput(const std::string& path, std::string_view bytes);

}  // namespace gaugepoint::cli
