#pragma once

// Sample values for the same-account sync tests.

#include "TestSupport.hpp"
#include "gaugepoint/model/QuotaNotifyEnvelope.hpp"
#include "gaugepoint/model/QuotaSessionTranscript.hpp"
#include "gaugepoint/model/QuotaSourceSnapshotRecord.hpp"

namespace gaugepoint::testing {

inline QuotaSnapshot sampleSnapshot() {
    QuotaSnapshot snapshot;
    snapshot.generatedAt = at("2026-11-21T09:00:00Z");
    snapshot.source = QuotaSnapshotSource{"mac-studio", "Studio", "studio.local", "macOS"};
    snapshot.providers.push_back(ProviderQuota{"claude", "Claude", {}, {}, {}, 12.5, {}, QuotaProviderStrategy::creditsOnly, {}, {}});
    snapshot.providers.push_back(ProviderQuota{"codex", "Codex", {}, {}, {}, 3.0, {}, QuotaProviderStrategy::creditsOnly, {}, {}});
    return snapshot;
}

inline QuotaSourceSnapshotRecord sampleSourceRecord() {
    return {"mac-studio", "mac-studio", "Studio", "studio.local", "macOS", std::nullopt, QuotaSourceSyncChannel::kvs,
            sampleSnapshot(), at("2026-11-21T09:00:05Z")};
}

inline QuotaSessionDescriptor sampleDescriptor() {
    QuotaSessionDescriptor d;
    d.id = "ccd55d3f-40dc-4663-a6b9-e07bb0a68984";
    d.sourceID = "workstation";
    d.sourceName = "Workstation";
    d.provider = {"claude", "Claude"};
    d.projectPath = "/home/dev/src/api-server";
    d.title = "Add retry with back-off";
    d.startedAt = at("2026-11-20T09:12:00Z");
    d.endedAt = at("2026-11-20T10:47:31Z");
    d.messageCount = 84;
    d.promptCount = 9;
    d.tokenUsage = {1894, 41230, 3810442, 212906, 1.25};
    d.topModels = {{"claude-sonnet-4-5", "Claude Sonnet 4.5", 1, 70, {1650, 36120, 0, 0, std::nullopt}}};
    d.syncMode = QuotaSessionSyncMode::fullTranscript;
    return d;
}

// A bundle of `messages` messages, alternately the user's and the assistant's; a few hundred
// make a payload that compresses.
inline QuotaSessionTranscriptBundle sampleBundle(int messages) {
    QuotaSessionTranscriptBundle b;
    b.id = "ccd55d3f-40dc-4663-a6b9-e07bb0a68984";
    b.sourceID = "workstation";
    b.sourceName = "Workstation";
    b.provider = {"codex", "Codex"};
    b.sessionTitle = "Port the importer";
    b.syncMode = QuotaSessionSyncMode::promptsAndAnswers;
    b.exportedAt = at("2026-11-20T11:00:00Z");
    for (int i = 0; i < messages; ++i) {
        QuotaSessionMessage m;
        m.id = "m" + std::to_string(i);
        m.role = i % 2 == 0 ? QuotaSessionRole::user : QuotaSessionRole::assistant;
        m.text = "message " + std::to_string(i) + " about the retry loop of the upload client";
        b.messages.push_back(m);
    }
    return b;
}

inline QuotaNotifyEnvelope sampleEnvelope() {
    QuotaNotifyEnvelope e;
    e.envelopeID = "env-42";
    e.createdAt = at("2026-11-21T09:30:00.25Z");
    e.updatedAt = at("2026-11-21T09:31:00Z");
    e.targetFamily = "all";
    e.targetDeviceKey = "phone-1";
    e.title = "Claude 5h window at 10%";
    e.body = "Resets in 2h";
    e.sourceID = "mac-studio";
    e.deviceName = "Studio";
    e.providerID = "claude";
    e.providerName = "Claude";
    e.category = "quota";
    e.level = "warning";
    return e;
}

}  // namespace gaugepoint::testing
