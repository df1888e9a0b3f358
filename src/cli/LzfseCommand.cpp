// gaugepoint lzfse: raw LZFSE streams, as the companion app stores them.

#include "Commands.hpp"
#include "gaugepoint/platform/Error.hpp"
#include "lzfse/Lzfse.hpp"

namespace gaugepoint::cli {
namespace {

struct LzfseOptions {
    StreamOptions stream;
    std::size_t maxOutputBytes = std::size_t{1} << 30;
};

void compress(const LzfseOptions& options) {
    writeOutput(options.stream.output, lzfse::compressString(readInput(options.stream.input)));
}

void decompress(const LzfseOptions& options) {
    const std::string input = readInput(options.stream.input);
    std::string output;
    try {
        output = lzfse::decompressString(input, options.maxOutputBytes);
    } catch (const lzfse::Error& e) {
        const std::string source = options.stream.input.empty() || options.stream.input == "-" ? "standard input"
                                                                                              : options.stream.input;
        throw gaugepoint::Error("cannot decompress " + source + ": " + e.what());
    }
    writeOutput(options.stream.output, output);
}

}  // namespace

void registerLzfseCommand(CLI::App& root, GlobalOptions&) {
    auto options = std::make_shared<LzfseOptions>();
    CLI::App* group = addGroup(root, "lzfse", "Compress and decompress raw LZFSE streams");
    group->require_subcommand(1);

    CLI::App* c = addGroup(*group, "compress", "Compress bytes into one raw LZFSE stream");
    addStreamOptions(*c, options->stream);
    c->callback([options] { compress(*options); });

    CLI::App* d = addGroup(*group, "decompress", "Decompress one raw LZFSE stream");
    addStreamOptions(*d, options->stream);
    d->add_option("--max-output-bytes", options->maxOutputBytes, "Refuse streams that decode to more (default 1 GiB)")
        ->option_text("N");
    d->callback([options] { decompress(*options); });
}

}  // namespace gaugepoint::cli
