#include "UsageErrors.hpp"

#include <algorithm>
#include <numeric>
#include <regex>
#include <set>

#include "gaugepoint/platform/Text.hpp"

namespace gaugepoint::cli {
namespace {

// The subcommand being run: the deepest one given.
const CLI::App* deepestCommand(const CLI::App& root) {
    const CLI::App* app = &root;
    while (!app->get_subcommands().empty()) app = app->get_subcommands().front();
    return app;
}

std::vector<std::string> subcommandNames(const CLI::App& app) {
    std::vector<std::string> names;
    for (const CLI::App* sub : app.get_subcommands({})) names.push_back(sub->get_name());
    return names;
}

std::string listed(const std::vector<std::string>& names) {
    std::string text;
    for (const auto& name : names) text += (text.empty() ? "" : ", ") + name;
    return text;
}

std::size_t editDistance(std::string_view a, std::string_view b) {
    std::vector<std::size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), 0);
    for (std::size_t i = 1; i <= a.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            const std::size_t above = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
            diagonal = above;
        }
    }
    return row[b.size()];
}

// A word the command group did not know: "unknown command 'reprot'; did you mean 'report'?"
std::string unknownCommand(const CLI::App& group, const std::string& word, const std::string& prefix) {
    const auto names = subcommandNames(group);
    std::string message = "unknown command '" + prefix + word + "'";
    if (const auto near = closestName(word, names); !near.empty()) return message + "; did you mean '" + prefix + near + "'?";
    return message + "; the commands are " + listed(names);
}

// The arguments no command took, the deepest command's first.
std::vector<std::string> leftOver(const CLI::App& root) {
    for (const CLI::App* app = deepestCommand(root); app; app = app->get_parent()) {
        if (auto extras = app->remaining(); !extras.empty()) return extras;
    }
    return {};
}

// A group given without (a known) verb.
std::string missingCommand(const CLI::App& root) {
    const CLI::App* group = deepestCommand(root);
    const std::string words = commandWords(root);
    const auto extras = leftOver(root);
    if (!extras.empty() && !extras.front().starts_with("-")) {
        return unknownCommand(*group, extras.front(), words.empty() ? "" : words + " ");
    }
    return (words.empty() ? std::string("a command is needed") : words + " needs a command") + ": " +
           listed(subcommandNames(*group));
}

// The option named in a CLI11 message and what followed it.
const CLI::Option* optionNamed(const CLI::App& root, const std::string& name) {
    for (const CLI::App* app = deepestCommand(root); app; app = app->get_parent()) {
        if (const auto* option = app->get_option_no_throw(name)) return option;
    }
    return nullptr;
}

std::string exampleValue(const CLI::Option* option) {
    const std::string text = option ? option->get_option_text() : "";
    return text.empty() ? "VALUE" : text;
}

}  // namespace

std::string commandWords(const CLI::App& root) {
    std::string words;
    for (const CLI::App* app = &root; !app->get_subcommands().empty();) {
        app = app->get_subcommands().front();
        words += (words.empty() ? "" : " ") + app->get_name();
    }
    return words;
}

std::string closestName(std::string_view word, const std::vector<std::string>& candidates) {
    std::string best;
    std::size_t bestDistance = 3;
    for (const auto& candidate : candidates) {
        const std::size_t distance = editDistance(lowercased(word), candidate);
        if (distance < bestDistance || (best.empty() && word.size() >= 3 && candidate.starts_with(lowercased(word)))) {
            best = candidate;
            bestDistance = std::min(distance, bestDistance);
        }
    }
    return best;
}

std::vector<std::string> normalizedArguments(std::vector<std::string> arguments) {
    // The first command word comes after any global options ("--lang zh-Hans help").
    static const std::set<std::string_view> valueTaking{"--app-group-dir", "--lang", "--now"};
    std::size_t at = 0;
    while (at < arguments.size() && arguments[at].starts_with("-")) {
        at += valueTaking.contains(arguments[at]) ? 2 : 1;
    }
    if (at >= arguments.size()) return arguments;
    if (arguments[at] == "version") {
        arguments.erase(arguments.begin() + long(at));
        arguments.emplace_back("--version");
    } else if (arguments[at] == "help") {
        arguments.erase(arguments.begin() + long(at));
        arguments.emplace_back("--help");
    }
    return arguments;
}

std::string usageErrorMessage(const CLI::ParseError& error, const CLI::App& root) {
    const std::string what = singleLine(error.what());
    std::smatch match;
    if (dynamic_cast<const CLI::ValidationError*>(&error)) {
        // "--limit: takes a whole number from 1 (got "-1"), e.g. {option} 20"
        static const std::regex named{R"(^(-[-\w]+): (.*)$)"};
        if (std::regex_match(what, match, named)) {
            std::string text = match[1].str() + " " + match[2].str();
            for (auto at = text.find("{option}"); at != std::string::npos; at = text.find("{option}")) {
                text.replace(at, 8, match[1].str());
            }
            return text;
        }
    }
    if (dynamic_cast<const CLI::ConversionError*>(&error)) {
        static const std::regex converted{R"(Could not convert: (-[-\w]+) = (.*))"};
        if (std::regex_search(what, match, converted)) {
            const auto* option = optionNamed(root, match[1].str());
            return match[1].str() + " takes " + exampleValue(option) + " (got \"" + match[2].str() + "\")";
        }
    }
    if (dynamic_cast<const CLI::ArgumentMismatch*>(&error)) {
        static const std::regex mismatch{R"(^(-[-\w]+): (\d+) required (\S+) missing)"};
        if (std::regex_search(what, match, mismatch)) {
            const auto* option = optionNamed(root, match[1].str());
            return match[1].str() + " needs a value, e.g. " + match[1].str() + " " + exampleValue(option);
        }
        static const std::regex named{R"(^(-[-\w]+):)"};
        if (std::regex_search(what, match, named)) return match[1].str() + " may be given only once";
    }
    if (dynamic_cast<const CLI::RequiredError*>(&error)) {
        if (what.find("subcommand") != std::string::npos) return missingCommand(root);
        static const std::regex required{R"(^(-[-\w]+) is required)"};
        if (std::regex_search(what, match, required)) {
            const auto* option = optionNamed(root, match[1].str());
            return match[1].str() + " is required, e.g. " + match[1].str() + " " + exampleValue(option);
        }
    }
    if (dynamic_cast<const CLI::ExtrasError*>(&error)) {
        static const std::regex extras{R"(not expected: (\S+))"};
        if (std::regex_search(what, match, extras)) {
            const CLI::App* group = deepestCommand(root);
            const std::string words = commandWords(root);
            const std::string extra = match[1].str();
            if (!extra.starts_with("-") && !group->get_subcommands({}).empty()) {
                return unknownCommand(*group, extra, words.empty() ? "" : words + " ");
            }
            if (extra.starts_with("-")) {
                return "unknown option " + extra + (words.empty() ? "" : " of " + words);
            }
            return "unexpected argument '" + extra + "'" + (words.empty() ? "" : " to " + words);
        }
    }
    return what;
}

}  // namespace gaugepoint::cli
