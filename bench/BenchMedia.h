// The long media file a benchmark runs on, named by an environment variable
// (the bench/run_*.sh scripts make one and set it), and the timeline of one
// clip of all of it that a cold iteration makes anew.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "Common/ZorInternalComUtility.h"
#include "DataModel/DataModel.h"
#include "DataModel/DmMedia.h"
#include "TimelineDescs.h"

namespace ZOR::bench {

struct BenchFile {
    std::string path;
    int64_t duration = 0;  // cns: the whole clip of the file
    std::string problem;   // what keeps the benchmark from using it; empty when nothing
};

// The file named by variable (described as what, made by script), whose clip
// must answer feature ("IDmAudioFeature" or "IDmVideoFeature"; kind names it
// in the problem).
inline BenchFile benchFile(const char* variable, const char* what, const char* script, const char* feature,
                           const char* kind) {
    BenchFile file;
    const char* path = std::getenv(variable);
    if (path == nullptr || *path == '\0') {
        file.problem = std::string("set ") + variable + " to " + what + " (" + script + " makes one)";
        return file;
    }
    file.path = path;
    std::string why;
    const auto clip = ZorRef<IDmClip>::adopt(createMediaClip(path, -1, -1, &why));
    if (clip == nullptr || clip->queryInterface(feature) == nullptr)
        file.problem = file.path + " has no " + kind + ": " + why;
    else
        file.duration = markOutTimeOfClip(clip.get());
    return file;
}

// A timeline of one track of kind holding one clip, named name, of the whole
// file, and that clip; the clip is null (and the benchmark skipped) when the
// timeline cannot be made.
struct WholeFileTimeline {
    ZorRef<IDmTimeline> timeline;
    IDmClip* clip = nullptr;
};

inline WholeFileTimeline wholeFileTimeline(benchmark::State& state, const BenchFile& file, const char* name,
                                           DmTrackKind kind) {
    WholeFileTimeline made;
    made.timeline = ZorRef<IDmTimeline>::adopt(test::wholeFileTimeline(name, file.path, file.duration, kind));
    made.clip = made.timeline != nullptr ? made.timeline->clip(0, 0) : nullptr;
    if (made.clip == nullptr) state.SkipWithError("no timeline");
    return made;
}

}  // namespace ZOR::bench
