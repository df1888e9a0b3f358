#include <gtest/gtest.h>

#include <cstdlib>

#include "gaugepoint/model/QuotaLanguagePreference.hpp"

namespace gaugepoint {
namespace {

// Sets the locale variables for one test and restores them after.
class LocaleEnvironment : public ::testing::Test {
protected:
    void SetUp() override {
        for (const char* name : kNames) {
            const char* value = std::getenv(name);
            saved_.emplace_back(name, value ? std::optional<std::string>(value) : std::nullopt);
            ::unsetenv(name);
        }
    }
    void TearDown() override {
        for (const auto& [name, value] : saved_) {
            if (value) ::setenv(name, value->c_str(), 1); else ::unsetenv(name);
        }
    }
    static constexpr const char* kNames[] = {"LC_ALL", "LC_MESSAGES", "LANG"};
    std::vector<std::pair<const char*, std::optional<std::string>>> saved_;
};

TEST_F(LocaleEnvironment, SystemLanguageComesFromTheLocaleVariablesInOrder) {
    EXPECT_EQ(QuotaLanguagePreference::system().resolvedLanguageCode(), "en");
    ::setenv("LANG", "zh_CN.UTF-8", 1);
    EXPECT_EQ(QuotaLanguagePreference::system().resolvedLanguageCode(), "zh-CN");
    ::setenv("LC_MESSAGES", "de_DE@euro", 1);
    EXPECT_EQ(QuotaLanguagePreference::system().resolvedLanguageCode(), "de-DE");
    ::setenv("LC_ALL", "C.UTF-8", 1);
    EXPECT_EQ(QuotaLanguagePreference::system().resolvedLanguageCode(), "en");
    EXPECT_EQ(QuotaLanguagePreference::explicitLanguage("zh-Hant").resolvedLanguageCode(), "zh-Hant");
    EXPECT_EQ(QuotaLanguagePreference::explicitLanguage("").resolvedLanguageCode(), "en");
}

TEST(QuotaLanguage, ChineseWhenTheCodeBeginsWithZh) {
    for (const char* code : {"zh", "zh-Hans", "zh_TW", "ZH-hk"}) EXPECT_TRUE(isChineseLanguage(code)) << code;
    for (const char* code : {"", "z", "en", "ja", "xzh"}) EXPECT_FALSE(isChineseLanguage(code)) << code;
}

}  // namespace
}  // namespace gaugepoint
