#include "gaugepoint/sync/QuotaSameAccountSyncV2.hpp"

#include "gaugepoint/platform/Error.hpp"

namespace gaugepoint::QuotaSameAccountSyncV2 {
namespace {

// The three keys of one store.
struct Keys {
    std::string_view epoch;
    std::string_view schemaVersion;
    std::string_view resetAt;
};
constexpr Keys kLocal{Key::localSyncEpoch, Key::localSchemaVersion, Key::localResetAt};
constexpr Keys kCloud{Key::cloudSyncEpoch, Key::cloudSchemaVersion, Key::cloudResetAt};

std::optional<std::string> epochText(const std::optional<boost::json::value>& stored) {
    if (!stored || !stored->is_string() || stored->get_string().empty()) return std::nullopt;
    return std::string(stored->get_string());
}

std::optional<std::int64_t> integer(const std::optional<boost::json::value>& stored) {
    if (!stored) return std::nullopt;
    try {
        return json::readInteger(*stored, {});
    } catch (const json::DecodingError&) {
        return std::nullopt;
    }
}

// Reset times are written as seconds since 1970, which round-trip exactly; an ISO 8601 text,
// as a person might write by hand, is read too.
std::optional<Date> date(const std::optional<boost::json::value>& stored) {
    if (!stored) return std::nullopt;
    if (stored->is_string()) return parseISO8601(stored->get_string());
    try {
        return dateFromSeconds(json::readDouble(*stored, {}));
    } catch (const json::DecodingError&) {
        return std::nullopt;
    }
}

// The state stored in one store; `read` is the store's value(key).
template <class Read>
std::optional<EpochState> readState(const Keys& keys, Read read, std::optional<std::int64_t> defaultSchema,
                                    std::optional<Date> defaultResetAt) {
    auto epoch = epochText(read(keys.epoch));
    if (!epoch) return std::nullopt;
    auto schema = integer(read(keys.schemaVersion));
    if (!schema) schema = defaultSchema;
    auto resetAt = date(read(keys.resetAt));
    if (!resetAt) resetAt = defaultResetAt;
    if (!schema || !resetAt) return std::nullopt;
    return EpochState{std::move(*epoch), *schema, *resetAt, std::nullopt, std::nullopt};
}

// Writes the state's three keys, the epoch last, so that a reader in another process that sees
// the new epoch also sees its schema version and reset time. False when the store refused.
template <class Store>
bool writeState(Store& store, const Keys& keys, const EpochState& state) {
    try {
        store.setValue(keys.schemaVersion, boost::json::value(state.schemaVersion));
        store.setValue(keys.resetAt, boost::json::value(secondsSince1970(state.resetAt)));
        store.setValue(keys.epoch, boost::json::value(state.epoch));
        return true;
    } catch (const Error&) {
        return false;
    }
}

}  // namespace

std::string makeEpoch(Date now, const Uuid& uuid) {
    return "v2-" + std::to_string(millisecondsSince1970(now)) + "-" + uuid.lowercaseText();
}

std::optional<EpochState> currentEpoch(const UserDefaults& defaults) {
    return readState(kLocal, [&](std::string_view key) { return defaults.value(key); }, std::nullopt, std::nullopt);
}

std::optional<std::string> cloudEpoch(const UbiquitousKeyValueStore& cloud) {
    return epochText(cloud.value(Key::cloudSyncEpoch));
}

EpochState markDestructiveReset(UserDefaults& defaults, UbiquitousKeyValueStore* cloud, Date now, const Uuid& uuid) {
    EpochState state{makeEpoch(now, uuid), schemaVersion, now, std::nullopt, std::nullopt};
    state.localDefaultsSynchronized = writeState(defaults, kLocal, state);
    if (cloud) state.cloudMirrorSynchronized = writeState(*cloud, kCloud, state);
    return state;
}

EpochState ensureBootstrapped(UserDefaults& defaults, UbiquitousKeyValueStore* cloud, Date now, const Uuid& uuid) {
    std::optional<EpochState> local = currentEpoch(defaults);
    // A machine that wrote only the epoch to the cloud still decides it; the missing parts are
    // taken as this schema and this moment.
    std::optional<EpochState> shared;
    if (cloud) {
        shared = readState(kCloud, [&](std::string_view key) { return cloud->value(key); }, schemaVersion, now);
    }
    if (shared) {
        shared->cloudMirrorSynchronized = true;
        if (local && local->epoch == shared->epoch) {
            local->localDefaultsSynchronized = true;
            local->cloudMirrorSynchronized = true;
            return *local;
        }
        shared->localDefaultsSynchronized = writeState(defaults, kLocal, *shared);
        return *shared;
    }
    if (local) {
        local->localDefaultsSynchronized = true;
        if (cloud) local->cloudMirrorSynchronized = writeState(*cloud, kCloud, *local);
        return *local;
    }
    return markDestructiveReset(defaults, cloud, now, uuid);
}

}  // namespace gaugepoint::QuotaSameAccountSyncV2
