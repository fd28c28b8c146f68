// The wave manager of one media stream and the process-wide registry that
// shares it between clips.
//
// A manager is keyed by (canonical path, stream) and describes one content of
// the file at a time, named by its file identity (size, modification time):
// when a clip of the file is made, or the audio task starts decoding, with a
// different identity, the manager drops what it holds and starts empty under
// a new generation (see IDmAudioWaveStore in DmMediaInternal.h).
//
// It keeps each channel's levels, and the wave store (DmWaveStoreFile.h,
// under waveStoreRoot()) keeps them on disk for later processes: a manager
// made for a content whose store file is valid starts with the frames that
// file holds; flush() writes what it holds (merged with what another process
// wrote meanwhile), when a request of the audio task ends and when the
// manager goes.
#pragma once

#include <array>
#include <bitset>
#include <cstdint>
#include <memory>
#include <shared_mutex>
#include <string>
#include <utility>
#include <vector>

#include "Common/ZorInternalComUtility.h"
#include "DataModel/DataModel.h"
#include "DataModel/DmMediaInternal.h"
#include "DmWaveStoreFile.h"

namespace ZOR {

// Values are kept as 16-bit steps of 1/32768: q = round(v x 32768), at most
// 65535, read back as q / 32768, the representable step nearest to v. 16-bit
// PCM (whose samples are k / 32768 as floats) is therefore kept exactly, and a
// decoder's overshoot of full scale is kept up to just below 2.0.
class DmAudioWaveManager final : public RefCnt<void>,
                                 public virtual IDmAudioWaveMgrInternal,
                                 public virtual IDmAudioWaveStore {
public:
    ZOR_IMPLEMENT_REFCNT

    DmAudioWaveManager(std::string mediaPath, int32_t stream, int32_t channels, const DmFileIdentity& identity);
    ~DmAudioWaveManager() override;

    void* queryInterface(const char* name) override;

    // IDmAudioWaveMgrInternal
    uint32_t valueCountPerFrame(int64_t rateNum, int64_t rateDen) override;
    int32_t readFrame(int32_t frame, int64_t rateNum, int64_t rateDen, float* values, uint32_t count) override;
    int32_t hasFrames(int32_t first, int32_t last) override;

    // IDmAudioWaveStore
    uint64_t adoptContent(const DmFileIdentity& identity) override;
    uint64_t contentGeneration() override;
    std::vector<std::pair<int32_t, int32_t>> missingRanges(int32_t first, int32_t last) override;
    int32_t storeFrames(uint64_t generation, int32_t first, int32_t frameCount, const float* values) override;
    int32_t endFrame() override;
    void setEndFrame(uint64_t generation, int32_t frame) override;
    bool decodeOrigin(uint64_t generation, int64_t* pts, int32_t* sampleRate) override;
    void setDecodeOrigin(uint64_t generation, int64_t pts, int32_t sampleRate) override;
    int32_t storeChannelFrames(uint64_t generation, int32_t first, int32_t frameCount, int32_t channels,
                               const float* values) override;
    int32_t channelCount() override;
    int32_t readChannelWindows(int32_t channel, int64_t firstWindow, int32_t count, float* values) override;
    float channelPeak(int32_t channel, int64_t firstWindow, int64_t endWindow) override;
    int32_t flush() override;

    // Reads the store file of the current content (when the manager holds
    // nothing yet). Called once made.
    void loadStore();

    const std::string& mediaPath() const { return mediaPath_; }
    int32_t stream() const { return stream_; }

    static constexpr double kStepsPerFullScale = 32768.0;
    static uint16_t quantise(float value);
    static float dequantise(uint16_t step);

private:
    static constexpr int32_t kChunkFrames = 1024;
    static constexpr int32_t kChunkWindows = kChunkFrames * kValuesPerFrame;  // 160 x 256
    // Frames [c x 1024, (c + 1) x 1024): for each frame, each channel's 40
    // values one channel after the other; beside them, for each channel, the
    // largest of every 16 and every 256 windows (frames not held count 0), so
    // that the peak of a long range reads few values.
    struct Chunk {
        explicit Chunk(int32_t channels)
            : values(static_cast<size_t>(kChunkWindows) * channels),
              coarse16(static_cast<size_t>(kChunkWindows / 16) * channels),
              coarse256(static_cast<size_t>(kChunkWindows / 256) * channels) {}
        std::vector<uint16_t> values;
        std::vector<uint16_t> coarse16;   // channel after channel
        std::vector<uint16_t> coarse256;  // channel after channel
        std::bitset<kChunkFrames> held;
    };

    bool isHeldLocked(int32_t frame) const;
    uint16_t* frameValuesLocked(int32_t frame);  // makes the chunk when missing
    // Works out the coarse levels over frames [first, first + count) again.
    void refreshCoarseLocked(int32_t first, int32_t count);
    uint16_t chunkPeakLocked(const Chunk& chunk, int32_t channel, int64_t first, int64_t end) const;
    std::string storePathLocked() const;

    const std::string mediaPath_;
    const int32_t stream_;
    const int32_t channels_;  // 1 or more: the levels kept per frame are channels_ x 40

    mutable std::shared_mutex lock_;              // leaf: nothing is called with it held
    DmFileIdentity identity_;                     // guarded by lock_: the content described
    uint64_t generation_ = 1;                     // guarded by lock_
    std::vector<std::unique_ptr<Chunk>> chunks_;  // guarded by lock_; chunk c holds frames [c x 1024, ...)
    int32_t endFrame_ = -1;                       // guarded by lock_
    bool haveOrigin_ = false;                     // guarded by lock_
    int64_t originPts_ = 0;                       // guarded by lock_
    int32_t originRate_ = 0;                      // guarded by lock_
    bool haveFingerprint_ = false;                // guarded by lock_
    DmMediaFingerprint fingerprint_;              // guarded by lock_: the content's, for the store
    bool dirty_ = false;                          // guarded by lock_: frames stored since the last flush
    std::string heldStore_;                       // guarded by lock_: the store file marked in use
    std::mutex flushLock_;                        // before lock_: one flush at a time
    bool toldWriteFailure_ = false;               // guarded by flushLock_
};

// The manager of (canonical path, stream) with one reference for the caller:
// the living one when some clip still holds it (made to adopt identity), a
// new one for identity otherwise. The registry holds weak entries only.
DmAudioWaveManager* acquireWaveManager(const std::string& canonicalPath, int32_t stream, int32_t channels,
                                       const DmFileIdentity& identity);

}  // namespace ZOR
