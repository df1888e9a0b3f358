#pragma once

// Keeps the official Claude readings that Claude Code hands its status-line command: the
// five-hour and weekly windows become Claude's windows in this machine's source record (the
// reading's time is when it was received), and a reading whose figures changed is appended to
// the history. Every Claude Code window of an account sends the same figures, several at a
// time: the record is read and written in one transaction, so concurrent calls lose nothing.

#include <optional>

#include "gaugepoint/model/QuotaSnapshot.hpp"
#include "gaugepoint/platform/QuotaSyncConfiguration.hpp"
#include "gaugepoint/quota/ClaudeStatusLineInput.hpp"

namespace gaugepoint::ClaudeStatusLineRecorder {

struct Result {
    QuotaSnapshot snapshot;        // this machine's record as written
    bool historyAppended = false;  // the figures changed
};

// `claude` with the windows of `input` (a window the input lacks keeps its earlier official
// reading), read at `receivedAt`.
void applyReading(ProviderQuota& claude, const ClaudeStatusLineInput& input, Date receivedAt);

// Records the rate limits of `input` (none: nothing is written and none is returned). Throws
// the stores' errors, also when a lock is not granted within the busy timeout: the caller
// drops such a reading, and the next one, a moment later, carries the same figures.
std::optional<Result> record(const QuotaSyncConfiguration& configuration, const ClaudeStatusLineInput& input,
                             Date receivedAt);

}  // namespace gaugepoint::ClaudeStatusLineRecorder
