#pragma once

// How much of a coding session is captured, stored and synchronised, and the bucket sizes of
// aggregates. JSON writes the enumerator names.

#include <boost/describe/enum.hpp>

namespace gaugepoint {

// How much of a session is synchronised between the user's machines.
enum class QuotaSessionSyncMode { lite, promptsOnly, promptsAndAnswers, fullTranscript };
BOOST_DESCRIBE_ENUM(QuotaSessionSyncMode, lite, promptsOnly, promptsAndAnswers, fullTranscript)

// How much an importer keeps of a session file: metadataOnly keeps roles, times, models and
// token counts and never any text.
enum class QuotaSessionContentCaptureMode { metadataOnly, promptsOnly, promptsAndAnswers, fullTranscript };
BOOST_DESCRIBE_ENUM(QuotaSessionContentCaptureMode, metadataOnly, promptsOnly, promptsAndAnswers, fullTranscript)

enum class QuotaSessionPayloadStorageMode { full, deltaAppend, descriptorOnly };
BOOST_DESCRIBE_ENUM(QuotaSessionPayloadStorageMode, full, deltaAppend, descriptorOnly)

enum class QuotaSessionGranularity { day, week, month };
BOOST_DESCRIBE_ENUM(QuotaSessionGranularity, day, week, month)

}  // namespace gaugepoint
