// Running the miravel command line from the tests: its exit code, stdout and
// stderr, with the frame store under the test's folder.
#pragma once

#include <sys/wait.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include <nlohmann/json.hpp>

#include "MediaTestSupport.h"

namespace CliTest {

struct CliRun {
    int exitCode = -1;
    std::string out;
    std::string err;
};

// text in single quotes for sh, whatever it holds.
inline std::string shellQuoted(const std::string& text) {
    std::string quoted = "'";
    for (const char c : text) {
        if (c == '\'')
            quoted += "'\\''";
        else
            quoted += c;
    }
    quoted += "'";
    return quoted;
}

// Runs "sh -c command" with stdin from /dev/null; stderr is read from
// errPath, where command must send it.
inline CliRun runShell(const std::string& command, const std::string& errPath) {
    CliRun run;
    FILE* pipe = popen((command + " </dev/null").c_str(), "r");
    if (pipe == nullptr) return run;
    std::array<char, 4096> buffer{};
    size_t got = 0;
    while ((got = std::fread(buffer.data(), 1, buffer.size(), pipe)) > 0) run.out.append(buffer.data(), got);
    const int status = pclose(pipe);
    run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    std::ifstream err(errPath);
    std::stringstream text;
    text << err.rdbuf();
    run.err = text.str();
    return run;
}

// Runs the miravel command line with the frame store under the folder (or
// under cacheHome when given). arguments are shell words.
inline CliRun runMiravel(const ZOR::test::TempFolder& folder, const std::string& arguments,
                         const std::string& cacheHome = std::string()) {
    const std::string errPath = folder.file("stderr.txt");
    const std::string cache = cacheHome.empty() ? folder.file("cache") : cacheHome;
    return runShell(
        "XDG_CACHE_HOME=" + shellQuoted(cache) + " '" MIRAVEL_CLI "' " + arguments + " 2>" + shellQuoted(errPath),
        errPath);
}

// A 2.5 s stereo WAV file whose levels change over time.
inline std::string rampWav(const ZOR::test::TempFolder& folder, int rate) {
    const std::string path = folder.file("ramp-" + std::to_string(rate) + ".wav");
    MediaTest::ffmpeg("-f lavfi -i \"aevalsrc=exprs='(0.1+0.3*t)*sin(2*PI*440*t)|(0.9-0.3*t)*sin(2*PI*660*t)':s=" +
                      std::to_string(rate) + ":d=2.5\" -c:a pcm_s16le '" + path + "'");
    return path;
}

// Timeline documents as OpenTimelineIO writes them.

using Json = nlohmann::json;

// A RationalTime of cns.
inline Json otioTime(int64_t cns) {
    return Json{{"OTIO_SCHEMA", "RationalTime.1"}, {"value", cns}, {"rate", 10'000'000}};
}

inline Json otioRange(int64_t start, int64_t duration) {
    return Json{{"OTIO_SCHEMA", "TimeRange.1"}, {"start_time", otioTime(start)}, {"duration", otioTime(duration)}};
}

inline Json otioGap(int64_t duration) {
    return Json{{"OTIO_SCHEMA", "Gap.1"}, {"source_range", otioRange(0, duration)}};
}

// A clip of [start, start + duration) of the media file.
inline Json otioClip(const std::string& name, const std::string& media, int64_t start, int64_t duration,
                     const Json& miravel = Json::object()) {
    return Json{{"OTIO_SCHEMA", "Clip.1"},
                {"name", name},
                {"source_range", otioRange(start, duration)},
                {"media_reference", {{"OTIO_SCHEMA", "ExternalReference.1"}, {"target_url", media}}},
                {"metadata", {{"miravel", miravel}}}};
}

inline Json otioTrack(const std::string& name, const std::string& kind, const Json& children) {
    return Json{{"OTIO_SCHEMA", "Track.1"}, {"name", name}, {"kind", kind}, {"children", children}};
}

inline std::string writeDocument(const ZOR::test::TempFolder& folder, const std::string& name, const Json& tracks) {
    const std::string path = folder.file(name);
    MediaTest::writeText(path, Json{{"OTIO_SCHEMA", "Timeline.1"},
                                    {"name", "cut"},
                                    {"tracks", {{"OTIO_SCHEMA", "Stack.1"}, {"children", tracks}}}}
                                   .dump());
    return path;
}

}  // namespace CliTest
