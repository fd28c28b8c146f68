// The waveform thumbnails of the audio clips of one timeline.
//
// A query names a clip, a range of its clip time and a number of points; the
// answer (on the builder's own worker thread) is one float per point with the
// clip's volume, gains, keyframes, frozen stretches and ducking applied. The
// wave data comes from the clip's wave manager through the shared
// BsAudioSampleCache; where the manager does not hold it yet, the builder asks
// the process-wide audio wave extraction task for it.
//
// Locks, always in this order: lock_, then an entry's paramLock, then a sample
// cache's lock; queueLock_ alone or innermost.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "BackgroundTaskManager/BackgroundTaskManager.h"
#include "BsAudioDuckIntervals.h"
#include "BsAudioSampleCache.h"
#include "BsWaveWorkerQueue.h"
#include "Common/ZorInternalComUtility.h"
#include "DataModel/DataModel.h"
#include "Miravel/IBsClipThumbnailCallbacks.h"

namespace ZOR {

// One query of one queryer on one clip.
struct AudioThumbnailRequest {
    AudioThumbnailRequest() = default;
    AudioThumbnailRequest(const AudioThumbnailRequest&) = delete;
    AudioThumbnailRequest& operator=(const AudioThumbnailRequest&) = delete;
    ~AudioThumbnailRequest();
    void resetPositions(IZORLonglongList* list);

    int64_t begin = 0;
    int64_t end = 0;
    int32_t sampleCount = 0;
    int64_t token = -1;
    int32_t taskState = 0;
    IZORLonglongList* positions = nullptr;  // one reference
    int64_t sourceBegin = 0;
    int64_t sourceEnd = 0;
    std::vector<float> rawSamples;
    std::vector<float> samples;
    std::atomic<bool> cancelled{false};  // also written by the service thread while the worker computes
    // The token of another request's task that was still extracting this
    // media when this request was answered from what the wave manager held;
    // the request is refreshed when that task ends. -1 when none.
    int64_t waitedToken = -1;
    std::atomic<bool> inWork{false};
};

// The audio parameters and requests of one clip.
struct AudioThumbnailParam {
    AudioThumbnailParam() = default;
    AudioThumbnailParam(const AudioThumbnailParam&) = delete;
    AudioThumbnailParam& operator=(const AudioThumbnailParam&) = delete;
    ~AudioThumbnailParam();

    IDmClip* clip = nullptr;  // one reference
    std::string key;
    std::shared_ptr<BsAudioSampleCache> sampleCache;
    uint32_t dirty = 0xFFFFFFFFu;
    float volume = 0.0f;        // dB
    float loudnessGain = 0.0f;  // linear; 0 when loudness is off
    double volumeGain = 0.0;    // dB
    double reserved = 0.0;
    std::vector<FAudioDuckInfo> duckRecords;  // in the clip's time base
    std::vector<std::pair<int64_t, int64_t>> silentRanges;
    std::vector<std::pair<int64_t, double>> volumeKeyframes;  // (time, dB)
    std::vector<double> keyframeGains;                        // the gain of each keyframe, worked out once per reading
    std::map<uint64_t, AudioThumbnailRequest> requests;       // by queryer
    std::mutex paramLock;                                     // after lock_, before a sample cache's lock
    std::atomic<bool> busy{false};
};

class BsAudioThumbnailBuilder : public IZorCallBack {
public:
    BsAudioThumbnailBuilder(IBsAudioClipThumbnailCallback* owner, IDmTimeline* timeline);
    ~BsAudioThumbnailBuilder() override;
    BsAudioThumbnailBuilder(const BsAudioThumbnailBuilder&) = delete;
    BsAudioThumbnailBuilder& operator=(const BsAudioThumbnailBuilder&) = delete;

    int32_t queryAudioThumbnailData(IBsAudioThumbnailQueryer* queryer, IDmClip* clip, int64_t begincns, int64_t endcns,
                                    int32_t sampleCount);
    int32_t cancelQuery(IBsAudioThumbnailQueryer* queryer);
    int32_t cancelQuery(IBsAudioThumbnailQueryer* queryer, IDmClip* clip);
    int32_t onAudioChanged(IDmTimeline* timeline, IDmClipList* clips, IZORIntList* changes);
    int32_t clearAudioRawSamples(IDmClip* clip);

    int32_t processChanged(IDmBaseObj* task, int32_t progress, int32_t status, const BsTaskProgressInfo* info) override;

    // Whether the worker thread has been started (it is, from the first
    // accepted query until destruction).
    bool workerStarted() const { return !stopped_.load() || workerRunning_.load(); }
    // Rounds of the worker's loop so far: each wait that ended, with a
    // message or by its time-out (for tests).
    uint64_t workerRounds() const { return workerRounds_.load(); }

private:
    using Entry = std::shared_ptr<AudioThumbnailParam>;

    int32_t updateDuckInfo();
    bool makeDuckRecord(IDmClip* clip, FAudioDuckInfo* record, bool heldByRecord);
    bool trackPasses(IDmTrack* track);
    std::vector<FAudioDuckInfo> duckRecordsFor(IDmClip* clip) const;
    uint32_t updateAudioThumbnailParam(IDmClip* clip, AudioThumbnailParam& entry);
    int32_t fillSamplePositions(IDmClip* clip, AudioThumbnailRequest& request);
    int32_t dispatchAudioThumbnailTask(AudioThumbnailParam& entry, IBsAudioThumbnailQueryer* queryer);
    void pushWaveData(IDmClip* clip, IBsAudioThumbnailQueryer* queryer);
    void cancelRequests(IBsAudioThumbnailQueryer* queryer, IDmClip* clip);

    void waveWorkerLoop();
    void dealWithWaveTaskEnd(int64_t token, int32_t status);
    void dealWithGenerateWaveTask(IDmClip* clip, IBsAudioThumbnailQueryer* queryer);
    void applyAudioGain(AudioThumbnailParam& entry, AudioThumbnailRequest& request, IBsAudioThumbnailQueryer* queryer);

    IBsAudioClipThumbnailCallback* owner_;
    IDmTimeline* timeline_;
    std::mutex lock_;  // first: guards clips_, duck info and the request maps' structure
    std::map<uint64_t, Entry> clips_;
    std::shared_ptr<std::vector<FAudioDuckInfo>> duckInfo_;
    bool duckInfoChanged_ = false;
    BsWaveWorkerQueue queue_;
    std::thread worker_;
    std::atomic<bool> stopped_{true};
    std::atomic<bool> workerRunning_{false};
    std::atomic<uint64_t> workerRounds_{0};
    IBsAudioWaveExtractTask* task_ = nullptr;  // one reference on the shared task
};

}  // namespace ZOR
