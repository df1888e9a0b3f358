// gaugepoint catalog: the provider and model catalogue in force, name resolution, refresh.

#include "Commands.hpp"
#include "TextTable.hpp"
#include "gaugepoint/platform/Text.hpp"
#include "gaugepoint/platform/UrlFetch.hpp"
#include "gaugepoint/pricing/OneHourCacheWrites.hpp"
#include "gaugepoint/pricing/QuotaMetadataCatalog.hpp"
#include "gaugepoint/pricing/QuotaMetadataRefreshService.hpp"

namespace gaugepoint::cli {
namespace {

struct CatalogOptions {
    std::string name;
    std::optional<std::string> displayName;
    std::optional<std::string> providerURL;
    std::optional<std::string> modelURL;
    bool ifDue = false;
    std::optional<bool> enable;
    std::optional<std::int64_t> intervalHours;
};

// The catalogue of this invocation: cached copies from --app-group-dir (or the default).
std::shared_ptr<const QuotaMetadataCatalogStore> loadCatalog(const GlobalOptions&) {
    return QuotaMetadataCatalogCoordinator::shared().snapshot();
}

std::string priceText(const std::optional<double>& price) { return price ? numberText(*price) : "-"; }
std::string priceSentence(const std::optional<double>& price) {
    return price ? "$" + numberText(*price) + " per million tokens" : "unknown";
}

std::string joined(const std::vector<std::string>& items, std::string_view separator = ", ") {
    std::string text;
    for (const auto& item : items) {
        if (!text.empty()) text += separator;
        text += item;
    }
    return text.empty() ? "-" : text;
}

void listProviders(const GlobalOptions& globals) {
    const auto store = loadCatalog(globals);
    if (!store->providerPayload) throw Error("no provider catalogue could be loaded");
    if (globals.json) return printJson(*store->providerPayload);
    std::vector<std::vector<std::string>> rows{{"Id", "Name", "Category", "Aliases"}};
    for (const auto& p : store->providerPayload->providers) {
        rows.push_back({p.id, p.displayName, p.category, joined(p.aliases)});
    }
    const TableFormat format{{}, {false, false, true, false}, {false, true, false, true}};
    writeOutput("-", renderTable(rows, format) + counted(std::int64_t(store->providerPayload->providers.size()), "provider") + "\n");
}

void listModels(const GlobalOptions& globals) {
    const auto store = loadCatalog(globals);
    if (!store->modelPayload) throw Error("no model catalogue could be loaded");
    if (globals.json) return printJson(*store->modelPayload);
    std::vector<std::vector<std::string>> rows{
        {"Id", "Name", "Provider", "Input", "Output", "Cache read", "Cache write", "1h write"}};
    for (const auto& m : store->modelPayload->models) {
        rows.push_back({m.id, m.displayName, m.providerID, priceText(m.inputCostPerMillionUSD),
                        priceText(m.outputCostPerMillionUSD), priceText(m.cacheReadCostPerMillionUSD),
                        priceText(m.cacheWriteCostPerMillionUSD), priceText(OneHourCacheWrites::costPerMillionUSD(m))});
    }
    const TableFormat format{{false, false, false, true, true, true, true, true},
                             {false, false, false, false, false, true, true, true},
                             {false, true, false, false, false, false, false, false}};
    writeOutput("-", renderTable(rows, format) + counted(std::int64_t(store->modelPayload->models.size()), "model") +
                         " · prices in US dollars per million tokens, - where unknown;"
                         " 1h write is the one-hour cache write, twice the input price unless the catalogue states it\n");
}

void resolveModel(const CatalogOptions& options, const GlobalOptions& globals) {
    loadCatalog(globals);
    auto model = QuotaMetadataCatalog::resolvedModel(options.name, options.displayName);
    if (!model && !options.displayName) model = QuotaMetadataCatalog::modelForTypedName(options.name);
    if (!model) {
        std::string message = "no model matches \"" + options.name + "\"";
        if (options.displayName) message += " or \"" + *options.displayName + "\"";
        throw Error(message);
    }
    if (globals.json) return printJson(*model);
    std::vector<std::vector<std::string>> rows{
        {"id", model->id},
        {"name", model->displayName},
        {"provider", model->providerID + (model->organizationName ? " (" + *model->organizationName + ")" : "")},
        {"family", model->family},
        {"input", priceSentence(model->inputCostPerMillionUSD)},
        {"output", priceSentence(model->outputCostPerMillionUSD)},
        {"cache read", priceSentence(model->cacheReadCostPerMillionUSD)},
        {"cache write", priceSentence(model->cacheWriteCostPerMillionUSD)},
        {"cache write 1h", priceSentence(OneHourCacheWrites::costPerMillionUSD(*model)) +
                               (model->cacheWrite1hCostPerMillionUSD || !model->inputCostPerMillionUSD
                                    ? ""
                                    : " (twice the input price)")},
    };
    if (model->pricingSourceURL) rows.push_back({"prices from", *model->pricingSourceURL});
    writeOutput("-", alignedRows(rows));
}

void resolveProvider(const CatalogOptions& options, const GlobalOptions& globals) {
    loadCatalog(globals);
    const auto provider = QuotaMetadataCatalog::provider(options.name);
    if (!provider) throw Error("no provider matches \"" + options.name + "\"");
    if (globals.json) return printJson(*provider);
    std::vector<std::vector<std::string>> rows{
        {"id", provider->id},
        {"name", provider->displayName},
        {"category", provider->category},
        {"aliases", joined(provider->aliases)},
        {"domains", joined(provider->domains)},
        {"homepages", joined(provider->homepages)},
    };
    if (provider->brandAssetName) rows.push_back({"brand asset", *provider->brandAssetName});
    writeOutput("-", alignedRows(rows));
}

std::string changeText(std::string_view noun, const QuotaMetadataCatalogChange& change) {
    std::string text = counted(change.count, noun);
    text += " (" + std::to_string(change.added.size()) + " added, " + std::to_string(change.removed.size()) +
            " removed, " + std::to_string(change.changed.size()) + " changed)";
    const auto list = [&](std::string_view label, const std::vector<std::string>& ids) {
        if (!ids.empty()) text += "\n  " + std::string(label) + ": " + singleLine(joined(ids));
    };
    list("added", change.added);
    list("removed", change.removed);
    list("changed", change.changed);
    return text;
}

void refresh(const CatalogOptions& options, const GlobalOptions& globals);

// A failed download says so when the reason is that libcurl is not there at all.
void refreshSayingWhy(const CatalogOptions& options, const GlobalOptions& globals) {
    try {
        refresh(options, globals);
    } catch (const QuotaMetadataRefreshError& e) {
        if (urlFetchAvailable()) throw;
        throw Error(std::string(e.what()) + " (libcurl.so.4 is not installed)");
    }
}

void refresh(const CatalogOptions& options, const GlobalOptions& globals) {
    const QuotaMetadataRefreshService service{resolveConfiguration(globals)};
    std::optional<QuotaMetadataRefreshResult> result;
    if (options.ifDue) {
        result = service.refreshIfDue();
        if (!result) {
            if (globals.json) return writeOutput("-", "null\n");
            return writeOutput("-", "no refresh due\n");
        }
    } else {
        const auto settings = service.settings();
        result = service.refresh(options.providerURL.value_or(settings.providerCatalogURL),
                                 options.modelURL.value_or(settings.modelCatalogURL));
    }
    if (globals.json) return printJson(*result);
    writeOutput("-", changeText("provider", result->providers) + "\n" + changeText("model", result->models) + "\n");
}

std::string dateText(const std::optional<Date>& date) { return timeText(date, "never"); }

void status(const GlobalOptions& globals) {
    const QuotaMetadataRefreshService service{resolveConfiguration(globals)};
    const auto state = service.state();
    if (globals.json) {
        // Every key, null for "never": a script reads the same shape before the first refresh.
        json::JsonWriter w{true};
        w.beginObject();
        for (const auto& [key, date] : {std::pair{"updatedAt", state.updatedAt},
                                        std::pair{"providerCatalogRefreshedAt", state.providerCatalogRefreshedAt},
                                        std::pair{"modelCatalogRefreshedAt", state.modelCatalogRefreshedAt}}) {
            w.key(key);
            date ? json::writeValue(w, *date) : w.null();
        }
        w.key("lastErrorDescription");
        state.lastErrorDescription ? w.string(*state.lastErrorDescription) : w.null();
        w.endObject();
        return writeOutput("-", w.take() + "\n");
    }
    writeOutput("-", alignedRows({
                         {"updated", dateText(state.updatedAt)},
                         {"providers refreshed", dateText(state.providerCatalogRefreshedAt)},
                         {"models refreshed", dateText(state.modelCatalogRefreshedAt)},
                         {"last error", state.lastErrorDescription.value_or("-")},
                     }));
}

void settings(const CatalogOptions& options, const GlobalOptions& globals) {
    const auto configuration = resolveConfiguration(globals);
    auto current = QuotaMetadataRefreshSettings::load(*configuration.userDefaults);
    const bool changes = options.enable || options.providerURL || options.modelURL || options.intervalHours;
    if (options.enable) current.isEnabled = *options.enable;
    if (options.providerURL) current.providerCatalogURL = *options.providerURL;
    if (options.modelURL) current.modelCatalogURL = *options.modelURL;
    if (options.intervalHours) current.refreshIntervalHours = *options.intervalHours;
    if (changes) current.save(*configuration.userDefaults);
    if (globals.json) return printJson(current);
    writeOutput("-", alignedRows({
                         {"enabled", current.isEnabled ? "yes" : "no"},
                         {"provider catalogue", current.providerCatalogURL.empty() ? "-" : current.providerCatalogURL},
                         {"model catalogue", current.modelCatalogURL.empty() ? "-" : current.modelCatalogURL},
                         {"interval", std::to_string(current.refreshIntervalHours) + " h"},
                     }));
}

}  // namespace

void registerCatalogCommand(CLI::App& root, GlobalOptions& globals) {
    auto options = std::make_shared<CatalogOptions>();
    CLI::App* group = addGroup(root, "catalog", "The provider and model catalogue: names, prices, refresh");
    group->require_subcommand(1);

    addGroup(*group, "providers", "List the providers in force (--json: the provider catalogue)")
        ->callback([&globals] { listProviders(globals); });
    addGroup(*group, "models", "List the models and their prices (--json: the model catalogue)")
        ->callback([&globals] { listModels(globals); });

    CLI::App* resolve = addGroup(*group, "resolve", "The model a name stands for, as pricing resolves it");
    resolve->add_option("name", options->name, "A model id or name as a tool wrote it")->required();
    resolve->add_option("--display-name", options->displayName, "The display name that came with it")->option_text("NAME");
    resolve->callback([options, &globals] { resolveModel(*options, globals); });

    CLI::App* provider = addGroup(*group, "provider", "The provider a name stands for");
    provider->add_option("name", options->name, "A provider id, name or alias")->required();
    provider->callback([options, &globals] { resolveProvider(*options, globals); });

    CLI::App* refreshCommand = addGroup(*group, "refresh", "Download newer catalogues into the App Group directory");
    refreshCommand->add_option("--provider-url", options->providerURL, "Provider catalogue address (http, https, file)")
        ->option_text("URL");
    refreshCommand->add_option("--model-url", options->modelURL, "Model catalogue address (http, https, file)")
        ->option_text("URL");
    refreshCommand->add_flag("--if-due", options->ifDue, "Only when enabled and the interval has passed (settings)")
        ->excludes("--provider-url")->excludes("--model-url");
    refreshCommand->callback([options, &globals] { refreshSayingWhy(*options, globals); });

    addGroup(*group, "status", "How the last refresh went")->callback([&globals] { status(globals); });

    CLI::App* settingsCommand = addGroup(*group, "settings", "Show or change the refresh settings");
    settingsCommand->add_flag("--enable{true},--disable{false}", options->enable, "Turn scheduled refreshes on or off");
    settingsCommand->add_option("--provider-url", options->providerURL, "Provider catalogue address")->option_text("URL");
    settingsCommand->add_option("--model-url", options->modelURL, "Model catalogue address")->option_text("URL");
    settingsCommand->add_option("--interval-hours", options->intervalHours, "Hours between scheduled refreshes")
        ->option_text("N")->check(Values::wholeNumber(1, "24"));
    settingsCommand->callback([options, &globals] { settings(*options, globals); });
}

}  // namespace gaugepoint::cli
