// gaugepoint blob: the cloud payload codec (plain or LZFSE, whichever pays off).

#include <iostream>

#include "Commands.hpp"
#include "gaugepoint/sync/QuotaCloudBlobCodec.hpp"

namespace gaugepoint::cli {
namespace {

struct BlobOptions {
    StreamOptions stream;
    BulkInputLimit inputLimit;
    std::string encoding;
};

std::span<const std::uint8_t> bytesOf(std::string_view text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

std::string_view textOf(const std::vector<std::uint8_t>& bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

void encode(const BlobOptions& options, const GlobalOptions& globals) {
    const bool toStdout = options.stream.output.empty() || options.stream.output == "-";
    if (globals.json && toStdout) throw UsageError("blob encode --json prints the counts; give -o FILE for the bytes");
    const std::string payload = readInput(options.stream.input, options.inputLimit.of("a payload to encode"));
    const auto blob = whileDoing("encoding the payload", [&] { return QuotaCloudBlobCodec::encode(payload); });
    writeOutput(options.stream.output, textOf(blob.data));
    if (globals.json) {
        json::JsonWriter w;
        w.beginObject();
        json::writeMember(w, "encoding", blob.encoding);
        json::writeMember(w, "originalBytes", blob.originalBytes);
        json::writeMember(w, "storedBytes", blob.storedBytes);
        w.endObject();
        writeOutput("-", w.take() + "\n");
    } else {
        std::cerr << "encoding " << json::rawValue(blob.encoding) << ", " << blob.originalBytes << " bytes stored as "
                  << blob.storedBytes << "\n";
    }
}

void decode(const BlobOptions& options) {
    const std::string stored = readInput(options.stream.input, options.inputLimit.of("a stored blob"));
    writeOutput(options.stream.output, textOf(QuotaCloudBlobCodec::decodeData(bytesOf(stored), options.encoding)));
}

}  // namespace

void registerBlobCommand(CLI::App& root, GlobalOptions& globals) {
    auto options = std::make_shared<BlobOptions>();
    CLI::App* group = addGroup(root, "blob", "Encode and decode cloud payloads (plain or LZFSE)");
    group->require_subcommand(1);

    CLI::App* e = addGroup(*group, "encode", "Store a payload, compressed when that saves more than 96 bytes");
    addStreamOptions(*e, options->stream);
    addMaxInputBytesOption(*e, options->inputLimit);
    e->callback([options, &globals] { encode(*options, globals); });

    CLI::App* d = addGroup(*group, "decode", "Give back the payload of stored bytes");
    addStreamOptions(*d, options->stream);
    addMaxInputBytesOption(*d, options->inputLimit);
    d->add_option("--encoding", options->encoding, "plain or lzfse (any other name reads as plain)")
        ->option_text("NAME")
        ->required();
    d->callback([options] { decode(*options); });
}

}  // namespace gaugepoint::cli
