// miravel: the command line of the Miravel thumbnail engine.
//
// Every command prints its result as one JSON document on stdout and exits 0
// on success, 2 on a usage error and 1 on any other failure, with a one-line
// message on stderr.
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "Miravel/Miravel.h"

namespace {

constexpr const char* kUsage =
    "usage: miravel <command> [options]\n"
    "commands:\n"
    "  version    print the version and the library's property key\n";

int usageError(const std::string& message) {
    std::fprintf(stderr, "miravel: %s\n%s", message.c_str(), kUsage);
    return 2;
}

int runVersion(int argc, char** /*argv*/) {
    if (argc > 2) return usageError("version takes no arguments");
    std::printf("{\"version\": \"%s\", \"keys\": {\"enableCalcDucking\": \"%s\"}}\n", MIRAVEL_VERSION,
                ZOR::ClipThumbnailKey::enableCalcDucking);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return usageError("no command given");
    const std::string_view command = argv[1];
    if (command == "version" || command == "--version") return runVersion(argc, argv);
    if (command == "help" || command == "--help" || command == "-h") {
        std::fputs(kUsage, stdout);
        return 0;
    }
    return usageError("unknown command '" + std::string(command) + "'");
}
