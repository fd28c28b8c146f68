// miravel: the command line of the Miravel thumbnail engine.
//
// Every command prints its result as one JSON document on stdout and exits 0
// on success, 2 on a usage error and 1 on any other failure, with a one-line
// message on stderr (control characters in it escaped). --log <severity> (or
// MIRAVEL_LOG) writes the library's log lines to stderr; --log-file <path> to
// a file.
#include <cstdio>
#include <exception>
#include <new>
#include <string>
#include <string_view>

#include "Cli.h"
#include "Commands.h"
#include "Limits.h"
#include "Usage.h"
#include "Miravel/Miravel.h"
#include "ZorLogger/ZorLogger.h"

namespace {

std::string usage() { return miravel::usageText(); }

int runVersion(int argc) {
    if (argc > 2) throw miravel::UsageError("version takes no arguments");
    std::printf("{\"version\": \"%s\", \"keys\": {\"enableCalcDucking\": \"%s\"}}\n", MIRAVEL_VERSION,
                ZOR::ClipThumbnailKey::enableCalcDucking);
    return 0;
}

int dispatch(int argc, char** argv) {
    if (argc < 2) throw miravel::UsageError("no command given");
    const std::string_view command = argv[1];
    if (command == "version" || command == "--version") return runVersion(argc);
    if (command == "wave") return miravel::runWave(argc, argv);
    if (command == "frames") return miravel::runFrames(argc, argv);
    if (command == "audio") return miravel::runAudio(argc, argv);
    if (command == "video") return miravel::runVideo(argc, argv);
    if (command == "render") return miravel::runRender(argc, argv);
    if (command == "media") return miravel::runMedia(argc, argv);
    if (command == "demo") return miravel::runDemo(argc, argv);
    if (command == "peaks") return miravel::runPeaks(argc, argv);
    if (command == "cache") return miravel::runCache(argc, argv);
    if (command == "help" || command == "--help" || command == "-h") {
        std::fputs(usage().c_str(), stdout);
        return 0;
    }
    throw miravel::UsageError("unknown command '" + std::string(command) + "'");
}

}  // namespace

int main(int argc, char** argv) {
    int code = 1;
    miravel::routeFfmpegLogging();
    try {
        code = dispatch(argc, argv);
    } catch (const miravel::HelpRequested& help) {
        std::fputs(miravel::commandUsage(help.command()).c_str(), stdout);
        code = 0;
    } catch (const miravel::UsageError& error) {
        std::fprintf(stderr, "miravel: %s\n%s", miravel::printable(error.what()).c_str(), usage().c_str());
        code = 2;
    } catch (const std::bad_alloc&) {
        // Commands name the file they were working on (namingOutOfMemory).
        std::fputs("miravel: out of memory\n", stderr);
        code = 1;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "miravel: %s\n", miravel::printable(error.what()).c_str());
        code = 1;
    }
    ZOR::shutdownLogging();
    return code;
}
