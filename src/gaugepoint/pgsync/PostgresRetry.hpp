#pragma once

// PostgreSQL failures under the one retry rule of the sync (QuotaCloudKitRetryPolicy): each
// SQLSTATE counts as the cloud error code of the same nature, and that code decides.
//   08...  connection could not be made or was lost      4  network failure        retried
//   08001  could not establish, 08004 rejected            3  network unavailable    retried
//   40001  serialization failure, 40P01 deadlock         14  server record changed  retried
//   55P03  lock not available                            23  zone busy              retried
//   53...  insufficient resources (too many connections)  6  service unavailable    retried
//   57P01, 57P02, 57P03  shut down, crashed, starting     6  service unavailable    retried
//   57014  statement cancelled (timeout)                 34  server response lost   retried
//   28...  authentication, 42501 no privilege            10  permission failure     not retried
//   anything else (a bad statement, bad data)             1  internal error         not retried

#include <cstdint>
#include <functional>

#include "gaugepoint/pgsync/PostgresConnection.hpp"
#include "gaugepoint/sync/QuotaCloudKitRetryPolicy.hpp"
#include "gaugepoint/sync/QuotaSyncConstants.hpp"

namespace gaugepoint::PostgresRetry {

std::int64_t cloudErrorCode(const PostgresError& error);

struct Settings {
    std::int64_t maxRetries = QuotaSyncConstants::NotifyBackfill::maxRetryAttempts;
    std::uint64_t baseMillis = QuotaSyncConstants::NotifyBackfill::baseBackoffMillis;
    std::uint64_t capMillis = QuotaSyncConstants::NotifyBackfill::maxBackoffMillis;
    std::function<void(std::uint64_t millis)> sleep;  // empty: the thread sleeps
};

void sleepFor(const Settings& settings, std::uint64_t millis);

// Runs `work` until it succeeds, a failure is not retryable, or maxRetries retries have failed
// (then the last failure is thrown). `beforeRetry(error)` runs before each retry, to reconnect.
template <class Work, class BeforeRetry>
auto run(const Settings& settings, Work&& work, BeforeRetry&& beforeRetry) {
    for (std::int64_t attempt = 1;; ++attempt) {
        try {
            return work();
        } catch (const PostgresError& error) {
            const std::int64_t code = cloudErrorCode(error);
            if (!QuotaCloudKitRetryPolicy::shouldRetry(code) || attempt > settings.maxRetries) throw;
            sleepFor(settings, QuotaCloudKitRetryPolicy::retryDelayMillis({code, std::nullopt}, attempt,
                                                                          settings.baseMillis, settings.capMillis));
            beforeRetry(error);
        }
    }
}

}  // namespace gaugepoint::PostgresRetry
