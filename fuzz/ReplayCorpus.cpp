// Replays a fuzz target's seed corpus through its entry point, for builds without libFuzzer: every
// file of the directories given (or the files themselves) once. A crash fails the test; the
// sanitizers of the build, if any, judge the rest.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

void replay(const std::filesystem::path& file, int& count) {
    std::ifstream in(file, std::ios::binary);
    const std::vector<char> bytes{std::istreambuf_iterator<char>(in), {}};
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    ++count;
}

}  // namespace

int main(int argc, char** argv) {
    int count = 0;
    for (int i = 1; i < argc; ++i) {
        const std::filesystem::path path = argv[i];
        if (std::filesystem::is_directory(path)) {
            for (const auto& entry : std::filesystem::recursive_directory_iterator(path)) {
                if (entry.is_regular_file()) replay(entry.path(), count);
            }
        } else {
            replay(path, count);
        }
    }
    std::printf("replayed %d seeds\n", count);
    return count > 0 ? 0 : 1;  // an empty corpus is a broken test, not a pass
}
