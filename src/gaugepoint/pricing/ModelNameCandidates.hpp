#pragma once

// The lookup keys tried, in order, when a model name is resolved against the catalogue.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace gaugepoint {

// Every key derived from `rawID`, then every key derived from `displayName`, each once, none
// empty. For each name: its lookup key, the key of the name without a parenthesised remark
// ("claude-sonnet-4-6 (1M context)"), then the keys that the rewrites give, breadth first, so
// that single rewrites come before combinations of them:
//   - a trailing effort word dropped ("-high"), a trailing thinking or reasoning marker dropped
//     with or without an effort word before it, a context-size marker dropped ("-context1m",
//     "-ctx200k", "-s200k"), "codex-spark" falling back to "codex";
//   - a Claude name tried in the other order of tier and version (claude-sonnet-4-6 and
//     claude-4-6-sonnet), a version "4-6" between separators tried as "4.6";
//   - last, forms that hosting services add: a release date ("-20250929", "@20250929",
//     "-2025-08-07"), a "-latest" tag, a provider path ("anthropic/", "openrouter/x/"), a cloud
//     region and vendor prefix ("us.anthropic.") and a deployment version ("-v1:0") dropped.
// At most 64 keys per name. Thread-safe; the expressions are compiled once per process.
std::vector<std::string> modelLookupCandidates(std::optional<std::string_view> rawID,
                                               std::optional<std::string_view> displayName);

}  // namespace gaugepoint
