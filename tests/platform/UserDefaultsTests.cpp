#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include "TestSupport.hpp"
#include "gaugepoint/platform/Files.hpp"
#include "gaugepoint/platform/QuotaSyncConfiguration.hpp"
#include "gaugepoint/platform/UbiquitousKeyValueStore.hpp"
#include "gaugepoint/platform/UserDefaults.hpp"

namespace gaugepoint {
namespace {

using testing::ScratchDirectory;

TEST(FileUserDefaults, TwoProcessesWritingDifferentKeysKeepBoth) {
    ScratchDirectory dir;
    const auto file = dir / "config" / "defaults.json";
    const pid_t child = ::fork();
    if (child == 0) {
        FileUserDefaults defaults{file};
        for (int i = 0; i < 100; ++i) defaults.setValue("child." + std::to_string(i), i);
        ::_exit(0);
    }
    FileUserDefaults defaults{file};
    for (int i = 0; i < 100; ++i) defaults.setValue("parent." + std::to_string(i), i);
    int status = 0;
    ::waitpid(child, &status, 0);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(defaults.value("child." + std::to_string(i)), boost::json::value(i));
        EXPECT_EQ(defaults.value("parent." + std::to_string(i)), boost::json::value(i));
    }
}

// What could not be read is never lost: the first write moves it aside and says so.
std::vector<std::filesystem::path> setAsideCopies(const ScratchDirectory& dir) {
    std::vector<std::filesystem::path> copies;
    for (const auto& entry : std::filesystem::directory_iterator(dir.path())) {
        if (entry.path().filename().string().find(".corrupt-") != std::string::npos) copies.push_back(entry.path());
    }
    return copies;
}

TEST(FileUserDefaults, ADamagedFileReadsAsEmptyAndIsSetAsideOnWrite) {
    ScratchDirectory dir;
    takeSetAsideNotices();
    testing::writeFile(dir / "defaults.json", "{\"quota.marker\": tru");
    FileUserDefaults defaults{dir / "defaults.json"};
    EXPECT_FALSE(defaults.boolValue("quota.marker"));
    EXPECT_TRUE(setAsideCopies(dir).empty());  // reading changes nothing
    defaults.setBool("quota.marker", true);
    const auto copies = setAsideCopies(dir);
    ASSERT_EQ(copies.size(), 1u);
    EXPECT_EQ(testing::readFile(copies[0]), "{\"quota.marker\": tru");
    const auto notices = takeSetAsideNotices();
    ASSERT_EQ(notices.size(), 1u);
    EXPECT_NE(notices[0].find(copies[0].string()), std::string::npos) << notices[0];
    // Another program's JSON (not an object) is not ours to overwrite either.
    testing::writeFile(dir / "kvs.json", "[1, 2, 3]");
    FileUserDefaults{dir / "kvs.json"}.setBool("quota.marker", true);
    EXPECT_EQ(setAsideCopies(dir).size(), 2u);
    EXPECT_EQ(takeSetAsideNotices().size(), 1u);
    EXPECT_TRUE(FileUserDefaults{dir / "defaults.json"}.boolValue("quota.marker"));
    defaults.removeValue("quota.marker");
    EXPECT_FALSE(defaults.value("quota.marker"));
    defaults.setValue("name", "not a bool");
    EXPECT_FALSE(defaults.boolValue("name"));
}

TEST(FileUbiquitousKeyValueStore, TheStandInLivesInTheAppGroupDirectoryAndKeepsAnotherProcesssChanges) {
    ScratchDirectory dir;
    QuotaSyncConfiguration configuration;
    configuration.appGroupDirectory = dir / "group";
    const auto store = configuration.resolvedUbiquitousKeyValueStore();
    ASSERT_TRUE(store);
    const pid_t child = ::fork();
    if (child == 0) {
        FileUbiquitousKeyValueStore other{dir / "group" / "quota-kvs.json"};
        for (int i = 0; i < 50; ++i) other.setValue("child." + std::to_string(i), i);
        ::_exit(0);
    }
    for (int i = 0; i < 50; ++i) store->setValue("parent." + std::to_string(i), i);
    int status = 0;
    ::waitpid(child, &status, 0);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(store->value("child." + std::to_string(i)), boost::json::value(i));
        EXPECT_EQ(store->value("parent." + std::to_string(i)), boost::json::value(i));
    }
    store->removeValue("child.0");
    EXPECT_FALSE(FileUbiquitousKeyValueStore(dir / "group" / "quota-kvs.json").value("child.0"));

    // An injected store wins over the file; without a resolvable directory there is none.
    configuration.ubiquitousKeyValueStore = std::make_shared<InMemoryUbiquitousKeyValueStore>();
    EXPECT_EQ(configuration.resolvedUbiquitousKeyValueStore(), configuration.ubiquitousKeyValueStore);
    testing::writeFile(dir / "blocker", "");
    QuotaSyncConfiguration blocked;
    blocked.appGroupDirectory = dir / "blocker" / "group";
    EXPECT_FALSE(blocked.resolvedUbiquitousKeyValueStore());
}

TEST(QuotaSyncConfiguration, AppGroupDirectoryIsExplicitThenEnvironmentThenPlatformDefault) {
    ScratchDirectory dir;
    const char* savedGroup = std::getenv("GAUGEPOINT_APP_GROUP_DIR");
    const char* savedData = std::getenv("XDG_DATA_HOME");
    const std::string group = savedGroup ? savedGroup : "", data = savedData ? savedData : "";
    ::setenv("GAUGEPOINT_APP_GROUP_DIR", (dir / "from-env").c_str(), 1);
    ::setenv("XDG_DATA_HOME", (dir / "data").c_str(), 1);

    QuotaSyncConfiguration configuration;
    configuration.appGroupDirectory = dir / "explicit";
    EXPECT_EQ(configuration.resolvedAppGroupDirectory(), dir / "explicit");
    EXPECT_TRUE(std::filesystem::is_directory(dir / "explicit"));  // created on first use
    configuration.appGroupDirectory.reset();
    EXPECT_EQ(configuration.resolvedAppGroupDirectory(), dir / "from-env");
    ::unsetenv("GAUGEPOINT_APP_GROUP_DIR");
#if !defined(__APPLE__)
    EXPECT_EQ(configuration.resolvedAppGroupDirectory(), dir / "data" / "gaugepoint");
#endif
    testing::writeFile(dir / "blocker", "");
    configuration.appGroupDirectory = dir / "blocker" / "group";
    EXPECT_FALSE(configuration.resolvedAppGroupDirectory());

    if (savedGroup) ::setenv("GAUGEPOINT_APP_GROUP_DIR", group.c_str(), 1);
    if (savedData) ::setenv("XDG_DATA_HOME", data.c_str(), 1); else ::unsetenv("XDG_DATA_HOME");
}

}  // namespace
}  // namespace gaugepoint
