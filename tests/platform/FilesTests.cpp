#include <gtest/gtest.h>

#include <sys/stat.h>

#include <thread>

#include "TestSupport.hpp"
#include "gaugepoint/platform/Error.hpp"
#include "gaugepoint/platform/Files.hpp"

namespace gaugepoint {
namespace {

using testing::ScratchDirectory;

const InputLimit kLimit = InputLimit::document("a test file");

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
    EXPECT_TRUE(readFileNoticingRewrites(dir / "a", kLimit).inFlux);
    const auto b = readFileNoticingRewrites(dir / "b", kLimit);
    EXPECT_FALSE(b.inFlux);
    EXPECT_EQ(b.bytes, "{}");
    EXPECT_THROW(readInputFile(dir / "c", InputLimit::document("a test file")), Error);

    // A pipe reports size 0 whatever it carries (as `--snapshot <(cat file)` gives).
    ASSERT_EQ(::mkfifo((dir / "pipe").c_str(), 0600), 0);
    std::thread writer([&] { testing::writeFile(dir / "pipe", "{}"); });
    const auto piped = readFileNoticingRewrites(dir / "pipe", kLimit);
    writer.join();
    EXPECT_FALSE(piped.inFlux);
    EXPECT_EQ(piped.bytes, "{}");
}

TEST(InputLimit, IsInclusiveAndNamedAsAPersonReadsIt) {
    ScratchDirectory dir;
    testing::writeFile(dir / "f", std::string(1536, 'x'));
    EXPECT_EQ(readInputFile(dir / "f", {1536, "a test file"}).size(), 1536u);
    try {
        readInputFile(dir / "f", {1535, "a test file", "; raise it"});
        FAIL() << "limit not enforced";
    } catch (const InputTooLargeError& e) {
        EXPECT_EQ(std::string(e.what()), (dir / "f").string() + " is larger than 1535 bytes, the most a test file may be; raise it");
    }
    const std::pair<std::uint64_t, const char*> sizes[] = {
        {1, "1 byte"}, {1000, "1000 bytes"}, {1024, "1 KiB"}, {1536, "1.5 KiB"}, {std::uint64_t{64} << 20, "64 MiB"},
        {(std::uint64_t{17} << 30) / 8, "2.125 GiB"}, {(std::uint64_t{1} << 30) + 1, "1073741825 bytes"}};
    for (const auto& [bytes, text] : sizes) EXPECT_EQ(describeByteCount(bytes), text);
}

}  // namespace
}  // namespace gaugepoint
