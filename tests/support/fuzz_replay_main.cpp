// Feeds every file of the folders named on the command line to a fuzz
// target's entry point, so that committed corpora run as ordinary tests in
// every build. A target reports a fault by aborting.
#include <cstdint>
#include <filesystem>
#include <string>

#include "tests/support/temp_dir.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
    int replayed = 0;
    for (int i = 1; i < argc; ++i) {
        for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
            const std::string bytes = kel::testing::readFile(entry.path());
            LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
            ++replayed;
        }
    }
    return replayed > 0 ? 0 : 1;
}
