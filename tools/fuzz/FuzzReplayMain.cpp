// A road's inputs replayed without libFuzzer: its regression inputs, then
// every file named on the command line or found directly in a folder named
// there, in name order. Built with any compiler; the sanitizer builds of the
// test suite run it over the generated seeds.
//
//     fuzz_replay_<road> [file or folder ...]
//
// Prints one line per input it cannot read and a last line of counts;
// exits 1 when an input could not be read or none was found. A crash is
// the sanitizers' to report.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <cerrno>
#include <cstring>
#include <string>
#include <system_error>
#include <vector>

#include "FuzzRegressions.h"
#include "FuzzRoads.h"

namespace {

// The file's bytes; false with *cause set when it cannot be read.
bool readBytes(const std::filesystem::path& path, std::vector<uint8_t>* bytes, std::string* cause) {
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) {
        *cause = std::strerror(errno);
        return false;
    }
    uint8_t buffer[65536];
    size_t got = 0;
    while ((got = std::fread(buffer, 1, sizeof buffer, file)) > 0) bytes->insert(bytes->end(), buffer, buffer + got);
    const bool failed = std::ferror(file) != 0;
    if (failed) *cause = std::strerror(errno);
    std::fclose(file);
    return !failed;
}

}  // namespace

int main(int argc, char** argv) {
    namespace fs = std::filesystem;
    const std::string_view name = MIRAVEL_FUZZ_ROAD_NAME;
    ZOR::fuzz::prepareProcess();
    std::vector<fs::path> inputs;
    int unreadable = 0;
    for (int i = 1; i < argc; ++i) {
        std::error_code error;
        const fs::path given(argv[i]);
        if (fs::is_directory(given, error)) {
            std::vector<fs::path> found;
            for (const fs::directory_entry& entry : fs::directory_iterator(given, error))
                if (entry.is_regular_file(error)) found.push_back(entry.path());
            if (error) {
                std::fprintf(stderr, "%s: cannot list the folder: %s\n", argv[i], error.message().c_str());
                ++unreadable;
            }
            std::sort(found.begin(), found.end());
            inputs.insert(inputs.end(), found.begin(), found.end());
        } else {
            inputs.push_back(given);
        }
    }

    if (argc > 1 && inputs.empty()) {
        std::fprintf(stderr, "fuzz_replay_%.*s: no inputs found\n", static_cast<int>(name.size()), name.data());
        return 1;
    }
    size_t regressions = 0;
    for (const ZOR::fuzz::Regression& regression : ZOR::fuzz::kRegressions) {
        if (regression.road != name) continue;
        const std::vector<uint8_t> bytes = regression.bytes();
        ZOR::fuzz::MIRAVEL_FUZZ_ROAD(bytes.data(), bytes.size());
        ++regressions;
    }
    size_t replayed = 0;
    for (const fs::path& input : inputs) {
        std::vector<uint8_t> bytes;
        std::string cause;
        if (!readBytes(input, &bytes, &cause)) {
            std::fprintf(stderr, "%s: cannot be read: %s\n", input.c_str(), cause.c_str());
            ++unreadable;
            continue;
        }
        ZOR::fuzz::MIRAVEL_FUZZ_ROAD(bytes.data(), bytes.size());
        ++replayed;
    }
    std::printf("fuzz_replay_%.*s: %zu regression inputs and %zu files replayed\n", static_cast<int>(name.size()),
                name.data(), regressions, replayed);
    return unreadable == 0 ? 0 : 1;
}
