#include "gaugepoint/importers/SessionPublisher.hpp"

#include <algorithm>
#include <future>

#include "gaugepoint/importers/CodingToolLogs.hpp"
#include "gaugepoint/platform/Text.hpp"

namespace gaugepoint {
namespace {

constexpr std::size_t kBatch = 1000;  // sessions per catalogue transaction
// When the whole catalogue is written: fewer, larger commits (each may copy the log back into
// the file), and nobody waits for a batch's marks.
constexpr std::size_t kWholeBatch = 10000;
constexpr std::size_t kTitleLength = 80;  // characters

QuotaSessionProviderIdentity providerIdentity(std::string_view providerID) {
    for (const auto& tool : codingTools()) {
        if (tool->provider().id == providerID) return tool->provider();
    }
    return {std::string(providerID), std::string(providerID)};
}

// The first `count` characters (code points) of `text`.
std::string firstCharacters(std::string_view text, std::size_t count) {
    std::size_t end = 0;
    for (std::size_t n = 0; end < text.size() && n < count; ++n) {
        ++end;
        while (end < text.size() && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) ++end;
    }
    return std::string(text.substr(0, end));
}

// The first line of the first kept prompt that is the person's own words (tools put their own
// notes in angle brackets), else the project folder, else the provider's name.
std::string titleOf(const std::vector<QuotaImportedMessage>& messages, const std::optional<std::string>& projectPath,
                    const QuotaSessionProviderIdentity& provider) {
    for (const auto& m : messages) {
        if (!m.isPrompt || !m.text) continue;
        const std::string_view text = trimmed(*m.text);
        const std::string line{trimmed(singleLine(text.substr(0, text.find('\n'))))};
        if (line.empty() || line.front() == '<') continue;
        return firstCharacters(line, kTitleLength);
    }
    if (projectPath) {
        const auto folder = std::filesystem::path(*projectPath).filename().string();
        if (!folder.empty()) return folder;
    }
    return provider.displayName + " session";
}

QuotaSessionMessage catalogMessage(const QuotaImportedMessage& m) {
    QuotaSessionMessage message;
    message.id = m.messageKey;
    message.role = m.role;
    message.text = m.text.value_or("");
    message.timestamp = m.timestamp;
    if (m.model) message.model = QuotaSessionModelIdentity{*m.model, *m.model};
    message.tokenUsage = m.tokenUsage;
    return message;
}

struct Published {
    QuotaSessionDescriptor descriptor;
    std::vector<QuotaSessionMessage> messages;
};

// Under metadataOnly the store keeps a session's prompts (no text) but not its other messages:
// the descriptor then counts the prompts and the counted responses, and no message is published.
Published build(const QuotaUsageEntryStore::SessionKey& key, const QuotaUsageEntryStore::SessionContent& content,
                const std::string& sourceID, const std::string& sourceName, QuotaSessionContentCaptureMode capture) {
    const bool metadataOnly = capture == QuotaSessionContentCaptureMode::metadataOnly;
    Published out;
    auto& d = out.descriptor;
    d.id = key.sessionID;
    d.sourceID = sourceID;
    d.sourceName = sourceName;
    d.provider = providerIdentity(key.providerID);
    d.projectPath = content.projectPath;
    d.title = content.title && !content.title->empty() ? *content.title : titleOf(content.messages, d.projectPath, d.provider);
    d.startedAt = content.usage.first;
    d.endedAt = content.usage.last;
    if (content.firstMessage && (!d.startedAt || *content.firstMessage < *d.startedAt)) d.startedAt = content.firstMessage;
    if (content.lastMessage && (!d.endedAt || *content.lastMessage > *d.endedAt)) d.endedAt = content.lastMessage;
    d.promptCount = content.prompts;
    d.messageCount = metadataOnly ? content.prompts : std::int64_t(content.messages.size());
    for (const auto& model : content.usage.models) {
        d.tokenUsage += model.tokenUsage;
        if (metadataOnly) d.messageCount += model.messageCount;
    }
    d.topModels = content.usage.models;
    if (metadataOnly) return out;
    out.messages.reserve(content.messages.size());
    for (const auto& m : content.messages) out.messages.push_back(catalogMessage(m));
    return out;
}

bool isEmpty(const QuotaUsageEntryStore::SessionContent& content) {
    return content.usage.models.empty() && content.prompts == 0 && content.messages.empty() && !content.firstMessage;
}

// What one batch of sessions changes in the catalogue.
struct CatalogChanges {
    std::vector<QuotaSessionDescriptor> changed;
    std::vector<std::pair<std::string, std::vector<QuotaSessionMessage>>> messages;
    std::vector<QuotaSessionDescriptorKey> gone;
};

class Publisher {
public:
    Publisher(const QuotaSessionCatalogStore& catalog, QuotaSessionContentCaptureMode capture)
        : catalog_(catalog),
          capture_(capture),
          sourceID_(catalog.configuration().localSourceID()),
          sourceName_(catalog.configuration().localSourceName()) {}

