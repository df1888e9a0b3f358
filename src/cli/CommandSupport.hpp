#pragma once

// What every command group shares: the global options, input and output files, exit codes.

#include <CLI/CLI.hpp>

#include <cstdint>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "gaugepoint/platform/Date.hpp"
#include "gaugepoint/platform/Error.hpp"
#include "gaugepoint/platform/Files.hpp"
#include "gaugepoint/platform/InputFile.hpp"
#include "gaugepoint/platform/Json.hpp"
#include "gaugepoint/platform/LocalCalendar.hpp"
#include "gaugepoint/platform/QuotaSyncConfiguration.hpp"
#include "OptionValues.hpp"

namespace gaugepoint::cli {

// Options accepted before or after the command words.
struct GlobalOptions {
    std::string appGroupDir;  // empty: the default App Group directory
    std::string lang;         // empty: from the environment
    std::string now;          // ISO 8601; empty: the system clock
    bool json = false;        // data output as one JSON document on stdout
    bool compact = false;     // tables in their narrow layout, whatever the terminal's width
    bool wide = false;        // tables with every column, uncut
    bool noColor = false;     // no colour even on a terminal
};

// A wrong command line discovered after parsing (exit 2), as opposed to a failed operation (exit 1).
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Ends a command that has printed its output with an exit status of its own (10 and up).
struct ExitStatus {
    int code;
};

// -i IN / -o OUT of the byte-stream commands; empty or "-" means stdin / stdout.
struct StreamOptions {
    std::string input;
    std::string output;
};
void addStreamOptions(CLI::App& command, StreamOptions& options);

// Adds a command group or verb that inherits the global options and prints help when incomplete.
CLI::App* addGroup(CLI::App& parent, const std::string& name, const std::string& description);

// The reference time: --now when given (UsageError when malformed or outside 2000-2099), else
// the system clock.
Date resolveNow(const GlobalOptions& globals);

// The Gregorian calendar of the system's time zone. Throws UsageError when TZ names a zone the
// time-zone database does not know (which the system would silently take for UTC).
LocalCalendar systemCalendar();

// The interface language code: --lang when given, else the environment (LC_ALL, LC_MESSAGES, LANG).
std::string resolveLanguage(const GlobalOptions& globals);

// ---- Outside input ----
// Everything a command reads from a file or standard input goes through readInput() or, for
// input processed in pieces, gaugepoint::InputFile (platform/InputFile.hpp), always with the
// limit of its kind:
//   documents (snapshots, sibling files, session and inbox documents, records), 64 MiB:
//       readInput(path, InputLimit::document("a session document"))
//   bulk input of codecs and tokenizer, 1 GiB unless --max-input-bytes says otherwise:
//       BulkInputLimit limit;  addMaxInputBytesOption(*command, limit);  (when registering)
//       readInput(path, limit.of("a text to tokenize"))                   (when running)
// Past the limit the command fails with one line naming the file and the limit; a regular
// file is judged by its size before anything is read.

// The --max-input-bytes option of one command, and the limits it gives.
struct BulkInputLimit {
    std::uint64_t maxBytes = kMaxBulkInputBytes;
    // A limit for one kind of bulk input ("an input to compress"); its message names the option.
    InputLimit of(std::string what) const;
};
void addMaxInputBytesOption(CLI::App& command, BulkInputLimit& limit);

// The whole input at `path` ("" and "-": standard input) within `limit`. Throws
// gaugepoint::Error naming the file (InputTooLargeError past the limit).
std::string readInput(const std::string& path, const InputLimit& limit);

// Where a command writes bytes in pieces: a file (--output FILE) replaced whole by commit(),
// so nothing appears there when the command fails, or standard output for "" and "-", where
// the bytes go as they come (a failure part-way leaves what was written; exit status 1 says so).
class OutputStream {
public:
    explicit OutputStream(const std::string& path);
    void write(std::string_view bytes);
    void commit();

private:
    std::optional<AtomicFileWriter> file_;
};

// "standard input" for "" and "-", else the path itself: how messages name an input.
std::string inputName(const std::string& path);

// A JSON document of type T from a file, or stdin for "" and "-", within `limit`. Throws
// gaugepoint::Error: "cannot decode <input>: <key path>: <reason>" when it does not have T's
// shape, and as readInput.
template <class T>
T readDocument(const std::string& path, const InputLimit& limit) {
    const std::string text = readInput(path, limit);
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

// "1 snapshot", "2 snapshots"; nouns ending in a consonant and "y" take "ies" ("2 entries").
std::string counted(std::int64_t count, std::string_view noun);

// "<count> <what>", or {"removed": count} with --json.
void printRemovedCount(std::int64_t count, std::string_view noun, const GlobalOptions& globals);

// The shortest form that reads back as the same double: "3", "0.3", "18.75", "1e-07".
std::string numberText(double value);

// A moment for people: local time of the system's zone to the second, "2026-11-21 14:19:00";
// `absent` for none. (JSON keeps ISO 8601 in UTC.)
std::string timeText(Date date);
std::string timeText(const std::optional<Date>& date, std::string_view absent);

// An integer with thousands separators: "1,234,567".
std::string groupedInteger(std::int64_t value);

// The enumerator of E named `text` (its JSON name). Throws UsageError naming `option`.
template <class E>
E parseEnumeration(const std::string& text, std::string_view option) {
    E value{};
    if (!boost::describe::enum_from_string(text.c_str(), value)) {
        throw UsageError(std::string(option) + ": unknown value \"" + text + "\"");
    }
    return value;
}

// The names of E's enumerators, for CLI::IsMember.
template <class E>
std::vector<std::string> enumerationNames() {
    std::vector<std::string> names;
    boost::mp11::mp_for_each<boost::describe::describe_enumerators<E>>([&](auto e) { names.emplace_back(e.name); });
    return names;
}

// US dollars for people: "$1,234.56"; amounts under a dollar keep up to six decimals
// ("$0.0042"), so a cost of a few tokens does not read as zero; "-$0.50" below zero.
std::string usdText(double value);

// US dollars to the cent, for tables: "$1,234.56", "$0.00".
std::string usdCentsText(double value);

// Rows of cells as aligned text, columns separated by two blanks; the columns marked in
// `rightAligned` (numbers) are aligned on the right. Fitted to the terminal as TextTable.hpp says.
std::string alignedRows(const std::vector<std::vector<std::string>>& rows, const std::vector<bool>& rightAligned = {});

// Runs `work`; an allocation failure inside becomes Error("out of memory while <doing>").
template <class Work>
decltype(auto) whileDoing(std::string_view doing, Work&& work) {
    try {
        return std::forward<Work>(work)();
    } catch (const std::bad_alloc&) {
        throw Error("out of memory while " + std::string(doing));
    }
}

}  // namespace gaugepoint::cli
