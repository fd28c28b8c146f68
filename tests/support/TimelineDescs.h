// Descriptions for createTimeline, as the tests on real timelines write them.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "DataModel/DmTimeline.h"

namespace ZOR::test {

// A clip named name over [begin, begin + length) of the timeline, playing
// [markIn, markIn + length) of the media file at path at volumeDb.
inline DmClipDesc clipOf(const std::string& name, const std::string& path, int64_t begin, int64_t markIn,
                         int64_t length, double volumeDb) {
    DmClipDesc clip;
    clip.name = name;
    clip.mediaPath = path;
    clip.begin = begin;
    clip.end = begin + length;
    clip.markIn = markIn;
    clip.markOut = markIn + length;
    clip.volumeDb = volumeDb;
    return clip;
}

// A clip named name over [begin, end) of the timeline, playing [markIn,
// markOut) of the media file at path.
inline DmClipDesc clipDesc(const std::string& path, const std::string& name, int64_t begin, int64_t end, int64_t markIn,
                           int64_t markOut) {
    DmClipDesc clip;
    clip.name = name;
    clip.mediaPath = path;
    clip.begin = begin;
    clip.end = end;
    clip.markIn = markIn;
    clip.markOut = markOut;
    return clip;
}

// A track of kind (DmTrackKind) named name holding clips.
inline DmTrackDesc trackDesc(int32_t kind, const std::string& name, std::vector<DmClipDesc> clips) {
    DmTrackDesc track;
    track.kind = kind;
    track.name = name;
    track.clips = std::move(clips);
    return track;
}

// A timeline of one track of kind holding one clip, named name, of the
// whole file at path (duration cns long); null when it cannot be made.
inline IDmTimeline* wholeFileTimeline(const std::string& name, const std::string& path, int64_t duration,
                                      DmTrackKind kind) {
    DmTrackDesc track;
    track.kind = kind;
    track.clips.push_back(clipOf(name, path, 0, 0, duration, 0.0));
    DmTimelineDesc desc;
    desc.tracks.push_back(track);
    std::string error;
    return createTimeline(desc, &error);
}

}  // namespace ZOR::test
