#include "gaugepoint/widgets/QuotaProductCatalog.hpp"

#include <array>
#include <utility>

#include "gaugepoint/platform/Text.hpp"

namespace gaugepoint::QuotaProductCatalog {
namespace {

constexpr std::array<std::pair<std::string_view, std::string_view>, 27> kDisplayNames{{
    {"claude", "Claude"},       {"claude-code", "Claude"}, {"codex", "Codex"},
    {"gemini", "Gemini"},       {"cursor", "Cursor"},      {"openrouter", "OpenRouter"},
    {"copilot", "Copilot"},     {"warp", "Warp"},          {"kiro", "Kiro"},
    {"kilo", "Kilo Code"},      {"antigravity", "Antigravity"}, {"openai", "OpenAI"},
    {"zai", "z.ai"},            {"z-ai", "z.ai"},          {"factory", "Factory"},
    {"droid", "Droid"},         {"amp", "Amp"},            {"augment", "Augment"},
    {"windsurf", "Windsurf"},   {"vertex", "Vertex AI"},   {"ollama", "Ollama"},
    {"minimax", "MiniMax"},     {"opencode", "OpenCode"},  {"qwen", "Qwen Code"},
    {"goose", "Goose"},         {"kimi", "Kimi"},          {"pi", "pi"},
}};

// "my-provider" -> "My Provider".
std::string capitalisedWords(std::string_view key) {
    std::string name;
    bool startOfWord = true;
    for (char c : key) {
        if (c == '-') {
            if (!name.empty() && name.back() != ' ') name += ' ';
            startOfWord = true;
            continue;
        }
        name += startOfWord && c >= 'a' && c <= 'z' ? char(c - 'a' + 'A') : c;
        startOfWord = false;
    }
    while (!name.empty() && name.back() == ' ') name.pop_back();
    return name;
}

}  // namespace

std::string displayName(std::string_view providerID) {
    const std::string key = normalizedLookupKey(providerID);
    for (const auto& [id, name] : kDisplayNames) {
        if (id == key) return std::string(name);
    }
    std::string fallback = capitalisedWords(key);
    return fallback.empty() ? "Unknown" : fallback;
}

bool creditsAreUSD(std::string_view providerID) { return normalizedLookupKey(providerID) == "openrouter"; }

}  // namespace gaugepoint::QuotaProductCatalog
