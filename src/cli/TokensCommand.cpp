// gaugepoint tokens: the GPT-2 tokenizer and the quota token estimate, for scripts and checks.

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

std::string countOutput(std::string_view text, bool asJson) {
    const TokenEstimate estimate = QuotaTokenEstimator::shared().estimate(text);
    return (asJson ? json::encode(estimate) : std::to_string(estimate.tokens)) + "\n";
}

}  // namespace

void registerTokensCommand(CLI::App& root, GlobalOptions& globals) {
    auto input = std::make_shared<std::string>();
    CLI::App* group = addGroup(root, "tokens", "GPT-2 token ids and quota token estimates");
    group->require_subcommand(1);
    const auto verb = [&](const char* name, const char* description) {
        CLI::App* command = addGroup(*group, name, description);
        command->add_option("file", *input, "Input file, or - for standard input (the default)")->option_text("FILE|-");
        return command;
    };
    verb("encode", "Print the GPT-2 token ids of a text as a JSON array")->callback([input] {
        writeOutput("-", json::encode(GPTEncoder().encode(readInput(*input))) + "\n");
    });
    verb("decode", "Print the text of a JSON array of GPT-2 token ids")->callback([input] {
        writeOutput("-", GPTEncoder().decode(parseIds(readInput(*input))));
    });
    verb("count", "Print the quota token estimate of a text (--json: with method and raw count)")->callback([input, &globals] {
        writeOutput("-", countOutput(readInput(*input), globals.json));
    });
}

}  // namespace gaugepoint::cli
