// Plays the inputs of the directories and files that are named, without a fuzzer: what the corpus
// has found stays mended. The exit status is 1 if there was none.

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <set>
#include <vector>

// NOLINTNEXTLINE(readability-identifier-naming): the fuzzer's name for it
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
    std::set<std::filesystem::path> files;
    for (const std::filesystem::path path : std::vector<const char*>(argv + 1, argv + argc)) {
        if (!std::filesystem::is_directory(path)) {
            files.insert(path);
            continue;
        }
        for (const auto& entry : std::filesystem::directory_iterator(path)) files.insert(entry);
    }
    for (const auto& path : files) {
        std::ifstream file(path, std::ios::binary);
        const std::vector<char> input{std::istreambuf_iterator<char>(file), {}};
        // The last line tells which one it was, if this one ends the process.
        std::cerr << path.string() << std::endl;
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(input.data()), input.size());
    }
    return files.empty() ? 1 : 0;
}
