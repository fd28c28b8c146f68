// DataModel: the editor's timelines, tracks, clips, features, effects,
// keyframes, speed parts, properties, callbacks and event keys, as Miravel
// sees them.
//
// Every object here is reference counted through IDmBaseObj, reached as a
// virtual base, and answers its query by name with the interface names given
// beside each interface. Where the order of an interface's operations matters
// to a caller, it is noted; the order is the declaration order.
#pragma once

#include <cstdint>

#include "BsDataStructure/BsDataStructure.h"
#include "DataModel/DmTime.h"
#include "DataModel/IDmBaseObj.h"
#include "ZorPlatformExport.h"
#include "ZorUtils/ZorUtils.h"

namespace ZOR {

class IDmClip;
class IDmTimeline;
class IDmTrack;
class IDmEffect;

// Track kinds.
enum DmTrackKind : int32_t { DmTrackVideo = 1, DmTrackAudio = 2 };

// Effect types, by the data model's numbering.
enum DmEffectType : int32_t {
    DmEffectDucking = 4109,      // values: depth, fade (s), fade ratio; on/off
    DmEffectVolume = 4110,       // keyframes of property 1 (dB)
    DmEffectReversePlay = 4139,  // value 0 non-zero: the clip plays backwards
};

// Feature types of a clip (IDmClip::feature).
enum DmFeatureType : int32_t { DmFeatureAudioWave = 0x100d, DmFeatureAudioEffects = 0x100e };

// Objects that can have data-model callbacks registered on them. The listener
// is asked, by name, for each callback interface it implements
// ("IDmTimelineCallback", "IDmTrackCallback", "IDmClipCallback", ...), and
// registration takes no reference. Returns 0 on success.
class IDmCallbackSource : public virtual IDmBaseObj {
public:
    virtual int32_t registerCallback(IDmBaseObj* listener) = 0;
    virtual int32_t unregisterCallback(IDmBaseObj* listener) = 0;

protected:
    ~IDmCallbackSource() = default;
};

// Properties read and written by key (the keys are the Adapter library's).
// getProperty returns 0 on success and fills *value.
class IDmPropertyOwner : public virtual IDmBaseObj {
public:
    virtual int32_t getProperty(const char* key, ZorProperty* value) = 0;
    virtual int32_t setProperty(const char* key, const ZorProperty& value) = 0;

protected:
    ~IDmPropertyOwner() = default;
};

// A list of clips. Name: "IDmClipList".
class IDmClipList : public virtual IDmBaseObj {
public:
    virtual int32_t count() = 0;
    virtual IDmClip* get(int32_t index) = 0;    // no reference taken
    virtual int32_t append(IDmClip* clip) = 0;  // takes a reference

protected:
    ~IDmClipList() = default;
};

// An item attached to a clip (effects, stylize data, ...). Name: "IDmAttachedItem".
class IDmAttachedItem : public virtual IDmBaseObj {
public:
    virtual bool isApplied() = 0;
    virtual bool isVisualStyle() = 0;
    virtual int32_t dataCount() = 0;
    virtual IDmBaseObj* data(int32_t index) = 0;  // no reference taken

protected:
    ~IDmAttachedItem() = default;
};

// A list of attached items. Name: "IDmAttachedItemList".
class IDmAttachedItemList : public virtual IDmBaseObj {
public:
    virtual int32_t count() = 0;
    virtual IDmAttachedItem* get(int32_t index) = 0;  // no reference taken

protected:
    ~IDmAttachedItemList() = default;
};

// The text data of an image-stylize ("IImageStylizesData") or AI-template
// ("IAITemplateGenerateData") item: its second operation with argument 2
// gives the style identifier.
class IDmStyleData : public virtual IDmBaseObj {
public:
    virtual int32_t styleKind() = 0;
    virtual const char* text(int32_t which) = 0;

protected:
    ~IDmStyleData() = default;
};

// A clip on a track. Name: "IDmClip".
class IDmClip : public virtual IDmBaseObj {
public:
    virtual int32_t clipType() = 0;       // 1st own operation: the clip's type
    virtual IDmTimeline* timeline() = 0;  // no reference taken; null when not on one
    virtual IDmTrack* track() = 0;        // no reference taken
    virtual const char* clipId() = 0;     // 4th own operation: identifier text
    // The media identifier as NUL-terminated text into buffer (size bytes).
    virtual int32_t mediaId(char* buffer, int32_t size) = 0;
    virtual const char* name() = 0;
    virtual IDmEffect* effect(int32_t type) = 0;                  // no reference taken; null when none
    virtual IDmBaseObj* feature(int32_t type, int32_t flag) = 0;  // no reference taken
    virtual IDmAttachedItemList* attachedItems() = 0;             // no reference taken

protected:
    ~IDmClip() = default;
};

// The audio face of a clip. Name: "IDmAudioFeature". The values it gives are
// 4-byte floats at full scale 1.0.
class IDmAudioFeature : public virtual IDmBaseObj {
public:
    virtual int32_t audioStreamIndex() = 0;
    virtual int32_t sampleRate() = 0;
    virtual int32_t channelCount() = 0;
    // Returns 0 on success.
    virtual int32_t getProperty(const char* key, ZorProperty* value) = 0;
    virtual int32_t setProperty(const char* key, const ZorProperty& value) = 0;
    // Clip time to source position (cns), speed and direction included.
    virtual int64_t sourcePosition(int64_t clipTime, bool reverse) = 0;
    // 7th operation: the number of values per frame at the rate num/den.
    virtual int32_t valueCountPerFrame(int32_t* count, int64_t rateNum, int64_t rateDen) = 0;
    virtual int64_t mediaDuration() = 0;
    // 9th operation: the values of each listed frame, one frame after the
    // other, into buffer (count per frame x frames values).
    virtual int32_t fillValues(IZORLonglongList* frames, int64_t rateNum, int64_t rateDen, void* buffer) = 0;

protected:
    ~IDmAudioFeature() = default;
};

// The video face of a clip. Name: "IDmVideoFeature".
class IDmVideoFeature : public virtual IDmBaseObj {
public:
    virtual int32_t videoStreamIndex() = 0;
    virtual int32_t frameRate(int64_t* num, int64_t* den) = 0;
    virtual int32_t videoSize(int32_t* width, int32_t* height) = 0;
    virtual int32_t getProperty(const char* key, ZorProperty* value) = 0;
    // 5th operation: prepares reading frames of width x height.
    virtual int32_t prepareFrames(int32_t width, int32_t height, int64_t rateNum, int64_t rateDen) = 0;
    // 6th operation: for each time, the path of its file in the frame store
    // into 1024-byte slot i (empty when none) and the presentation time of
    // the frame shown into shown[i] (-1 when none); *filled counts the slots
    // written.
    virtual int32_t fillFrames(const int64_t* times, int32_t count, void* slots, int64_t* shown, int32_t* filled) = 0;
    // Prepares pictures of width x height; a short description goes to text.
    virtual int32_t prepareThumbnailSize(int32_t width, int32_t height, char* text, int32_t textSize) = 0;
    // The store's file of each frame into 1024-byte slot i, and the frames it
    // does not have (at most count) with their number.
    virtual int32_t thumbnailFiles(const int64_t* frames, int32_t count, char* slots, int64_t* missing,
                                   int32_t* missingCount) = 0;

protected:
    ~IDmVideoFeature() = default;
};

// Speed parts of a clip. Name: "IDmClipSpeedPart".
class IDmClipSpeedPart : public virtual IDmBaseObj {
public:
    virtual int32_t speedPartCount() = 0;
    // Range in clip time and speed of part index; 0 on success.
    virtual int32_t speedPart(int32_t index, int64_t* begin, int64_t* end, double* speed) = 0;

protected:
    ~IDmClipSpeedPart() = default;
};

// The data model's internal view of a clip. Name: "IDmClipInternal".
class IDmClipInternal : public virtual IDmBaseObj {
public:
    // The clip this one belongs to (a linked clip's owner), or null.
    virtual IDmClip* parentClip() = 0;
    // Two integers by which the clip's container places it; -1 when none.
    virtual int32_t containerPosition(int32_t* first, int32_t* second) = 0;
    // What acquireIDmAudioWaveMgrInternal takes to find the clip's wave manager.
    virtual IDmBaseObj* waveManagerSource() = 0;

protected:
    ~IDmClipInternal() = default;
};

// An effect of a clip. Name: "IDmEffect".
class IDmEffect : public virtual IDmBaseObj {
public:
    virtual int32_t effectType() = 0;
    virtual const char* effectName() = 0;  // "audio/effect/ducking", "audio/effect/volume", ...
    virtual bool isEnabled() = 0;
    virtual IDmClip* ownerClip() = 0;  // no reference taken
    virtual float value(int32_t index) = 0;
    virtual int32_t keyframeCount(int32_t property) = 0;
    // Keyframe index of property: its time (clip time, cns) and value.
    virtual int32_t keyframe(int32_t property, int32_t index, int64_t* time, double* value) = 0;

protected:
    ~IDmEffect() = default;
};

// A track. Name: "IDmTrack".
class IDmTrack : public virtual IDmBaseObj {
public:
    virtual int32_t trackKind() = 0;   // DmTrackKind
    virtual IDmTimeline* owner() = 0;  // no reference taken
    virtual int32_t trackIndex() = 0;
    virtual int32_t getProperty(const char* key, ZorProperty* value) = 0;

protected:
    ~IDmTrack() = default;
};

// A timeline. Name: "IDmTimeline".
class IDmTimeline : public virtual IDmBaseObj {
public:
    virtual int32_t trackCount() = 0;
    virtual IDmTrack* track(int32_t index) = 0;  // no reference taken
    virtual int32_t clipCount(int32_t trackIndex) = 0;
    virtual IDmClip* clip(int32_t trackIndex, int32_t clipIndex) = 0;  // no reference taken
    virtual int64_t duration() = 0;
    // Nonzero when some clip of the timeline still uses the media.
    virtual int32_t usesMedia(const char* mediaId) = 0;

protected:
    ~IDmTimeline() = default;
};

// The wave data of one media stream, shared by every clip that uses it.
// Frames are counted at the rate given; values are floats at full scale 1.0.
// Name: "IDmAudioWaveMgrInternal".
class IDmAudioWaveMgrInternal : public virtual IDmBaseObj {
public:
    // Values per frame at num/den; 0 when the manager has no wave data.
    virtual uint32_t valueCountPerFrame(int64_t rateNum, int64_t rateDen) = 0;
    // The values of one frame into values (count of them); a frame it does not
    // hold reads as zeros and returns 1001.
    virtual int32_t readFrame(int32_t frame, int64_t rateNum, int64_t rateDen, float* values, uint32_t count) = 0;
    // Non-zero when every frame of [first, last] is held.
    virtual int32_t hasFrames(int32_t first, int32_t last) = 0;

protected:
    ~IDmAudioWaveMgrInternal() = default;
};

// A timeline used as a media object. Name: "IDmTimelineInternal".
class IDmTimelineInternal : public virtual IDmBaseObj {
public:
    struct Settings {
        int32_t width;
        int32_t ratioNum;
        int32_t ratioDen;
    };
    virtual int32_t settings(Settings* settings) = 0;
    // The value the thumb adapter opens the timeline by.
    virtual int64_t adapterHandle() = 0;

protected:
    ~IDmTimelineInternal() = default;
};

// Media information of a file. Name: "IDmMediaInfo".
class IDmMediaInfo : public virtual IDmBaseObj {
public:
    // mediaInfoKey::width, mediaInfoKey::height, mediaInfoKey::vid_stream_id, ...
    virtual int32_t getProperty(const char* key, ZorProperty* value) = 0;

protected:
    ~IDmMediaInfo() = default;
};

class IDmFactory {
public:
    // A new media-info object for a file, with one reference; null when the
    // file cannot be read.
    virtual IDmMediaInfo* createMediaInfo(const char* path) = 0;
    virtual IDmClipList* createIDmClipList() = 0;

protected:
    ~IDmFactory() = default;
};

// ---------------------------------------------------------------------------
// Data-model callback interfaces, implemented by listeners. All return 0.

class IDmTimelineCallback {
public:
    virtual int32_t onTimelineChanged(IDmTimeline* timeline) = 0;
    virtual int32_t onTrackAdded(IDmTimeline* timeline, IDmCallbackSource* track) = 0;
    virtual int32_t onTrackRemoved(IDmTimeline* timeline, IDmCallbackSource* track) = 0;
    virtual int32_t onTrackMoved(IDmTimeline* timeline, IDmTrack* track) = 0;
    virtual int32_t onClipAdded(IDmTimeline* timeline, IDmClip* clip) = 0;
    virtual int32_t onClipRemoved(IDmTimeline* timeline, IDmClip* clip) = 0;
    virtual int32_t onClipMoved(IDmTimeline* timeline, IDmClip* clip) = 0;
    virtual int32_t onTimelineGone(IDmTimeline* timeline) = 0;

protected:
    ~IDmTimelineCallback() = default;
};

class IDmClipCallback {
public:
    virtual int32_t onClipPropertyChanged(IDmClip* clip, const char* key) = 0;

protected:
    ~IDmClipCallback() = default;
};

class IDmVideoAudioBaseClipCallback {
public:
    virtual int32_t onMediaChanged(IDmClip* clip) = 0;
    virtual int32_t onStreamChanged(IDmClip* clip) = 0;
    virtual int32_t onRangeChanged(IDmClip* clip) = 0;
    virtual int32_t onSpeedChanged(IDmClip* clip) = 0;
    virtual int32_t onRelinked(IDmClip* clip) = 0;
    virtual int32_t onSelectionChanged(IDmClip* clip) = 0;
    virtual int32_t onNameChanged(IDmClip* clip) = 0;

protected:
    ~IDmVideoAudioBaseClipCallback() = default;
};

class IDmAudioClipCallback {
public:
    virtual int32_t onAudioPropertyChanged(IDmClip* clip, const char* key) = 0;
    virtual int32_t onAudioStreamReplaced(IDmClip* clip) = 0;
    virtual int32_t onAudioLevelsChanged(IDmClip* clip) = 0;

protected:
    ~IDmAudioClipCallback() = default;
};

class IDmEffectCallback {
public:
    virtual int32_t onEffectAdded(IDmEffect* effect) = 0;
    virtual int32_t onEffectRemoved(IDmEffect* effect) = 0;
    virtual int32_t onEffectChanged(IDmEffect* effect) = 0;
    virtual int32_t onKeyframesChanged(IDmEffect* effect) = 0;

protected:
    ~IDmEffectCallback() = default;
};

class IDmTrackCallback {
public:
    virtual int32_t onTrackPropertyChanged(IDmTrack* track, const char* key) = 0;

protected:
    ~IDmTrackCallback() = default;
};

class IDmAudioTimelineClipCallback {
public:
    virtual int32_t onTimelineClipPropertyChanged(IDmClip* clip, const char* key) = 0;

protected:
    ~IDmAudioTimelineClipCallback() = default;
};

// ---------------------------------------------------------------------------
// Event keys published on the event bus after each change.

struct ZOR_PLATFORM_API timelineEventKey {
    static const char* const dataChanged;
    static const char* const trackPropertyChanged;
};

struct ZOR_PLATFORM_API clipEventKey {
    static const char* const videoPropertyChanged;
    static const char* const audioPropertyChanged;
    static const char* const basePropertyChanged;
    static const char* const multiCameraPropertyChanged;
    static const char* const speedChanged;
    static const char* const effectPropertyChanged;
    static const char* const timelineClipPropertyChanged;
    static const char* const clipRelink;
};

struct ZOR_PLATFORM_API undoRedoEventKey {
    static const char* const undoEvent;
    static const char* const redoEvent;
    static const char* const stackChanged;
};

// ---------------------------------------------------------------------------
// Functions

// The audio clip that carries obj's sound: obj itself for an audio clip, the
// linked audio clip of a video clip with sound; null otherwise. No reference.
ZOR_PLATFORM_API IDmClip* getBaseAudioClip(IDmBaseObj* obj);
// The clip's range on its timeline, [begin, end), in cns.
ZOR_PLATFORM_API int64_t beginTimeOfClip(IDmClip* clip);
ZOR_PLATFORM_API int64_t endTimeOfClip(IDmClip* clip);
// The range of the source media the clip uses, in media cns.
ZOR_PLATFORM_API int64_t markInTimeOfClip(IDmClip* clip);
ZOR_PLATFORM_API int64_t markOutTimeOfClip(IDmClip* clip);

ZOR_PLATFORM_API IDmFactory* getDmFactoryInstance();

}  // namespace ZOR
