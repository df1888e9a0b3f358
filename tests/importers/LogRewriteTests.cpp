// Logs that change in ways other than appends, and stores that went missing: the stores must end
// as a clean scan of the logs as they are then would leave them.

#include <gtest/gtest.h>

#include <chrono>
#include <fstream>

#include "ImporterTestSupport.hpp"
#include "gaugepoint/stores/QuotaSessionCatalogStore.hpp"

namespace gaugepoint {
namespace {

using testing::LogTree;
namespace fs = std::filesystem;

const fs::path kClaude = "projects/-home-dev-projects-web-client/f5c26084-a50d-4915-bc2b-712888346767.jsonl";
const fs::path kClaudeLonger = "projects/-home-dev-src-api-server/0992eb9e-6652-4513-a72c-3e3af4e31bdc.jsonl";
const fs::path kCodex = "sessions/2026/10/18/rollout-2026-10-18T12-00-00-6ffb3afb-077e-4c2a-8ab8-23da6df3c4d5.jsonl";
const fs::path kCodexLonger = "sessions/2026/11/05/rollout-2026-11-05T10-30-00-07dfecf1-5ac6-4033-bfb9-ffe02e54ea17.jsonl";
const fs::path kGemini = "tmp/0a135305f7a07ab9ea7dbdeeadc4afbee2fbc8a3a18e89a7c13d6f7a8354e999/chats/session-2026-11-02T04-50-dafd041c.json";
const fs::path kGeminiLonger = "tmp/7f0a7a84c4d9ebd6c34c299523f4ab8acaa2458e8b85e5aaa938985ee5232289/chats/session-2026-11-05T11-04-03449aae.json";

// Writes `content` over the file in place: the same inode, as an editor or a tool's compaction.
void rewriteInPlace(const fs::path& file, const std::string& content) {
    std::ofstream(file, std::ios::binary | std::ios::trunc) << content;
}

void expectSameStores(const LogTree& tree, const LogTree& clean) {
    EXPECT_EQ(tree.usage().countedEntries(), clean.usage().countedEntries());
    EXPECT_EQ(QuotaSessionCatalogStore{tree.configuration}.loadAllDescriptors(),
              QuotaSessionCatalogStore{clean.configuration}.loadAllDescriptors());
}

// Each tool's file kinds rewritten in place with longer content, cut to nothing, or replaced by
// an empty file: the old content's usage goes, the new content is read from its start, and no
// session is left behind empty.
TEST(LogRewrite, RewrittenEmptiedAndReplacedLogsEndAsACleanScanOfThem) {
    const LogTree tree, clean;
    tree.scan();
    const auto change = [](const LogTree& t) {
        for (const auto& [tool, file, longer] : {std::tuple{"claude", kClaude, kClaudeLonger}, std::tuple{"codex", kCodex, kCodexLonger},
                                                 std::tuple{"gemini", kGemini, kGeminiLonger}}) {
            rewriteInPlace(t.home(tool) / file, testing::readFile(t.home(tool) / longer));
        }
        rewriteInPlace(t.home("claude") / "projects/-home-dev-notes/2d139d10-5838-44e8-8895-f0cc1ba2f736.jsonl", "");
        const auto codex = t.home("codex") / "sessions/2026/11/02/rollout-2026-11-02T05-49-01-dedf7774-889e-4d74-92b7-3a07311dd76e.jsonl";
        testing::writeFile(codex.string() + ".new", "");
        fs::rename(codex.string() + ".new", codex);
    };
    change(tree);
    change(clean);
    EXPECT_EQ(tree.scan().linesSkipped, 0);
    clean.scan();
    expectSameStores(tree, clean);
    EXPECT_FALSE(QuotaSessionCatalogStore{tree.configuration}.loadDescriptor("test-machine", "2d139d10-5838-44e8-8895-f0cc1ba2f736"));
}

// A complete last line without its newline counts once the file has been quiet for a minute; its
// newline written later adds nothing, and a line that grows is read again, never counted twice.
TEST(LogRewrite, ACompleteLastLineWithoutItsNewlineCountsOnceQuiet) {
    using Edit = std::function<std::string(const std::string&)>;
    const LogTree tree;
    // Each file cut after its last line with usage (Codex: a token count), without the newline.
    std::vector<std::pair<fs::path, std::string>> files;
    for (const auto& [tool, file, marker] : {std::tuple{"claude", kClaudeLonger, "\"usage\""}, std::tuple{"codex", kCodexLonger, "token_count"}}) {
        const std::string content = testing::readFile(tree.home(tool) / file);
        files.emplace_back(fs::path(tool) / file, content.substr(0, content.find('\n', content.rfind(marker))));
    }
    const auto write = [&](const LogTree& t, const Edit& edit, bool quiet) {
        for (const auto& [file, content] : files) {
            rewriteInPlace(t.dir / "homes" / file, edit(content));
            if (quiet) fs::last_write_time(t.dir / "homes" / file, fs::file_time_type::clock::now() - std::chrono::minutes(2));
        }
    };
    const Edit same = [](const std::string& c) { return c; };
    const Edit cut = [](const std::string& c) { return c.substr(0, c.rfind('\n') + 1); };
    const Edit newline = [](const std::string& c) { return c + "\n"; };
    const Edit grown = [](const std::string& c) {  // a field written first, no newline yet
        const std::size_t start = c.rfind('\n') + 1;
        return c.substr(0, start) + "{\"written\":\"later\"," + c.substr(start + 1);
    };
    struct Step {
        Edit edit;
        bool quiet;
        Edit cleanScanOf;
    };
    tree.scan();  // the sample's own bad lines counted once
    for (const auto& [edit, quiet, reference] : {Step{same, false, cut}, Step{same, true, newline}, Step{newline, true, newline},
                                                 Step{grown, true, grown}}) {
        write(tree, edit, quiet);
        EXPECT_EQ(tree.scan().linesSkipped, 0);
        const LogTree clean;
        write(clean, reference, true);
        clean.scan();
        expectSameStores(tree, clean);
    }
}

// An emptied catalogue and deleted checkpoints are written again from what the stores hold,
// even when no log changed or the logs are gone. (A deleted catalogue file: ScanCommand tests, as
// this process keeps its connection to the file.)
TEST(LogRewrite, AnEmptiedCatalogueIsRebuiltFromTheStoredUsage) {
    const LogTree tree;
    tree.scan();
    const QuotaSessionCatalogStore catalog{tree.configuration};
    const auto descriptors = catalog.loadAllDescriptors();
    ASSERT_EQ(descriptors.size(), 32u);
    const auto checkpoints = *tree.configuration.appGroupDirectory / "quota-session-import-checkpoints.json";

    catalog.clearDescriptors();
    fs::remove(checkpoints);
    EXPECT_EQ(tree.scan().newSessions, 32);
    EXPECT_EQ(catalog.loadAllDescriptors(), descriptors);
    EXPECT_TRUE(fs::exists(checkpoints));

    fs::remove_all(tree.dir / "homes");
    catalog.clearDescriptors();
    EXPECT_EQ(tree.scan().newSessions, 32);
    EXPECT_EQ(catalog.loadAllDescriptors(), descriptors);
}

}  // namespace
}  // namespace gaugepoint
