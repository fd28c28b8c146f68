// The wave values of one wave manager, read once per frame and shared by every
// audio thumbnail entry (of every builder) whose clip uses that manager.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "Common/ZorInternalComUtility.h"
#include "DataModel/DataModel.h"

namespace ZOR {

class BsAudioSampleCache {
public:
    // The one cache of waveManager (null allowed: a cache that never has
    // data). Shared by everyone who asks while the cache lives.
    static std::shared_ptr<BsAudioSampleCache> obtain(IDmAudioWaveMgrInternal* waveManager);
    // The cache of clip's wave manager, found through its internal face.
    static std::shared_ptr<BsAudioSampleCache> obtainForClip(IDmClip* clip);
    // How many caches live (for diagnostics and tests).
    static size_t registrySize();

    BsAudioSampleCache(const BsAudioSampleCache&) = delete;
    BsAudioSampleCache& operator=(const BsAudioSampleCache&) = delete;

    // Empties the frame values and forgets the values per frame, so that the
    // next read opens the wave manager again and reads every frame anew.
    void clear();

    // Everything below is used with lock held.
    std::mutex& lock() { return lock_; }
    IDmAudioWaveMgrInternal* waveManager() const { return waveManager_.get(); }
    int64_t taskToken() const { return taskToken_; }
    void setTaskToken(int64_t token) { taskToken_ = token; }
    // Whether the wave manager holds every frame of [first, last].
    bool hasFrames(int32_t first, int32_t last);
    // Opens the wave manager when it has not been: false when it has no wave
    // data at 25 frames per second.
    bool open();
    uint32_t valuesPerFrame() const { return valuesPerFrame_; }
    // The values of frame (valuesPerFrame() of them), read from the wave
    // manager the first time. Null when the manager does not hold the frame:
    // such a frame is not remembered, so that it is read once it is held.
    const std::vector<float>* frame(int32_t frame);

private:
    explicit BsAudioSampleCache(IDmAudioWaveMgrInternal* waveManager);
    ~BsAudioSampleCache();
    static void destroy(BsAudioSampleCache* cache);

    std::mutex lock_;  // innermost of the audio locks but the builders' queue locks
    const ZorRef<IDmAudioWaveMgrInternal> waveManager_;
    bool closed_ = false;
    int64_t taskToken_ = -1;
    uint32_t valuesPerFrame_ = 0;
    std::map<int32_t, std::vector<float>> frames_;
};

}  // namespace ZOR
