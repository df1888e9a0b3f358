// gaugepoint cost: token usage priced with the catalogue and the cost rules.

#include "Commands.hpp"
#include "gaugepoint/pricing/OneHourCacheWrites.hpp"
#include "gaugepoint/pricing/QuotaMetadataCatalog.hpp"
#include "gaugepoint/pricing/QuotaModelCostEstimator.hpp"

namespace gaugepoint::cli {
namespace {

struct CostOptions {
    std::string model;
    std::optional<std::string> displayName;
    QuotaSessionTokenUsage usage;
    std::int64_t cacheWrite1h = 0;  // the part of usage.cacheWriteTokens kept for an hour
    std::string file;
    std::optional<std::string> tier;
    std::optional<std::int64_t> monthlyLimit;
};

std::string optionalUSD(const std::optional<double>& value) { return value ? usdText(*value) : "-"; }

void priceUsage(const CostOptions& options, const GlobalOptions& globals) {
    if (options.cacheWrite1h > options.usage.cacheWriteTokens) {
        throw UsageError("--cache-write-1h: the one-hour part of --cache-write, at most " +
                         std::to_string(options.usage.cacheWriteTokens) + ", got " + std::to_string(options.cacheWrite1h));
    }
    // A name people type ("sonnet") stands for a model as `catalog resolve` says.
    std::string modelID = options.model;
    if (!options.displayName) {
        if (const auto typed = QuotaMetadataCatalog::modelForTypedName(options.model)) modelID = typed->id;
    }
    auto cost = QuotaModelCostEstimator::estimatedCostUSD(options.usage, modelID, options.displayName);
    if (cost) *cost += OneHourCacheWrites::surchargeUSD(options.cacheWrite1h, modelID, options.displayName);
    const auto baseline =
        QuotaModelCostEstimator::estimatedBaselineCostWithoutCacheUSD(options.usage, modelID, options.displayName);
    if (globals.json) {
        json::JsonWriter w{true};
        w.beginObject();
        json::writeMember(w, "model", modelID);
        // Unknown stays null: absent keys would read as "no answer" to a script.
        for (const auto& [key, value] : {std::pair{"estimatedCostUSD", cost}, std::pair{"baselineCostWithoutCacheUSD", baseline}}) {
            w.key(key);
            value ? w.number(*value) : w.null();
        }
        w.endObject();
        return writeOutput("-", w.take() + "\n");
    }
    std::vector<std::vector<std::string>> rows{{"model", modelID}, {"cost", optionalUSD(cost)},
                                               {"without caching", optionalUSD(baseline)}};
    std::string text = alignedRows(rows);
    if (!cost) text += "no catalogue price for \"" + options.model + "\"\n";
    writeOutput("-", text);
}

void printSessionCost(double resolved, const QuotaUsageCostMetrics& metrics, std::optional<double> familyFallback,
                      const GlobalOptions& globals) {
    if (globals.json) {
        json::JsonWriter w{true};
        w.beginObject();
        json::writeMember(w, "resolvedCostUSD", resolved);
        json::writeMember(w, "baselineCostWithoutCacheUSD", metrics.baselineCostWithoutCacheUSD);
        json::writeMember(w, "estimatedSavingsUSD", metrics.estimatedSavingsUSD);
        json::writeMember(w, "costSource", metrics.costSource);
        json::writeMember(w, "familyFallbackCostUSD", familyFallback);
        w.endObject();
        return writeOutput("-", w.take() + "\n");
    }
    std::vector<std::vector<std::string>> rows{
        {"cost", usdText(resolved)},
        {"without caching", usdText(metrics.baselineCostWithoutCacheUSD)},
        {"saved by caching", usdText(metrics.estimatedSavingsUSD)},
        {"cost source", std::string(json::rawValue(metrics.costSource))},
    };
    if (familyFallback) rows.push_back({"with family fallback", usdText(*familyFallback)});
    writeOutput("-", alignedRows(rows));
}

// An aggregate snapshot is told from a descriptor by the bucket it covers.
bool isAggregate(const boost::json::value& document) {
    return document.is_object() && document.get_object().contains("bucketStart");
}

void priceSession(const CostOptions& options, const GlobalOptions& globals) {
    const std::string text = readInput(options.file, InputLimit::document("a session document"));
    const auto decodeAs = [&]<class T>(std::type_identity<T>) {
        try {
            return json::fromValue<T>(json::parse(text));
        } catch (const json::DecodingError& e) {
            throw Error("cannot decode " + inputName(options.file) + ": " + e.what());
        }
    };
    bool aggregate = false;
    try {
        aggregate = isAggregate(json::parse(text));
    } catch (const json::DecodingError&) {
        // decodeAs below reports the position of the fault
    }
    if (aggregate) {
        const auto snapshot = decodeAs(std::type_identity<QuotaSessionAggregateSnapshot>{});
        return printSessionCost(QuotaModelCostEstimator::resolvedCostUSD(snapshot),
                                QuotaModelCostEstimator::costMetrics(snapshot), std::nullopt, globals);
    }
    const auto descriptor = decodeAs(std::type_identity<QuotaSessionDescriptor>{});
    printSessionCost(QuotaModelCostEstimator::resolvedCostUSD(descriptor), QuotaModelCostEstimator::costMetrics(descriptor),
                     QuotaModelCostEstimator::resolvedCostUSDWithFamilyFallback(descriptor), globals);
}

void warpCredit(const CostOptions& options, const GlobalOptions& globals) {
    const double value = QuotaModelCostEstimator::warpUSDPerCredit(options.tier, options.monthlyLimit);
    if (!globals.json) return writeOutput("-", "$" + numberText(value) + " per credit\n");
    json::JsonWriter w;
    w.beginObject();
    json::writeMember(w, "usdPerCredit", value);
    w.endObject();
    writeOutput("-", w.take() + "\n");
}

}  // namespace

void registerCostCommand(CLI::App& root, GlobalOptions& globals) {
    auto options = std::make_shared<CostOptions>();
    CLI::App* group = addGroup(root, "cost", "Price token usage with the catalogue and the cost rules");
    group->require_subcommand(1);

    CLI::App* usage = addGroup(*group, "usage", "The catalogue cost of one usage, and its cost without caching");
    usage->add_option("--model", options->model, "The model id as the tool wrote it")->option_text("ID")->required();
    usage->add_option("--display-name", options->displayName, "The model's display name")->option_text("NAME");
    const auto count = [&](const char* name, std::int64_t& target, const char* description) {
        usage->add_option(name, target, description)->option_text("N")->check(Values::wholeNumber(0, "1200"));
    };
    count("--input", options->usage.inputTokens, "Input tokens, without cached ones (default 0)");
    count("--output", options->usage.outputTokens, "Output tokens (default 0)");
    count("--cache-read", options->usage.cacheReadTokens, "Tokens read from the prompt cache (default 0)");
    count("--cache-write", options->usage.cacheWriteTokens, "Tokens written to the prompt cache (default 0)");
    count("--cache-write-1h", options->cacheWrite1h,
          "Of the cache writes, those kept for an hour, priced at their own rate (default 0)");
    usage->callback([options, &globals] { priceUsage(*options, globals); });

    CLI::App* session = addGroup(*group, "session", "Price a session descriptor or an aggregate snapshot document");
    session->add_option("file", options->file, "The JSON document, or - for standard input")->option_text("FILE")->required();
    session->callback([options, &globals] { priceSession(*options, globals); });

    CLI::App* warp = addGroup(*group, "warp-credit", "US dollars per credit of a Warp plan");
    warp->add_option("--tier", options->tier, "The plan's name (Build, Pro, Business, ...)")->option_text("NAME");
    warp->add_option("--monthly-limit", options->monthlyLimit, "The plan's monthly credits")->option_text("N");
    warp->callback([options, &globals] { warpCredit(*options, globals); });
}

}  // namespace gaugepoint::cli
