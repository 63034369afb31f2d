// Replays a fuzz target's corpus, crash reproducers included, through the
// same entry point the fuzzer calls, built with the ordinary toolchain and
// sanitizers. A broken expectation aborts and names the input.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

std::vector<std::filesystem::path> corpusFiles() {
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(TALVOEM_FUZZ_CORPUS)) {
        if (entry.is_regular_file()) {
            files.push_back(entry.path());
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

TEST(TALVOEM_FUZZ_SUITE, EveryCorpusInputRunsClean) {
    const std::vector<std::filesystem::path> files = corpusFiles();
    ASSERT_FALSE(files.empty()) << "no corpus in " << TALVOEM_FUZZ_CORPUS;
    for (const std::filesystem::path& file : files) {
        std::ifstream in(file, std::ios::binary);
        const std::string bytes((std::istreambuf_iterator<char>(in)),
                                std::istreambuf_iterator<char>());
        talvoem::fuzz::currentInput() = file.filename().string();
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    }
    talvoem::fuzz::currentInput().clear();
}

}  // namespace
