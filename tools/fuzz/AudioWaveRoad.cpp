#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "BackgroundTaskManager/BackgroundTaskManager.h"
#include "BsDataStructure/BsDataStructure.h"
#include "BtmMediaDecoder.h"
#include "BtmPacketIndex.h"
#include "DataModel/DataModel.h"
#include "DataModel/DmMedia.h"
#include "FuzzRoads.h"
#include "FuzzSupport.h"

namespace ZOR::fuzz {

namespace {

// How long a request of one second of media may take before it counts as a
// hang: far beyond any input libFuzzer makes.
constexpr auto kRequestLimit = std::chrono::seconds(60);

// The final status of each request, as the task's threads report it.
class FinalStatuses final : public IZorCallBack {
public:
    int32_t processChanged(IDmBaseObj*, int32_t, int32_t status, const BsTaskProgressInfo* info) override {
        if (info == nullptr) return 0;
        if (status != BsTaskFinished && status != BsTaskFailed && status != BsTaskCancelled &&
            status != BsTaskResubmit)
            return 0;
        {
            std::lock_guard<std::mutex> guard(lock_);
            finals_[info->token] = status;
        }
        ended_.notify_all();
        return 0;
    }

    // The request's final status; 0 when none came within the limit.
    int32_t wait(int64_t token) {
        std::unique_lock<std::mutex> guard(lock_);
        if (!ended_.wait_for(guard, kRequestLimit, [&] { return finals_.count(token) != 0; })) return 0;
        const int32_t status = finals_[token];
        finals_.erase(token);
        return status;
    }

private:
    std::mutex lock_;  // leaf: guards finals_
    std::condition_variable ended_;
    std::map<int64_t, int32_t> finals_;
};

struct WaveTask {
    FinalStatuses statuses;
    IBsAudioWaveExtractTask* task = nullptr;
};

WaveTask& waveTask() {
    // Made once and shut down at exit: starting the workers per input would
    // cost more than most inputs.
    static WaveTask* made = [] {
        auto* wave = new WaveTask;
        wave->task = createAudioWaveExtractTask();
        if (wave->task == nullptr || wave->task->addCallBack(&wave->statuses) != 0 || wave->task->initialize() != 0 ||
            wave->task->start() != 0)
            std::abort();
        std::atexit([] {
            made->task->shutdown();
            made->task->removeCallBack(&made->statuses);
            made->task->Release();
            delete made;
        });
        return wave;
    }();
    return *made;
}

// The road of MP3 files that are regular files: a packet index, then packets
// decoded by it (the bytes are read from memory as from the file).
void decodeByPacketIndex(const char* path, int32_t stream) {
    btm::MediaDecoder decoder;
    std::string problem;
    if (!decoder.open(path, stream, &problem)) return;
    std::string why;
    const std::shared_ptr<const btm::PacketIndex> index =
        btm::PacketIndex::build(decoder, [] { return false; }, &why);
    tell("audio_wave: packet index: %s", index ? "made" : why.c_str());
    if (!index) return;
    btm::IndexedDecoder indexed;
    if (!indexed.open(path, index, &problem)) return;
    indexed.setQuiet(true);
    av::FramePtr frame = av::newFrame();
    const size_t packets = std::min<size_t>(index->packets(), 64);
    for (size_t j = 0; j < packets; ++j) {
        int frames = 0;
        if (indexed.decode(j, frame.get(), &frames) < 0) break;
        av_frame_unref(frame.get());
    }
}

}  // namespace

int audioWave(const uint8_t* data, size_t size) {
    prepareProcess();
    WaveTask& wave = waveTask();
    // Paths in turn: the previous input's request may still hold its wave
    // manager for a moment after its last report.
    static unsigned turn = 0;
    MemoryMedia media("/miravel-fuzz/wave-" + std::to_string(turn++ % 64) + ".media", data, size);
    IDmClip* clip = createMediaClip(media.path(), -1, -1, nullptr);
    if (clip == nullptr) std::abort();
    auto* sound = static_cast<IDmAudioFeature*>(clip->queryInterface("IDmAudioFeature"));
    if (sound != nullptr) {
        BsWaveTaskRecord record;
        record.clip = clip;
        record.beginFrame = 0;
        record.endFrame = 24;
        int64_t token = -1;
        if (wave.task->append(&record, &token) != 0) std::abort();
        const int32_t status = wave.statuses.wait(token);
        if (status == 0) {
            std::fprintf(stderr, "the wave request of %zu bytes did not end within a minute\n", size);
            std::abort();
        }
        IZORLonglongList* frames = createZORLonglongList();
        for (int32_t frame = 0; frame <= 24; ++frame) frames->append(frame);
        std::vector<float> values(25 * 40);
        sound->fillValues(frames, 25, 1, values.data());
        frames->Release();
        float peak = 0.0f;
        for (float value : values) peak = std::max(peak, value);
        tell("audio_wave: %zu bytes, status %d, peak %g", size, static_cast<int>(status), static_cast<double>(peak));
        decodeByPacketIndex(media.path(), sound->audioStreamIndex());
    }
    clip->Release();
    return 0;
}

}  // namespace ZOR::fuzz
