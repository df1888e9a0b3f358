#pragma once

// What the import of coding tools' local logs records: counted token usage, the messages of
// sessions, and the rate limits a tool's log reports.

#include <boost/describe/class.hpp>

#include <cstdint>
#include <optional>
#include <string>

#include "gaugepoint/model/QuotaSessionMessage.hpp"
#include "gaugepoint/platform/Date.hpp"

namespace gaugepoint {

// What a tool charged in its own units, never US dollars and never turned into them: Copilot's
// premium requests and AI units (AIU; one is worth a cent, but stays an AIU), Amp's credits.
struct QuotaUsageCharges {
    double premiumRequests = 0;
    double aiu = 0;
    double credits = 0;

    bool any() const { return premiumRequests != 0 || aiu != 0 || credits != 0; }
    QuotaUsageCharges& operator+=(const QuotaUsageCharges& other) {
        premiumRequests += other.premiumRequests;
        aiu += other.aiu;
        credits += other.credits;
        return *this;
    }
    bool operator==(const QuotaUsageCharges&) const = default;
};
BOOST_DESCRIBE_STRUCT(QuotaUsageCharges, (), (premiumRequests, aiu, credits))

// One counted API response (Claude Code, Gemini CLI) or token delta (Codex CLI). The same
// response found in several files has one dedupKey and is counted once.
struct QuotaUsageEntry {
    std::string providerID;  // "claude", "codex", "gemini"
    std::string sessionID;
    std::string dedupKey;
    Date timestamp;
    std::string model;
    QuotaSessionTokenUsage tokens;  // exactCostUSD: a cost the log itself reported
    // The part of tokens.cacheWriteTokens written to the one-hour cache (0 to cacheWriteTokens):
    // priced at its own rate, never counted a second time.
    std::int64_t cacheWrite1hTokens = 0;
    QuotaUsageCharges charges;  // what the tool charged for the response, counted like its tokens
    bool operator==(const QuotaUsageEntry&) const = default;
};
BOOST_DESCRIBE_STRUCT(QuotaUsageEntry, (),
                      (providerID, sessionID, dedupKey, timestamp, model, tokens, cacheWrite1hTokens, charges))

// One message of a session as a log shows it; the same message in several files has one
// messageKey. `text` is present only as far as the capture mode keeps text.
struct QuotaImportedMessage {
    std::string sessionID;
    std::string messageKey;
    std::optional<Date> timestamp;
    QuotaSessionRole role = QuotaSessionRole::user;
    std::optional<std::string> model;
    std::optional<QuotaSessionTokenUsage> tokenUsage;  // a response's counts, as counted
    bool isPrompt = false;  // typed by the user, as against tool results and the tool's own lines
    std::optional<std::string> text;
    bool operator==(const QuotaImportedMessage&) const = default;
};
BOOST_DESCRIBE_STRUCT(QuotaImportedMessage, (),
                      (sessionID, messageKey, timestamp, role, model, tokenUsage, isPrompt, text))

// One rate-limit window as a tool's log reported it.
struct QuotaObservedRateWindow {
    double usedPercent = 0;
    std::optional<std::int64_t> windowMinutes;
    std::optional<Date> resetsAt;
    bool operator==(const QuotaObservedRateWindow&) const = default;
};
BOOST_DESCRIBE_STRUCT(QuotaObservedRateWindow, (), (usedPercent, windowMinutes, resetsAt))

// The rate limits of one provider at one moment (Codex: the 5-hour and the weekly window).
struct QuotaObservedRateLimits {
    std::string providerID;
    Date observedAt;
    std::optional<QuotaObservedRateWindow> primary;
    std::optional<QuotaObservedRateWindow> secondary;
    bool operator==(const QuotaObservedRateLimits&) const = default;
};
BOOST_DESCRIBE_STRUCT(QuotaObservedRateLimits, (), (providerID, observedAt, primary, secondary))

}  // namespace gaugepoint
