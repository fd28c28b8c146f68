// A clip of a media file, as createMediaClip() makes it.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Common/ZorInternalComUtility.h"
#include "DataModel/DataModel.h"
#include "DataModel/DmMediaInternal.h"
#include "DmMediaProbe.h"

namespace ZOR {

class DmAudioWaveManager;

// The clip of one media file. Its media and video stream are fixed at
// construction; what may change later (the playback properties, the range,
// the audio stream of a clip on a timeline, the sizes prepared for frame
// lookups) is guarded or atomic, so every operation may be called from any
// thread.
//
// A clip placed on a timeline derives from this class and sets its range
// with setRange(); everything else (media, features, properties) it inherits,
// overriding what a clip on a timeline answers differently (its name, type,
// track, time mapping). The operations of the interfaces are virtual, so a
// derived class may override any of them.
class DmMediaClip : public RefCnt<void>,
                    public virtual IDmClip,
                    public virtual IDmAudioFeature,
                    public virtual IDmVideoFeature,
                    public virtual IDmClipInternal,
                    public virtual IDmPropertyOwner,
                    public virtual IDmMediaSource {
public:
    ZOR_IMPLEMENT_REFCNT

    DmMediaClip(DmMediaProbe probe, int32_t audioStreamId, int32_t videoStreamId);
    ~DmMediaClip() override;
    DmMediaClip(const DmMediaClip&) = delete;
    DmMediaClip& operator=(const DmMediaClip&) = delete;

    void* queryInterface(const char* name) override;

    // IDmClip
    int32_t clipType() override;
    IDmTimeline* timeline() override;
    IDmTrack* track() override;
    const char* clipId() override;
    int32_t mediaId(char* buffer, int32_t size) override;
    const char* name() override;
    IDmEffect* effect(int32_t type) override;
    IDmBaseObj* feature(int32_t type, int32_t flag) override;
    IDmAttachedItemList* attachedItems() override;

    // IDmPropertyOwner, IDmAudioFeature, IDmVideoFeature
    int32_t getProperty(const char* key, ZorProperty* value) override;
    int32_t setProperty(const char* key, const ZorProperty& value) override;

    // IDmAudioFeature
    int32_t audioStreamIndex() override;
    int32_t sampleRate() override;
    int32_t channelCount() override;
    int64_t sourcePosition(int64_t clipTime, bool reverse) override;
    int32_t valueCountPerFrame(int32_t* count, int64_t rateNum, int64_t rateDen) override;
    int64_t mediaDuration() override;
    int32_t fillValues(IZORLonglongList* frames, int64_t rateNum, int64_t rateDen, void* buffer) override;

    // IDmVideoFeature
    int32_t videoStreamIndex() override;
    int32_t frameRate(int64_t* num, int64_t* den) override;
    int32_t videoSize(int32_t* width, int32_t* height) override;
    int32_t prepareFrames(int32_t width, int32_t height, int64_t rateNum, int64_t rateDen) override;
    int32_t fillFrames(const int64_t* times, int32_t count, void* slots, int64_t* shown, int32_t* filled) override;
    int32_t prepareThumbnailSize(int32_t width, int32_t height, char* text, int32_t textSize) override;
    int32_t thumbnailFiles(const int64_t* frames, int32_t count, char* slots, int64_t* missing,
                           int32_t* missingCount) override;

    // IDmClipInternal
    IDmClip* parentClip() override;
    int32_t containerPosition(int32_t* first, int32_t* second) override;
    IDmBaseObj* waveManagerSource() override;

    // IDmMediaSource
    const char* mediaPath() override;
    int32_t resolvedStream(int32_t kind) override;
    const char* streamProblem(int32_t kind) override;
    IDmAudioWaveStore* waveStore() override;

    bool hasAudio() const { return audio().stream >= 0; }
    bool hasVideo() const { return probe_.videoStream >= 0; }

protected:
    // For derived clips: the clip's identifier text instead of a media clip's.
    DmMediaClip(DmMediaProbe probe, int32_t audioStreamId, int32_t videoStreamId, std::string clipId);

    struct Range {
        int64_t markIn = 0;
        int64_t markOut = 0;
        int64_t begin = 0;
        int64_t end = 0;
    };
    // The media range the clip uses and where it lies on its timeline (cns).
    void setRange(int64_t markIn, int64_t markOut, int64_t begin, int64_t end);
    Range range() const;

    // Uses the file's audio stream requested (-1: the best one) from now on,
    // with that stream's wave manager; a clip without sound keeps none.
    // 0 on success (or when it is the stream used already); 1001 when the
    // clip has no sound or the file has no such audio stream.
    int32_t replaceAudioStream(int32_t requested);
    // The audio stream asked for: -1 for the best one.
    int32_t requestedAudioStream() const { return audio().requested; }

private:
    // The stored file of each time into 1024-byte slots; the sizes come from
    // one of the prepared pairs.
    int32_t lookupFrames(const int64_t* times, int32_t count, char* slots, int64_t* shown, int32_t width,
                         int32_t height, int64_t* missing, int32_t* missingCount);

    // The audio stream a clip uses. A state never changes once made; the
    // clip keeps every state it has had until it dies, so what a reader got
    // from one (the wave manager) stays valid while the clip lives.
    struct AudioState {
        int32_t requested = -1;  // as asked for: -1 for the best stream
        int32_t stream = -1;     // the container stream used; -1 when none
        std::string problem;     // why there is none
        int32_t sampleRate = 0;
        int32_t channels = 0;
        int64_t duration = 0;                   // cns
        DmAudioWaveManager* manager = nullptr;  // one reference; null without audio
    };
    const AudioState& audio() const { return *audio_.load(std::memory_order_acquire); }
    // A state of the probe's audio stream, with its wave manager.
    static std::unique_ptr<AudioState> makeAudioState(const DmMediaProbe& probe, int32_t requested);

    const DmMediaProbe probe_;     // its audio fields are the first audio state's
    const int32_t videoStreamId_;  // as asked for: -1 for the best stream
    const std::string clipId_;
    IDmAttachedItemList* attachedItems_ = nullptr;   // one reference
    std::atomic<const AudioState*> audio_{nullptr};  // the current state, one of audioStates_

    // The sizes prepared for fillFrames and thumbnailFiles, width in the high
    // half, height in the low one; 0 when none.
    std::atomic<uint64_t> frameSize_{0};
    std::atomic<uint64_t> thumbnailSize_{0};

    mutable std::mutex lock_;                               // leaf: guards the three members below only
    Range range_;                                           // guarded by lock_
    std::map<std::string, ZorProperty> properties_;         // guarded by lock_: the settable properties
    std::vector<std::unique_ptr<AudioState>> audioStates_;  // guarded by lock_: every state the clip had
};

}  // namespace ZOR
