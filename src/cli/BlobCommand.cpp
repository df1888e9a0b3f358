// gaugepoint blob: the cloud payload codec (plain or LZFSE, whichever pays off).

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>

#include "Commands.hpp"
#include "gaugepoint/sync/QuotaCloudBlobCodec.hpp"
#include "lzfse/Lzfse.hpp"

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

// A scratch file that is gone when closed.
struct ScratchFile {
    std::FILE* file = std::tmpfile();
    ~ScratchFile() {
        if (file) std::fclose(file);
    }
    void write(const std::uint8_t* bytes, std::size_t n) {
        if (!file || std::fwrite(bytes, 1, n, file) != n) throw Error("cannot write a scratch file: " + std::string(std::strerror(errno)));
    }
    // Copies the whole file to `out`.
    void copyTo(OutputStream& out) {
        std::rewind(file);
        std::string buffer(std::size_t{1} << 20, '\0');
        while (const std::size_t n = std::fread(buffer.data(), 1, buffer.size(), file)) out.write({buffer.data(), n});
        if (std::ferror(file)) throw Error("cannot read a scratch file back");
    }
};

// Reads the payload for the compressor and keeps a copy of it, in case plain wins.
class KeepingSource : public lzfse::Source {
public:
    KeepingSource(InputFile& input, ScratchFile& copy) : input_(input), copy_(copy) {}
    std::size_t read(std::uint8_t* buffer, std::size_t n) override {
        const std::size_t got = input_.read(buffer, n);
        copy_.write(buffer, got);
        bytes += std::int64_t(got);
        return got;
    }
    std::int64_t bytes = 0;

private:
    InputFile& input_;
    ScratchFile& copy_;
};

class ScratchSink : public lzfse::Sink {
public:
    explicit ScratchSink(ScratchFile& file) : file_(file) {}
    void write(const std::uint8_t* bytes, std::size_t n) override {
        file_.write(bytes, n);
        this->bytes += std::int64_t(n);
    }
    std::int64_t bytes = 0;

private:
    ScratchFile& file_;
};

// The codec's choice made in streams: the payload and its compressed form go to scratch files,
// so memory stays a few MiB whatever the payload's size, and the stored bytes are the same.
QuotaCloudEncodedBlob encodeStreaming(InputFile& input, OutputStream& output) {
    ScratchFile plain, packed;
    KeepingSource source{input, plain};
    ScratchSink sink{packed};
    lzfse::compress(source, sink);
    const bool compressed = source.bytes >= QuotaCloudBlobCodec::minimumCompressionBytes &&
                            source.bytes - sink.bytes > QuotaCloudBlobCodec::minimumSavingsBytes;
    (compressed ? packed : plain).copyTo(output);
    output.commit();
    QuotaCloudEncodedBlob blob;
    blob.encoding = compressed ? QuotaCloudBlobEncoding::lzfse : QuotaCloudBlobEncoding::plain;
    blob.originalBytes = source.bytes;
    blob.storedBytes = compressed ? sink.bytes : source.bytes;
    return blob;
}

void encode(const BlobOptions& options, const GlobalOptions& globals) {
    const bool toStdout = options.stream.output.empty() || options.stream.output == "-";
    if (globals.json && toStdout) throw UsageError("blob encode --json prints the counts; give -o FILE for the bytes");
    InputFile input(options.stream.input, options.inputLimit.of("a payload to encode"));
    OutputStream output(options.stream.output);
    const auto blob = whileDoing("encoding " + input.name(), [&] { return encodeStreaming(input, output); });
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
