#pragma once

#include <string>
#include <string_view>

namespace gaugepoint::QuotaProductCatalog {

// The name shown for a provider id ("claude" -> "Claude", "openrouter" -> "OpenRouter"). Ids are
// matched through the lookup key (trimmed, lower-cased, "_" and " " as "-"); an unknown id reads
// as its words capitalised ("my-provider" -> "My Provider"), an empty one as "Unknown".
std::string displayName(std::string_view providerID);

// True for providers whose credit balance is money in US dollars rather than plan credits.
bool creditsAreUSD(std::string_view providerID);

}  // namespace gaugepoint::QuotaProductCatalog
