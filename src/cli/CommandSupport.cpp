#include "CommandSupport.hpp"
#include "TextTable.hpp"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "gaugepoint/model/QuotaLanguagePreference.hpp"
#include "gaugepoint/platform/Files.hpp"
#include "gaugepoint/platform/Error.hpp"
#include "gaugepoint/platform/Text.hpp"

namespace gaugepoint::cli {

CLI::App* addGroup(CLI::App& parent, const std::string& name, const std::string& description) {
    CLI::App* command = parent.add_subcommand(name, description);  // inherits fallthrough from the root
    command->footer(
        "Global options, before or after the command words: --app-group-dir DIR, --lang CODE, --now ISO8601, --json, "
        "--compact, --wide, --no-color");
    return command;
}

void addStreamOptions(CLI::App& command, StreamOptions& options) {
    command.add_option("-i,--input", options.input, "Read from FILE (default: standard input)")->option_text("FILE");
    command.add_option("-o,--output", options.output, "Write to FILE, replaced whole (default: standard output)")
        ->option_text("FILE");
}

Date resolveNow(const GlobalOptions& globals) {
    if (globals.now.empty()) return Date{std::chrono::system_clock::now()};
    if (auto date = parseISO8601(globals.now)) {
        // Usage, resets and blocks are measured from this moment: one decades away from any
        // stored data gives durations of hundreds of thousands of hours, not an answer.
        if (secondsSince1970(*date) < 946684800.0 || secondsSince1970(*date) >= 4102444800.0) {
            throw UsageError("--now: expected a moment between 2000 and 2099, got \"" + globals.now + "\"");
        }
        return *date;
    }
    throw UsageError("--now: expected an ISO 8601 date such as 2026-11-21T13:19:00Z, got \"" + globals.now + "\"");
}

LocalCalendar systemCalendar() {
    if (const char* tz = std::getenv("TZ"); tz && *tz) {
        std::string_view name = tz;
        if (name.front() == ':') name.remove_prefix(1);
        // An IANA name ("Europe/Berlin", "UTC") must be one the database knows; POSIX rules
        // ("CET-1CEST,M3.5.0") are left to the system.
        const bool ianaName = name.find_first_of("0123456789,<>+") == std::string_view::npos;
        if (ianaName && !name.empty() && !name.starts_with("/") && !LocalCalendar::inTimeZone(name)) {
            throw UsageError("TZ names an unknown time zone \"" + std::string(tz) +
                             "\"; set a zone such as UTC or Europe/Berlin, e.g. TZ=Europe/Berlin");
        }
    }
    return LocalCalendar::current(LocalCalendar::Kind::gregorian);
}

std::string resolveLanguage(const GlobalOptions& globals) {
    QuotaLanguagePreference preference;
    if (!globals.lang.empty()) preference = QuotaLanguagePreference::explicitLanguage(globals.lang);
    const std::string code = preference.resolvedLanguageCode();
    static bool told = false;  // once per process, however many texts ask
    const std::string lower = lowercased(code);
    if (!globals.lang.empty() && !told && !lower.starts_with("en") && !lower.starts_with("zh")) {
        told = true;
        std::fprintf(stderr, "gaugepoint: --lang %s is not available; showing English (available: en, zh-Hans)\n",
                     globals.lang.c_str());
    }
    return code;
}

InputLimit BulkInputLimit::of(std::string what) const {
    return {maxBytes, std::move(what), "; --max-input-bytes N allows more"};
}

void addMaxInputBytesOption(CLI::App& command, BulkInputLimit& limit) {
    command.add_option("--max-input-bytes", limit.maxBytes, "Refuse inputs larger than N bytes (default 1 GiB)")
        ->option_text("N")
        ->check(Values::wholeNumber(1, "2147483648"));
}

std::string readInput(const std::string& path, const InputLimit& limit) { return readInputFile(path, limit); }

OutputStream::OutputStream(const std::string& path) {
    if (!path.empty() && path != "-") file_.emplace(path);
}

void OutputStream::write(std::string_view bytes) {
    if (file_) return file_->write(bytes);
    if (std::fwrite(bytes.data(), 1, bytes.size(), stdout) != bytes.size()) throw Error("cannot write standard output");
}

void OutputStream::commit() {
    if (file_) return file_->commit();
    if (std::fflush(stdout) != 0) throw Error("cannot write standard output");
}

std::string inputName(const std::string& path) { return path.empty() || path == "-" ? "standard input" : path; }

void writeOutput(const std::string& path, std::string_view bytes) {
    if (!path.empty() && path != "-") {
        writeFileAtomically(path, bytes);
        return;
    }
    if (std::fwrite(bytes.data(), 1, bytes.size(), stdout) != bytes.size() || std::fflush(stdout) != 0) {
        throw Error("cannot write standard output");
    }
}

QuotaSyncConfiguration resolveConfiguration(const GlobalOptions& globals) {
    QuotaSyncConfiguration configuration = QuotaSyncConfiguration::standard();
    if (!globals.appGroupDir.empty()) configuration.appGroupDirectory = std::filesystem::path(globals.appGroupDir);
    if (!globals.now.empty()) configuration.clock = Clock::fixedAt(resolveNow(globals));
    return configuration;
}

std::string timeText(Date date) {
    const std::time_t seconds = std::time_t(std::floor(secondsSince1970(date)));
    std::tm local{};
    ::localtime_r(&seconds, &local);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    return text;
}

std::string timeText(const std::optional<Date>& date, std::string_view absent) {
    return date ? timeText(*date) : std::string(absent);
}

std::string counted(std::int64_t count, std::string_view noun) {
    std::string text = std::to_string(count) + " " + std::string(noun);
    if (count == 1) return text;
    const bool consonantY = noun.size() >= 2 && noun.back() == 'y' && std::string_view("aeiou").find(noun[noun.size() - 2]) == std::string_view::npos;
    if (consonantY) text.pop_back();
    return text + (consonantY ? "ies" : "s");
}

void printRemovedCount(std::int64_t count, std::string_view noun, const GlobalOptions& globals) {
    if (!globals.json) return writeOutput("-", counted(count, noun) + " removed\n");
    json::JsonWriter w;
    w.beginObject();
    json::writeMember(w, "removed", count);
    w.endObject();
    writeOutput("-", w.take() + "\n");
}

std::string numberText(double value) {
    char buffer[32];
    const auto end = std::to_chars(buffer, buffer + sizeof buffer, value).ptr;
    return std::string(buffer, end);
}

std::string groupedInteger(std::int64_t value) {
    std::string digits = std::to_string(value);
    const std::size_t first = digits[0] == '-' ? 1 : 0;
    for (std::size_t i = digits.size(); i > first + 3; i -= 3) digits.insert(i - 3, ",");
    return digits;
}

namespace {

// "$1,234.56" from the digits of the magnitude ("1234.56") and the sign.
std::string dollarsWithSeparators(std::string digits, bool negative) {
    const std::size_t point = digits.find('.');
    for (std::size_t i = point == std::string::npos ? digits.size() : point; i > 3; i -= 3) digits.insert(i - 3, ",");
    return (negative ? "-$" : "$") + digits;
}

}  // namespace

std::string usdText(double value) {
    const double magnitude = std::fabs(value);
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, magnitude >= 1 || magnitude == 0 ? "%.2f" : "%.6f", magnitude);
    std::string digits = buffer;
    if (magnitude < 1 && magnitude != 0) {
        while (digits.back() == '0' && digits.size() > digits.find('.') + 3) digits.pop_back();
    }
    return dollarsWithSeparators(digits, value < 0);
}

std::string usdCentsText(double value) {
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%.2f", std::fabs(value));
    return dollarsWithSeparators(buffer, value <= -0.005);
}

std::string alignedRows(const std::vector<std::vector<std::string>>& rows, const std::vector<bool>& rightAligned) {
    TableFormat format;
    format.rightAligned = rightAligned;
    format.header = false;
    return renderTable(rows, format);
}

}  // namespace gaugepoint::cli
