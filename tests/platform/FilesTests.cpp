#include <gtest/gtest.h>

#include <sys/stat.h>

#include <thread>

#include "TestSupport.hpp"
#include "gaugepoint/platform/Error.hpp"
#include "gaugepoint/platform/Files.hpp"

namespace gaugepoint {
namespace {

using testing::ScratchDirectory;

TEST(AtomicWrite, ReplacesTheFileAndLeavesNoTemporaryBehind) {
    ScratchDirectory dir;
    const auto path = dir / "out.bin";
    writeFileAtomically(path, "first");
    writeFileAtomically(path, std::string("sec\0ond", 7));
    EXPECT_EQ(testing::readFile(path), std::string("sec\0ond", 7));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 1);
}

TEST(AtomicWrite, FailureNamesTheFileAndKeepsTheOldContents) {
    ScratchDirectory dir;
    try {
        writeFileAtomically(dir / "missing-dir" / "out.bin", "x");
        FAIL() << "expected an error";
    } catch (const Error& e) {
        EXPECT_NE(std::string(e.what()).find("missing-dir/out.bin"), std::string::npos) << e.what();
    }
    // Renaming over a directory fails after the temporary was written: it must be cleaned up.
    std::filesystem::create_directory(dir / "target");
    testing::writeFile(dir / "target" / "keep", "x");
    EXPECT_THROW(writeFileAtomically(dir / "target", "new"), Error);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 1);
}

TEST(FileReading, NoticesAnEmptyFileAsBeingRewrittenButTakesAPipeAsItComes) {
    ScratchDirectory dir;
    testing::writeFile(dir / "a", "");
    testing::writeFile(dir / "b", "{}");
    EXPECT_TRUE(readFileNoticingRewrites(dir / "a").inFlux);
    const auto b = readFileNoticingRewrites(dir / "b");
    EXPECT_FALSE(b.inFlux);
    EXPECT_EQ(b.bytes, "{}");
    EXPECT_THROW(readWholeFile(dir / "c"), Error);

    // A pipe reports size 0 whatever it carries (as `--snapshot <(cat file)` gives).
    ASSERT_EQ(::mkfifo((dir / "pipe").c_str(), 0600), 0);
    std::thread writer([&] { testing::writeFile(dir / "pipe", "{}"); });
    const auto piped = readFileNoticingRewrites(dir / "pipe");
    writer.join();
    EXPECT_FALSE(piped.inFlux);
    EXPECT_EQ(piped.bytes, "{}");
}

}  // namespace
}  // namespace gaugepoint
