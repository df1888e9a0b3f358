#pragma once

// The writing side of a scan: pieces into the usage entries and the registry, in batches.

#include "gaugepoint/importers/ScanPieces.hpp"

namespace gaugepoint::scanning {

// Writes every piece `queue` gives until the readers have finished; counts tokens, skipped lines
// and problems into `written`. Returns whether the import started into empty usage entries (then
// their indexes by file and session were left out, to be built once after). Throws the stores'
// errors; the batch being written then rolls back whole.
bool writePieces(const QuotaSessionFileRegistry& registry, PieceQueue& queue, QuotaScanSummary& written);

}  // namespace gaugepoint::scanning
