// Replays a fuzz target's corpus, crash reproducers included, through the
// same entry point the fuzzer calls, built with the ordinary toolchain and
// sanitizers. A broken expectation aborts and names the input.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <set>

#include "FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

TEST(TALVOEM_FUZZ_SUITE, EveryCorpusInputRunsClean) {
    std::set<std::filesystem::path> files;  // in name order, so a run repeats
    for (const auto& entry : std::filesystem::directory_iterator(TALVOEM_FUZZ_CORPUS)) {
        files.insert(entry.path());
    }
    ASSERT_FALSE(files.empty()) << "no corpus in " << TALVOEM_FUZZ_CORPUS;
    for (const std::filesystem::path& file : files) {
        std::ifstream in(file, std::ios::binary);
        const std::string bytes{std::istreambuf_iterator<char>(in), {}};
        talvoem::fuzz::currentInput() = file.filename().string();
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    }
    talvoem::fuzz::currentInput().clear();
}
