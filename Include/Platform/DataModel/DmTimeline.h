// DataModel, host side: timelines made from a description or loaded from a
// timeline document (OpenTimelineIO JSON with a "miravel" metadata namespace).
//
// A timeline built here answers "IDmTimeline" and "IDmCallbackSource"; its
// tracks "IDmTrack", "IDmPropertyOwner" (trackKey::mute/visible/solo) and
// "IDmCallbackSource"; its clips everything a media clip answers (DmMedia.h)
// plus "IDmClipSpeedPart" and "IDmCallbackSource", with their range on the
// timeline, their effects and their track.
//
// A clip on a video track whose media has sound carries a linked audio clip:
// getBaseAudioClip(videoClip) gives it, its parentClip() is the video clip,
// and it holds the clip's audio properties and audio effects. The video clip
// itself does not answer "IDmAudioFeature". A clip on an audio track is its
// own base audio clip.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "DataModel/DataModel.h"
#include "ZorPlatformExport.h"

namespace ZOR {

// A volume keyframe: clip time (cns, markIn-based as the clip's queries) and
// level in dB.
struct DmKeyframeDesc {
    int64_t time = 0;
    double db = 0.0;
};

// A speed part: [begin, end) in clip time (cns) and the speed inside it; 0 is
// a frozen stretch.
struct DmSpeedPartDesc {
    int64_t begin = 0;
    int64_t end = 0;
    double speed = 1.0;
};

// The ducking effect (type 4109) of an audio clip.
struct DmDuckingDesc {
    bool present = false;
    bool enabled = true;
    double depth = 0.0;      // 0..1
    double fade = 0.0;       // seconds
    double fadeRatio = 0.0;  // 0..1
};

struct DmClipDesc {
    std::string name;
    // The media file; empty for a clip whose media is missing (such a clip has
    // neither an audio nor a video feature).
    std::string mediaPath;
    // Container stream index of the stream the clip uses on its track (audio
    // on audio tracks, video on video tracks; -1: the best stream). The linked
    // audio clip of a video clip uses the file's best audio stream unless
    // audioStreamId says otherwise.
    int32_t streamId = -1;
    int32_t audioStreamId = -1;
    int64_t begin = 0;  // timeline range [begin, end), cns
    int64_t end = 0;
    int64_t markIn = 0;  // source range [markIn, markOut], media cns
    int64_t markOut = 0;
    double speed = 1.0;    // constant speed |k|; 0 holds the mark-in position
    bool reverse = false;  // plays backwards (effect 4139, audioReversePlayKey::enable)
    std::vector<DmSpeedPartDesc> speedParts;
    bool enabled = true;                          // clipKey::enable
    bool mute = false;                            // audioKey::mute
    double volumeDb = 0.0;                        // audioKey::volume
    double volumeGainDb = 0.0;                    // clipVolumeKey::volumeGain
    bool loudnessEnabled = false;                 // audioLoudness::enable
    double loudnessGain = 1.0;                    // audioLoudness::gain (linear)
    std::vector<DmKeyframeDesc> volumeKeyframes;  // effect 4110, property 1
    DmDuckingDesc ducking;
    // A visual style applied to the clip's pictures, as an attached item whose
    // data answers "IImageStylizesData" (an image stylize) or
    // "IAITemplateGenerateData" (an AI template) with this identifier as its
    // text 2; empty for none. Pictures of a styled clip are cached apart from
    // the plain media's.
    std::string imageStyleId;
    std::string templateStyleId;
};

struct DmTrackDesc {
    std::string name;
    int32_t kind = DmTrackVideo;    // DmTrackKind
    bool mute = false;              // trackKey::mute
    bool visible = true;            // trackKey::visible
    bool solo = false;              // trackKey::solo
    std::vector<DmClipDesc> clips;  // in track order
};

struct DmTimelineDesc {
    std::string name;
    std::vector<DmTrackDesc> tracks;  // in track order (index 0 first)
    // What a document reader left out or read otherwise than written, one
    // line each ("<document path>: <JSON path>: <what>"); createTimeline
    // ignores them.
    std::vector<std::string> warnings;
};

// A timeline made from desc, with one reference owned by the caller (any
// thread; it probes the media files). Its tracks and clips are handed out
// without a reference and live as long as the timeline (DmEdit.h). Media
// that cannot be read gives clips without features (as createMediaClip does),
// not an error. Null, with *error set, when desc is inconsistent (a clip with
// end < begin or markOut < markIn, an unknown track kind).
ZOR_PLATFORM_API IDmTimeline* createTimeline(const DmTimelineDesc& desc, std::string* error);

// Reads a timeline document (OpenTimelineIO JSON) into *desc. Returns 0 on
// success, with desc->warnings naming what was left out (each also logged at
// warning severity); otherwise a non-zero code, *desc untouched, and *error
// one line naming the file, the JSON path of the fault and what was expected
// there.
ZOR_PLATFORM_API int32_t parseTimelineDocument(const char* path, DmTimelineDesc* desc, std::string* error);

// parseTimelineDocument, then createTimeline: a timeline with one reference
// owned by the caller. Null (with *error) on failure; nothing is half-loaded.
ZOR_PLATFORM_API IDmTimeline* loadTimelineDocument(const char* path, std::string* error);

// The same, handing out the document's warnings in *warnings (emptied when
// nothing is loaded).
ZOR_PLATFORM_API IDmTimeline* loadTimelineDocument(const char* path, std::string* error,
                                                   std::vector<std::string>* warnings);

// The description of a timeline made by createTimeline() or
// loadTimelineDocument(), as it is now: its edits included, every clip with
// its range, speed, speed parts, flags, sound settings and effects, in track
// order, as createTimeline() would make the same timeline again. It is read
// on the event bus's delivery thread (runOnEventThread), so that no edit runs
// meanwhile; called elsewhere, it waits for that. Returns 0 and fills *desc
// (without warnings); otherwise 1001, *desc untouched and *error set.
ZOR_PLATFORM_API int32_t describeTimeline(IDmTimeline* timeline, DmTimelineDesc* desc, std::string* error);

// Writes the timeline as a timeline document at path (OpenTimelineIO JSON
// with the "miravel" metadata), which loadTimelineDocument() reads back to
// the same tracks, clips, ranges and metadata values. Media files are named
// relative to the document's folder when they lie in it or below, by their
// absolute paths otherwise; a clip without media gets a MissingReference.1.
// The file is written under a temporary name in the same folder, flushed to
// disk and renamed over path, so that a reader (or a crash) never meets a
// partial document. The timeline is read as describeTimeline() reads it (on
// the delivery thread, waiting for it); the file is written on the calling
// thread. Returns 0; otherwise 1001 with *error one line naming the
// file and the cause, and whatever was at path left as it was. A track whose
// clips overlap cannot be written (a document lays them end to end).
ZOR_PLATFORM_API int32_t writeTimelineDocument(IDmTimeline* timeline, const char* path, std::string* error);

// The media position (cns) that a clip of a timeline plays at clip time:
// its constant speed or speed parts and its direction applied, exactly as its
// sound is mapped (a video clip's pictures and its linked sound play the same
// positions). A clip that is not on a timeline plays forwards at speed 1.
// Any thread, also while edits run.
ZOR_PLATFORM_API int64_t mediaTimeOfClip(IDmClip* clip, int64_t clipTime);

}  // namespace ZOR
