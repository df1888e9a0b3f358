// gaugepoint lzfse: raw LZFSE streams, as the companion app stores them. Both verbs stream:
// a few MiB are held however large the input is, and the bytes equal the in-memory codec's.

#include "Commands.hpp"
#include "gaugepoint/platform/Error.hpp"
#include "lzfse/Lzfse.hpp"

namespace gaugepoint::cli {
namespace {

struct LzfseOptions {
    StreamOptions stream;
    BulkInputLimit inputLimit;
    std::uint64_t maxOutputBytes = std::uint64_t{1} << 30;
};

class FileSource : public lzfse::Source {
public:
    explicit FileSource(InputFile& file) : file_(file) {}
    std::size_t read(std::uint8_t* buffer, std::size_t n) override { return file_.read(buffer, n); }

private:
    InputFile& file_;
};

class StreamSink : public lzfse::Sink {
public:
    explicit StreamSink(OutputStream& out) : out_(out) {}
    void write(const std::uint8_t* bytes, std::size_t n) override {
        out_.write({reinterpret_cast<const char*>(bytes), n});
    }

private:
    OutputStream& out_;
};

void compress(const LzfseOptions& options) {
    InputFile input(options.stream.input, options.inputLimit.of("an input to compress"));  // judged before output starts
    OutputStream output(options.stream.output);
    FileSource source(input);
    StreamSink sink(output);
    whileDoing("compressing " + input.name(), [&] { lzfse::compress(source, sink); });
    output.commit();
}

void decompress(const LzfseOptions& options) {
    InputFile input(options.stream.input, options.inputLimit.of("an LZFSE stream"));
    OutputStream output(options.stream.output);
    FileSource source(input);
    StreamSink sink(output);
    try {
        whileDoing("decompressing " + input.name(), [&] { lzfse::decompress(source, sink, options.maxOutputBytes); });
    } catch (const lzfse::Error& e) {
        throw gaugepoint::Error("cannot decompress " + input.name() + ": " + e.what());
    }
    output.commit();
}

}  // namespace

void registerLzfseCommand(CLI::App& root, GlobalOptions&) {
    auto options = std::make_shared<LzfseOptions>();
    CLI::App* group = addGroup(root, "lzfse", "Compress and decompress raw LZFSE streams");
    group->require_subcommand(1);

    CLI::App* c = addGroup(*group, "compress", "Compress bytes into one raw LZFSE stream");
    addStreamOptions(*c, options->stream);
    addMaxInputBytesOption(*c, options->inputLimit);
    c->callback([options] { compress(*options); });

    CLI::App* d = addGroup(*group, "decompress", "Decompress one raw LZFSE stream");
    addStreamOptions(*d, options->stream);
    addMaxInputBytesOption(*d, options->inputLimit);
    d->add_option("--max-output-bytes", options->maxOutputBytes, "Refuse streams that decode to more (default 1 GiB)")
        ->option_text("N");
    d->callback([options] { decompress(*options); });
}

}  // namespace gaugepoint::cli
