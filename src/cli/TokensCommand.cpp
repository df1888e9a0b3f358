// gaugepoint tokens: the GPT-2 tokenizer and the quota token estimate, for scripts and checks.

#include <charconv>
#include <memory>
#include <string>
#include <vector>

#include "Commands.hpp"
#include "GPTEncoder/GPTEncoder.hpp"
#include "gaugepoint/platform/Json.hpp"
#include "gaugepoint/pricing/QuotaTokenEstimator.hpp"

namespace gaugepoint::cli {
namespace {

// A JSON array of integer ids; throws Error naming the element that is wrong.
std::vector<int> parseIds(const std::string& text) {
    try {
        return json::decode<std::vector<int>>(text);
    } catch (const json::DecodingError& e) {
        throw Error(std::string("cannot read token ids: ") + e.what());
    }
}

// The ids of a text as one JSON array on stdout ("[31373,995]"), written as they are encoded in
// pieces of about 1 MiB, so a long text never needs all its ids or their text at once.
void writeIds(GPTEncoder& encoder, std::string_view text) {
    std::string out(std::size_t{1} << 20, '\0');
    std::size_t used = 0;
    out[used++] = '[';
    bool first = true;
    encoder.encode(text, [&](std::span<const int> ids) {
        for (const int id : ids) {
            if (used > out.size() - 16) {
                writeOutput("-", std::string_view(out).substr(0, used));
                used = 0;
            }
            if (!first) out[used++] = ',';
            first = false;
            used = static_cast<std::size_t>(std::to_chars(out.data() + used, out.data() + out.size(), id).ptr - out.data());
        }
    });
    out.replace(used, 2, "]\n");
    writeOutput("-", std::string_view(out).substr(0, used + 2));
}

// The estimate of a whole input read in pieces of 1 MiB, so its size does not matter.
std::string countOutput(InputFile& input, bool asJson) {
    QuotaTokenEstimator::Stream stream{QuotaTokenEstimator::shared()};
    std::string piece(std::size_t{1} << 20, '\0');
    while (const std::size_t n = input.read(reinterpret_cast<std::uint8_t*>(piece.data()), piece.size())) {
        stream.add(std::string_view(piece).substr(0, n));
    }
    const TokenEstimate estimate = stream.finish();
    return (asJson ? json::encode(estimate) : std::to_string(estimate.tokens)) + "\n";
}

}  // namespace

void registerTokensCommand(CLI::App& root, GlobalOptions& globals) {
    struct Options {
        std::string input;
        BulkInputLimit limit;
    };
    auto options = std::make_shared<Options>();
    CLI::App* group = addGroup(root, "tokens", "GPT-2 token ids and quota token estimates");
    group->require_subcommand(1);
    const auto verb = [&](const char* name, const char* description) {
        CLI::App* command = addGroup(*group, name, description);
        command->add_option("file", options->input, "Input file, or - for standard input (the default)")->option_text("FILE|-");
        addMaxInputBytesOption(*command, options->limit);
        return command;
    };
    verb("encode", "Print the GPT-2 token ids of a text as a JSON array")->callback([options] {
        const std::string text = readInput(options->input, options->limit.of("a text to tokenize"));
        GPTEncoder encoder;
        whileDoing("encoding the tokens of " + inputName(options->input), [&] { writeIds(encoder, text); });
    });
    verb("decode", "Print the text of a JSON array of GPT-2 token ids")->callback([options] {
        const std::string ids = readInput(options->input, options->limit.of("a list of token ids"));
        writeOutput("-", whileDoing("decoding the token ids of " + inputName(options->input),
                                    [&] { return GPTEncoder().decode(parseIds(ids)); }));
    });
    verb("count", "Print the quota token estimate of a text (--json: with method and raw count)")->callback([options, &globals] {
        InputFile input(options->input, options->limit.of("a text to tokenize"));
        writeOutput("-", whileDoing("counting the tokens of " + input.name(), [&] { return countOutput(input, globals.json); }));
    });
}

}  // namespace gaugepoint::cli
