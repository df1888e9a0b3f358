#include "gaugepoint/importers/ImportTuning.hpp"

#include "gaugepoint/stores/SQLiteConnectionHolder.hpp"

namespace gaugepoint::scanning {

ImportTuning::ImportTuning(const QuotaSessionFileRegistry& registry, const QuotaSessionCatalogStore& catalog)
    : registry_(registry), catalog_(catalog) {
    registry_.setMemoryMapLimit(0);
    catalog_.setMemoryMapLimit(0);
    catalog_.setAutoCheckpoint(0);
    registry_.withConnection([](sqlite::Connection& connection) {
        connection.exec("PRAGMA cache_size=-65536; PRAGMA temp_store=MEMORY; PRAGMA wal_autocheckpoint=0",
                        "set import cache");
    });
}

void ImportTuning::afterWriting() const {
    try {
        registry_.withConnection([](sqlite::Connection& connection) {
            connection.exec("PRAGMA cache_size=-2000", "reset import cache");
        });
    } catch (const Error&) {
        // A larger cache only costs memory.
    }
}

ImportTuning::~ImportTuning() {
    try {
        registry_.setMemoryMapLimit(SQLiteConnectionHolder::memoryMapBytes);
        catalog_.setMemoryMapLimit(SQLiteConnectionHolder::memoryMapBytes);
        catalog_.setAutoCheckpoint(1000);
        registry_.withConnection([](sqlite::Connection& connection) {
            connection.exec("PRAGMA cache_size=-2000; PRAGMA temp_store=DEFAULT; PRAGMA wal_autocheckpoint=1000",
                            "reset import cache");
        });
    } catch (const Error&) {
        // The connections work as they are too; only speed and memory are at stake.
    }
}

}  // namespace gaugepoint::scanning
