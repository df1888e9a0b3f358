// The folder watcher of the live view: appends, new files, and folders made after the start.

#include <gtest/gtest.h>

#include <fstream>
#include <thread>

#include "TestSupport.hpp"
#include "gaugepoint/platform/DirectoryWatcher.hpp"

namespace gaugepoint {
namespace {

using gaugepoint::testing::ScratchDirectory;

void append(const std::filesystem::path& file, const std::string& line) {
    std::ofstream out(file, std::ios::app);
    out << line << "\n";
}

TEST(DirectoryWatcher, SeesAppendsNewFilesAndFoldersMadeLater) {
    ScratchDirectory scratch;
    std::filesystem::create_directories(scratch / "logs/projects/a");
    append(scratch / "logs/projects/a/one.jsonl", "{}");
    DirectoryWatcher watcher{{scratch / "logs", scratch / "missing"}};
    if (!watcher.live()) GTEST_SKIP() << "inotify is unavailable here: the watcher polls on its timer";
    EXPECT_EQ(watcher.watchedFolders(), 3u);
    EXPECT_FALSE(watcher.changed());

    append(scratch / "logs/projects/a/one.jsonl", "{}");
    EXPECT_TRUE(watcher.changed());
    EXPECT_FALSE(watcher.changed()) << "events are consumed";

    // A folder made now is watched from its creation on.
    std::filesystem::create_directories(scratch / "logs/projects/b/deeper");
    EXPECT_TRUE(watcher.changed());
    append(scratch / "logs/projects/b/deeper/two.jsonl", "{}");
    EXPECT_TRUE(watcher.changed());
    EXPECT_GE(watcher.watchedFolders(), 5u);

    // Outside the roots nothing counts.
    append(scratch / "elsewhere.jsonl", "{}");
    EXPECT_FALSE(watcher.changed());
}

TEST(DirectoryWatcher, AdoptsARootThatAppearsLater) {
    ScratchDirectory scratch;
    DirectoryWatcher watcher{{scratch / "logs"}};
    if (!watcher.live()) GTEST_SKIP() << "inotify is unavailable here: the watcher polls on its timer";
    EXPECT_EQ(watcher.watchedFolders(), 0u);
    EXPECT_FALSE(watcher.adoptNewRoots());
    std::filesystem::create_directories(scratch / "logs/sessions");
    EXPECT_TRUE(watcher.adoptNewRoots());
    EXPECT_EQ(watcher.watchedFolders(), 2u);
    append(scratch / "logs/sessions/new.jsonl", "{}");
    EXPECT_TRUE(watcher.changed());
}

}  // namespace
}  // namespace gaugepoint
