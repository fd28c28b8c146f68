// The wave manager of one media stream and the process-wide registry that
// shares it between clips.
//
// A manager is keyed by (canonical path, stream) and describes one content of
// the file at a time, named by its file identity (size, modification time):
// when a clip of the file is made, or the audio task starts decoding, with a
// different identity, the manager drops what it holds and starts empty under
// a new generation (see IDmAudioWaveStore in DmMediaInternal.h).
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

    DmAudioWaveManager(std::string mediaPath, int32_t stream, const DmFileIdentity& identity);
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

    const std::string& mediaPath() const { return mediaPath_; }
    int32_t stream() const { return stream_; }

    static constexpr double kStepsPerFullScale = 32768.0;
    static uint16_t quantise(float value);
    static float dequantise(uint16_t step);

private:
    static constexpr int32_t kChunkFrames = 1024;
    struct Chunk {
        std::array<uint16_t, static_cast<size_t>(kChunkFrames) * kValuesPerFrame> values{};
        std::bitset<kChunkFrames> held;
    };

    bool isHeldLocked(int32_t frame) const;

    const std::string mediaPath_;
    const int32_t stream_;

    mutable std::shared_mutex lock_;               // leaf: nothing is called with it held
    DmFileIdentity identity_;                      // guarded by lock_: the content described
    uint64_t generation_ = 1;                      // guarded by lock_
    std::vector<std::unique_ptr<Chunk>> chunks_;   // guarded by lock_; chunk c holds frames [c x 1024, ...)
    int32_t endFrame_ = -1;                        // guarded by lock_
    bool haveOrigin_ = false;                      // guarded by lock_
    int64_t originPts_ = 0;                        // guarded by lock_
    int32_t originRate_ = 0;                       // guarded by lock_
};

// The manager of (canonical path, stream) with one reference for the caller:
// the living one when some clip still holds it (made to adopt identity), a
// new one for identity otherwise. The registry holds weak entries only.
DmAudioWaveManager* acquireWaveManager(const std::string& canonicalPath, int32_t stream,
                                       const DmFileIdentity& identity);

}  // namespace ZOR
