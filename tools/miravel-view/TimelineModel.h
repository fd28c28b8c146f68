// A copy of what the viewer draws and shows of a timeline: its tracks, their
// clips with ranges, media and sound settings. It is read on the document's
// thread (after loading and after each edit) and handed to the UI thread, so
// that painting and layout read plain values. Clip pointers are identities
// (and the handles the clip thumbnail service takes); the document holds the
// timeline, which keeps every clip alive while it lives.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "DataModel/DataModel.h"

namespace miravel::view {

struct ClipInfo {
    ZOR::IDmClip* clip = nullptr;   // the clip its track lists
    ZOR::IDmClip* audio = nullptr;  // the clip that carries its sound (getBaseAudioClip); null without sound
    std::string name;
    std::string mediaPath;  // canonical; empty for missing media
    int32_t track = 0;
    int32_t index = 0;
    int64_t begin = 0;  // timeline range [begin, end), cns
    int64_t end = 0;
    int64_t markIn = 0;  // media range, cns
    int64_t markOut = 0;
    bool video = false;  // on a video track, with pictures
    int32_t videoWidth = 16;
    int32_t videoHeight = 9;
    bool enabled = true;
    // Sound settings, for the inspector (meaningful when audio is set).
    double volumeDb = 0.0;
    bool mute = false;
    bool reverse = false;
    bool ducking = false;  // a ducking effect that is on
    double duckingDepth = 0.5;
    double duckingFade = 0.5;  // seconds
    double duckingFadeRatio = 0.5;
    bool hasKeyframes = false;

    int64_t duration() const { return end - begin; }
};

struct TrackInfo {
    std::string name;
    bool video = false;
    bool mute = false;
    bool visible = true;
    std::vector<ClipInfo> clips;  // in track order (by begin)
};

struct TimelineModel {
    std::string name;
    int64_t duration = 0;  // cns
    std::vector<TrackInfo> tracks;
    int32_t undoable = 0;
    int32_t redoable = 0;

    // The clip with this track clip or sound clip, or null.
    const ClipInfo* find(const ZOR::IDmClip* clip) const;
    // The distinct media files of the clips, in order of first use.
    std::vector<std::string> mediaFiles() const;

    // Reads the timeline now. Not for the UI thread.
    static std::shared_ptr<const TimelineModel> read(ZOR::IDmTimeline* timeline);
};

}  // namespace miravel::view
