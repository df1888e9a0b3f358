#include "CommandSupport.hpp"

#include <cstdio>

#include "gaugepoint/model/QuotaLanguagePreference.hpp"
#include "gaugepoint/platform/Files.hpp"
#include "gaugepoint/platform/Error.hpp"

namespace gaugepoint::cli {

CLI::App* addGroup(CLI::App& parent, const std::string& name, const std::string& description) {
    CLI::App* command = parent.add_subcommand(name, description);  // inherits fallthrough from the root
    command->footer(
        "Global options, before or after the command words: --app-group-dir DIR, --lang CODE, --now ISO8601, --json");
    return command;
}

void addStreamOptions(CLI::App& command, StreamOptions& options) {
    command.add_option("-i,--input", options.input, "Read from FILE (default: standard input)")->option_text("FILE");
    command.add_option("-o,--output", options.output, "Write to FILE, replaced whole (default: standard output)")
        ->option_text("FILE");
}

Date resolveNow(const GlobalOptions& globals) {
    if (globals.now.empty()) return Date{std::chrono::system_clock::now()};
    if (auto date = parseISO8601(globals.now)) return *date;
    throw UsageError("--now: expected an ISO 8601 date such as 2026-11-21T13:19:00Z, got \"" + globals.now + "\"");
}

std::string resolveLanguage(const GlobalOptions& globals) {
    QuotaLanguagePreference preference;
    if (!globals.lang.empty()) preference = QuotaLanguagePreference::explicitLanguage(globals.lang);
    return preference.resolvedLanguageCode();
}

InputLimit BulkInputLimit::of(std::string what) const {
    return {maxBytes, std::move(what), "; --max-input-bytes N allows more"};
}

void addMaxInputBytesOption(CLI::App& command, BulkInputLimit& limit) {
    command.add_option("--max-input-bytes", limit.maxBytes, "Refuse inputs larger than N bytes (default 1 GiB)")
        ->option_text("N")
        ->check(CLI::PositiveNumber);
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

void writeOutput(const std::string& path, std::string_view bytes) {
    if (!path.empty() && path != "-") {
        writeFileAtomically(path, bytes);
        return;
    }
    if (std::fwrite(bytes.data(), 1, bytes.size(), stdout) != bytes.size() || std::fflush(stdout) != 0) {
        throw Error("cannot write standard output");
    }
}

}  // namespace gaugepoint::cli
