// gaugepoint tokens: the GPT-2 tokenizer and the quota token estimate, for scripts and checks.

#include <boost/json.hpp>

#include <climits>
#include <memory>
#include <string>
#include <vector>

#include "Commands.hpp"
#include "gaugepoint/platform/Error.hpp"
#include "gaugepoint/pricing/QuotaTokenEstimator.hpp"

namespace gaugepoint::cli {
namespace {

std::string idsAsJson(const std::vector<int>& ids) {
    return boost::json::serialize(boost::json::value_from(ids)) + "\n";
}

// A JSON array of integer ids; throws Error naming the first thing that is wrong.
std::vector<int> parseIds(const std::string& text) {
    boost::system::error_code error;
    const boost::json::value json = boost::json::parse(text, error);
    if (error) throw Error("token ids are not valid JSON: " + error.message());
    if (!json.is_array()) throw Error("token ids must be a JSON array, not " + std::string(to_string(json.kind())));
    std::vector<int> ids;
    for (const auto& element : json.as_array()) {
        const std::string position = "element " + std::to_string(ids.size()) + " of the token ids";
        const auto id = element.to_number<std::int64_t>(error);
        if (error || !(element.is_int64() || element.is_uint64())) throw Error(position + " is not an integer: " + boost::json::serialize(element));
        if (id < INT_MIN || id > INT_MAX) throw Error(position + " is out of range: " + boost::json::serialize(element));
        ids.push_back(static_cast<int>(id));
    }
    return ids;
}

std::string countOutput(std::string_view text, bool json) {
    const TokenEstimate estimate = QuotaTokenEstimator::shared().estimate(text);
    if (!json) return std::to_string(estimate.tokens) + "\n";
    const boost::json::object object{{"tokens", estimate.tokens},
                                     {"method", std::string(methodName(estimate.method))},
                                     {"rawCount", estimate.rawCount}};
    return boost::json::serialize(object) + "\n";
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
        writeOutput("-", idsAsJson(GPTEncoder().encode(readInput(*input))));
    });
    verb("decode", "Print the text of a JSON array of GPT-2 token ids")->callback([input] {
        writeOutput("-", GPTEncoder().decode(parseIds(readInput(*input))));
    });
    verb("count", "Print the quota token estimate of a text (--json: with method and raw count)")->callback([input, &globals] {
        writeOutput("-", countOutput(readInput(*input), globals.json));
    });
}

}  // namespace gaugepoint::cli