    // Compares a batch of sessions with what the catalogue holds and counts what is new.
    CatalogChanges compare(const std::vector<QuotaUsageEntryStore::SessionKey>& batch,
                           const std::vector<const QuotaUsageEntryStore::SessionContent*>& contents) {
        std::vector<std::string> ids;
        for (const auto& key : batch) ids.push_back(key.sessionID);
        const auto stored = catalog_.loadDescriptorsByID(sourceID_, ids);
        CatalogChanges out;
        for (std::size_t i = 0; i < batch.size(); ++i) {
            // Nothing of the session is left (its logs were cut short or replaced): the catalogue
            // keeps no empty session for it, as a scan of the logs as they are would not make one.
            if (isEmpty(*contents[i])) {
                if (stored[i]) out.gone.push_back({sourceID_, batch[i].sessionID});
                continue;
            }
            auto published = build(batch[i], *contents[i], sourceID_, sourceName_, capture_);
            const bool differs = !stored[i] || !(*stored[i] == published.descriptor);
            if (!stored[i]) {
                ++tally.newSessions;
            } else if (differs) {
                ++tally.updatedSessions;
            }
            if (differs) out.changed.push_back(std::move(published.descriptor));
            // Under metadataOnly a session new to the catalogue has no messages to replace.
            if (capture_ != QuotaSessionContentCaptureMode::metadataOnly || stored[i]) {
                out.messages.emplace_back(batch[i].sessionID, std::move(published.messages));
            }
        }
        return out;
    }

    void write(const CatalogChanges& changes) const {
        if (!changes.changed.empty()) catalog_.upsertBatch(changes.changed, sourceID_);
        if (!changes.messages.empty()) catalog_.replaceMessagesForSessions(sourceID_, changes.messages);
        if (!changes.gone.empty()) {
            std::vector<std::string> ids;
            for (const auto& key : changes.gone) ids.push_back(key.id);
            catalog_.removeMessagesForSessions(sourceID_, ids);
            catalog_.removeDescriptors(changes.gone);
        }
    }

    PublishTally tally;

private:
    const QuotaSessionCatalogStore& catalog_;
    QuotaSessionContentCaptureMode capture_;
    std::string sourceID_, sourceName_;
};

}  // namespace

PublishTally publishDirtySessions(const QuotaUsageEntryStore& usage, const QuotaSessionCatalogStore& catalog,
                                  QuotaSessionContentCaptureMode capture) {
    Publisher publisher{catalog, capture};
    const auto dirty = usage.dirtySessions();
    // A batch is written to the catalogue on a thread of its own while the next one is read from
    // the registry (another file, another connection). A batch's marks are cleared only once its
    // writes are in, so a publish stopped in between is finished by the next.
    std::future<void> writing;
    std::vector<QuotaUsageEntryStore::SessionKey> writingBatch;
    const auto finishWriting = [&] {
        if (!writing.valid()) return;
        writing.get();
        usage.clearDirty(writingBatch);
    };
    for (std::size_t first = 0; first < dirty.size(); first += kBatch) {
        std::vector batch(dirty.begin() + long(first), dirty.begin() + long(std::min(first + kBatch, dirty.size())));
        const auto contents = usage.sessionContents(batch, capture != QuotaSessionContentCaptureMode::metadataOnly);
        std::vector<const QuotaUsageEntryStore::SessionContent*> pointers;
        for (const auto& content : contents) pointers.push_back(&content);
        auto changes = publisher.compare(batch, pointers);
        finishWriting();
        writingBatch = std::move(batch);
        writing = std::async(std::launch::async, [&publisher, changes = std::move(changes)] { publisher.write(changes); });
    }
    finishWriting();
    return publisher.tally;
}

PublishTally publishEverySession(const QuotaUsageEntryStore& usage, const QuotaSessionCatalogStore& catalog,
                                 QuotaSessionContentCaptureMode capture,
                                 const std::function<void(const QuarterSumsWait&)>& alongside) {
    if (capture != QuotaSessionContentCaptureMode::metadataOnly) {
        // Messages of every session at once would not fit in memory: the marked way, in batches.
        usage.markEachSessionBehind();
        if (alongside) alongside([] { return nullptr; });
        return publishDirtySessions(usage, catalog, capture);
    }
    const auto dirty = usage.dirtySessions();
    Publisher publisher{catalog, capture};
    UsageQuarterSums quarters;
    std::promise<const UsageQuarterSums*> summed;  // `quarters` once read, or none when the read failed
    const auto sums = summed.get_future().share();
    // Reading every session (a sort of all the usage) and writing the catalogue happen on a
    // thread of their own, with a connection of their own, beside `alongside`.
    auto writing = std::async(std::launch::async, [&] {
        std::map<QuotaUsageEntryStore::SessionKey, QuotaUsageEntryStore::SessionContent> contents;
        try {
            contents = usage.everySessionContent(&quarters);
        } catch (...) {
            summed.set_value(nullptr);
            throw;
        }
        summed.set_value(&quarters);
        for (const auto& key : dirty) contents.try_emplace(key);  // marked, with nothing left: gone
        std::vector<QuotaUsageEntryStore::SessionKey> batch;
        std::vector<const QuotaUsageEntryStore::SessionContent*> pointers;
        for (auto it = contents.begin(); it != contents.end();) {
            batch.push_back(it->first);
            pointers.push_back(&it->second);
            if (++it == contents.end() || batch.size() == kWholeBatch) {
                publisher.write(publisher.compare(batch, pointers));
                batch.clear();
                pointers.clear();
            }
        }
        catalog.walCheckpoint();  // here, beside the registry's work, rather than when the process closes it
    });
    // Should it throw, the writing is waited for by its future.
    if (alongside) alongside([&] { return sums.get(); });
    writing.get();
    usage.clearEveryMark();  // the scan lock keeps any other scan from marking meanwhile
    return publisher.tally;
}

}  // namespace gaugepoint
