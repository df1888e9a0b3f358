#pragma once

// What every command group shares: the global options, input and output files, exit codes.

#include <CLI/CLI.hpp>

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "gaugepoint/platform/Date.hpp"
#include "gaugepoint/platform/Error.hpp"
#include "gaugepoint/platform/Json.hpp"
#include "gaugepoint/platform/QuotaSyncConfiguration.hpp"

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

// "standard input" for "" and "-", else the path itself: how messages name an input.
std::string inputName(const std::string& path);

// A JSON document of type T from a file, or stdin for "" and "-". Throws gaugepoint::Error:
// "cannot decode <input>: <key path>: <reason>" when it does not have T's shape.
template <class T>
T readDocument(const std::string& path) {
    const std::string text = readInput(path);
    try {
        return json::decode<T>(text);
    } catch (const json::DecodingError& e) {
        throw Error("cannot decode " + inputName(path) + ": " + e.what());
    }
}

// Writes bytes to a file through a temporary file and a rename (never a partial file), or to
// stdout for "" and "-". Throws gaugepoint::Error naming the file.
void writeOutput(const std::string& path, std::string_view bytes);

// The store configuration of this invocation: --app-group-dir, and --now pinning the clock.
QuotaSyncConfiguration resolveConfiguration(const GlobalOptions& globals);

// Prints a document as indented JSON on stdout.
template <class T>
void printJson(const T& document) {
    writeOutput("-", json::encode(document, true) + "\n");
}

// "1 snapshot", "2 snapshots".
std::string counted(std::int64_t count, std::string_view noun);

// "<count> <what>", or {"removed": count} with --json.
void printRemovedCount(std::int64_t count, std::string_view noun, const GlobalOptions& globals);

// The shortest form that reads back as the same double: "3", "0.3", "18.75", "1e-07".
std::string numberText(double value);

// US dollars for people: "$1,234.56"; amounts under a dollar keep up to six decimals
// ("$0.0042"), so a cost of a few tokens does not read as zero; "-$0.50" below zero.
std::string usdText(double value);

// Rows of cells as aligned text, columns separated by two blanks.
std::string alignedRows(const std::vector<std::vector<std::string>>& rows);

}  // namespace gaugepoint::cli
