#pragma once

// Helpers shared by the test suites: pinned dates, scratch directories, fixture files.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <string_view>

#include "gaugepoint/platform/Date.hpp"

namespace gaugepoint::testing {

// A date from an ISO 8601 literal; fails the test on a typo.
inline Date at(std::string_view iso) {
    const auto date = parseISO8601(iso);
    EXPECT_TRUE(date.has_value()) << "bad date literal " << iso;
    return date.value_or(Date{});
}

// A fresh directory under the system's temporary directory, removed with everything in it.
class ScratchDirectory {
public:
    ScratchDirectory() {
        std::random_device random;
        path_ = std::filesystem::temp_directory_path() /
                ("gaugepoint-test-" + std::to_string(random()) + "-" + std::to_string(random()));
        std::filesystem::create_directories(path_);
    }
    ~ScratchDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    ScratchDirectory(const ScratchDirectory&) = delete;
    ScratchDirectory& operator=(const ScratchDirectory&) = delete;

    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path operator/(std::string_view name) const { return path_ / name; }

private:
    std::filesystem::path path_;
};

inline void writeFile(const std::filesystem::path& path, std::string_view bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), std::streamsize(bytes.size()));
}

inline std::string readFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// A file under tests/data.
inline std::filesystem::path testData(std::string_view relative) {
    return std::filesystem::path(GAUGEPOINT_TEST_DATA_DIR) / relative;
}

}  // namespace gaugepoint::testing
