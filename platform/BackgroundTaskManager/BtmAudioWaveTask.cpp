// The audio wave extraction task.
//
// A request names frames [first, last] (25 per second, media time) of one
// audio stream. The frames its wave manager does not hold yet are decoded, in
// pieces that the workers decode in parallel, and stored in the manager; then
// the request reports status 2.
//
// Placing samples. Value k of frame f is the peak of the samples n (counted
// from the stream's first decoded sample) with floor(n x 1000 / R) = 40 f + k.
// Decoding from the start counts samples exactly. A piece that starts later
// seeks there instead, which is exact only where the container gives every
// packet a sample-exact timestamp (WAV, W64, AIFF, CAF, FLAC, the MP4 family):
// a decoded frame's first sample is then (pts - origin) x R, origin being the
// timestamp of the first decoded sample, measured once per stream and kept by
// its wave manager. Other formats (MP3, raw AAC, Matroska, Ogg, ...) are
// decoded from the start, in one piece. A seek lands a little early (200 ms)
// so that decoders with overlapping frames are settled when the piece begins;
// if it lands late the piece falls back to decoding from the start.
extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/mathematics.h>
#include <libswresample/swresample.h>
}

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "BackgroundTaskManager/BackgroundTaskManager.h"
#include "BtmMediaDecoder.h"
#include "BtmTaskControl.h"
#include "BtmTaskCore.h"
#include "Common/ZorInternalComUtility.h"
#include "DataModel/DmMediaInternal.h"

ZOR_LOG_SOURCE("platform/BackgroundTaskManager/BtmAudioWaveTask")

namespace ZOR::btm {

namespace {

constexpr int32_t kValues = IDmAudioWaveStore::kValuesPerFrame;
// The smallest piece worth a decoder of its own: 10 s.
constexpr int32_t kMinPieceFrames = 250;
// Frames stored at a time while a piece decodes.
constexpr int32_t kCommitFrames = 25;

// The first sample of frame f at rate R: the least n with n x 25 >= f x R.
int64_t firstSampleOf(int64_t frame, int64_t rate) { return (frame * rate + 24) / 25; }
// The frame that holds sample n: floor(floor(n x 1000 / R) / 40) = floor(n x 25 / R).
int64_t frameOfSample(int64_t sample, int64_t rate) { return sample * 25 / rate; }

bool sampleExactContainer(const AVFormatContext* format) {
    static const char* const kExact[] = {"wav", "w64", "aiff", "caf", "flac", "mov,mp4,m4a,3gp,3g2,mj2"};
    if (format == nullptr || format->iformat == nullptr || format->iformat->name == nullptr) return false;
    for (const char* name : kExact)
        if (std::strcmp(format->iformat->name, name) == 0) return true;
    return false;
}

class AudioRequest final : public Request {
public:
    AudioRequest(int64_t token, std::string mediaPath, int32_t streamIndex, IDmAudioWaveStore* waveStore,
                 int32_t firstFrame, int32_t lastFrame, int64_t expectedFrames)
        : Request(token),
          path(std::move(mediaPath)),
          stream(streamIndex),
          store(waveStore),
          first(firstFrame),
          last(lastFrame),
          frameEstimate(expectedFrames) {
        store->AddRef();
    }
    ~AudioRequest() override { store->Release(); }

    void fail(const std::string& problem) {
        std::lock_guard<std::mutex> guard(problemLock);
        if (problem_.empty()) problem_ = problem;
    }
    std::string problem() {
        std::lock_guard<std::mutex> guard(problemLock);
        return problem_;
    }
    int32_t percent() const {
        const int64_t total = framesTotal.load(std::memory_order_acquire);
        if (total <= 0) return 0;
        return static_cast<int32_t>(std::min<int64_t>(100, framesDone.load(std::memory_order_acquire) * 100 / total));
    }

    const std::string path;
    const int32_t stream;
    IDmAudioWaveStore* const store;  // one reference
    const int32_t first;
    const int32_t last;
    const int64_t frameEstimate;  // frames in the stream by its declared duration; 0 when unknown
    std::atomic<int32_t> piecesLeft{0};
    std::atomic<int64_t> framesTotal{0};
    std::atomic<int64_t> framesDone{0};

private:
    std::mutex problemLock;  // leaf
    std::string problem_;    // guarded by problemLock: the first failure
};

// Float samples of any decoded frame: the frame's own when FFmpeg decodes to
// floats, otherwise converted with libswresample (same layout and rate).
class FloatSamples {
public:
    FloatSamples() = default;
    ~FloatSamples() {
        swr_free(&swr_);
        av_channel_layout_uninit(&swrLayout_);
    }
    FloatSamples(const FloatSamples&) = delete;
    FloatSamples& operator=(const FloatSamples&) = delete;

    // False when the frame cannot be converted.
    bool load(const AVFrame* frame) {
        channels_ = frame->ch_layout.nb_channels;
        count_ = frame->nb_samples;
        const auto format = static_cast<AVSampleFormat>(frame->format);
        if (format == AV_SAMPLE_FMT_FLTP || format == AV_SAMPLE_FMT_FLT) {
            planar_ = format == AV_SAMPLE_FMT_FLTP;
            planes_.assign(static_cast<size_t>(planar_ ? channels_ : 1), nullptr);
            for (size_t c = 0; c < planes_.size(); ++c)
                planes_[c] = reinterpret_cast<const float*>(frame->extended_data[c]);
            return true;
        }
        if (swr_ == nullptr || format != swrFormat_ || frame->sample_rate != swrRate_ ||
            av_channel_layout_compare(&frame->ch_layout, &swrLayout_) != 0) {
            swr_free(&swr_);
            av_channel_layout_uninit(&swrLayout_);
            // The same layout in and out: only the sample format changes.
            if (av_channel_layout_copy(&swrLayout_, &frame->ch_layout) < 0 ||
                swr_alloc_set_opts2(&swr_, &swrLayout_, AV_SAMPLE_FMT_FLTP, frame->sample_rate, &swrLayout_,
                                    format, frame->sample_rate, 0, nullptr) < 0 ||
                swr_init(swr_) < 0) {
                swr_free(&swr_);
                av_channel_layout_uninit(&swrLayout_);
                return false;
            }
            swrFormat_ = format;
            swrRate_ = frame->sample_rate;
        }
        buffers_.resize(static_cast<size_t>(channels_));
        std::vector<uint8_t*> out(static_cast<size_t>(channels_));
        for (int c = 0; c < channels_; ++c) {
            buffers_[static_cast<size_t>(c)].resize(static_cast<size_t>(count_));
            out[static_cast<size_t>(c)] = reinterpret_cast<uint8_t*>(buffers_[static_cast<size_t>(c)].data());
        }
        const int converted = swr_convert(swr_, out.data(), count_,
                                          const_cast<const uint8_t**>(frame->extended_data), count_);
        if (converted < 0) return false;
        count_ = converted;
        planar_ = true;
        planes_.assign(static_cast<size_t>(channels_), nullptr);
        for (int c = 0; c < channels_; ++c) planes_[static_cast<size_t>(c)] = buffers_[static_cast<size_t>(c)].data();
        return true;
    }

    int channels() const { return channels_; }
    int count() const { return count_; }
    // The largest absolute value of samples [from, to) over every channel.
    float peak(int from, int to) const {
        float peak = 0.0f;
        if (planar_) {
            for (int c = 0; c < channels_; ++c) {
                const float* plane = planes_[static_cast<size_t>(c)];
                for (int i = from; i < to; ++i) peak = std::max(peak, std::fabs(plane[i]));
            }
        } else {
            const float* data = planes_[0];
            for (int i = from * channels_; i < to * channels_; ++i) peak = std::max(peak, std::fabs(data[i]));
        }
        return peak;
    }

private:
    int channels_ = 0;
    int count_ = 0;
    bool planar_ = true;
    std::vector<const float*> planes_;
    std::vector<std::vector<float>> buffers_;
    SwrContext* swr_ = nullptr;
    AVSampleFormat swrFormat_ = AV_SAMPLE_FMT_NONE;
    int swrRate_ = 0;
    AVChannelLayout swrLayout_{};
};

// The values of frames [first, last] as the samples come, stored in the wave
// manager as frames complete. Only the frames not stored yet are kept, so a
// range that reaches far beyond the end of the stream costs nothing.
class WaveAccumulator {
public:
    WaveAccumulator(AudioRequest& request, int32_t first, int32_t last, int64_t rate)
        : request_(request),
          last_(last),
          rate_(rate),
          needFirst_(firstSampleOf(first, rate)),
          needEnd_(firstSampleOf(int64_t{last} + 1, rate)),
          base_(first) {}

    int64_t needFirst() const { return needFirst_; }
    int64_t needEnd() const { return needEnd_; }

    // count samples from sample n0 on.
    void add(int64_t n0, const FloatSamples& samples) {
        int64_t n = std::max(n0, needFirst_);
        const int64_t end = std::min(n0 + samples.count(), needEnd_);
        while (n < end) {
            const int64_t window = n * 1000 / rate_;
            const int64_t nextWindowStart = ((window + 1) * rate_ + 999) / 1000;
            const int64_t runEnd = std::min(end, nextWindowStart);
            const float peak = samples.peak(static_cast<int>(n - n0), static_cast<int>(runEnd - n0));
            const int64_t index = window - base_ * kValues;
            if (index >= 0) {  // frames already stored are complete
                if (static_cast<size_t>(index) >= values_.size())
                    values_.resize(static_cast<size_t>(index / kValues + 1) * kValues, 0.0f);
                values_[static_cast<size_t>(index)] = std::max(values_[static_cast<size_t>(index)], peak);
            }
            n = runEnd;
        }
    }

    // Every sample before n has been added: store the frames that are complete.
    void completeBefore(int64_t n, bool force) {
        commitThrough(std::min<int64_t>(last_, frameOfSample(n, rate_) - 1), force);
    }

    // The stream ended after sample total - 1.
    void streamEnded(int64_t total) {
        if (total <= 0) return;
        const int64_t lastFrame = frameOfSample(total - 1, rate_);
        commitThrough(std::min<int64_t>(last_, lastFrame), true);
        if (lastFrame + 1 <= INT32_MAX) request_.store->setEndFrame(static_cast<int32_t>(lastFrame + 1));
    }

private:
    void commitThrough(int64_t through, bool force) {
        if (through < base_) return;
        const int64_t count = through - base_ + 1;
        if (!force && count < kCommitFrames) return;
        const size_t stored = static_cast<size_t>(count) * kValues;
        if (values_.size() < stored) values_.resize(stored, 0.0f);  // windows without samples hold 0
        request_.store->storeFrames(static_cast<int32_t>(base_), static_cast<int32_t>(count), values_.data());
        values_.erase(values_.begin(), values_.begin() + static_cast<ptrdiff_t>(stored));
        request_.framesDone.fetch_add(count, std::memory_order_acq_rel);
        base_ = through + 1;
    }

    AudioRequest& request_;
    const int32_t last_;
    const int64_t rate_;
    const int64_t needFirst_;
    const int64_t needEnd_;
    int64_t base_;               // the first frame not stored yet: values_[0] is its value 0
    std::vector<float> values_;
};

enum class PieceOutcome { Done, Stopped, Failed };

// The cause of a decoder that gave no samples.
std::string noSamplesCause(const MediaDecoder& decoder) {
    if (decoder.readError() != 0) return avErrorText(decoder.readError());
    if (decoder.decodeErrorCount() > 0) return avErrorText(decoder.decodeError());
    return "no audio samples could be decoded";
}

class AudioPiece {
public:
    AudioPiece(TaskCore& core, AudioRequest& request, int32_t first, int32_t last)
        : core_(core), request_(request), first_(first), last_(last) {}

    PieceOutcome run(bool seekable) {
        int64_t origin = 0;
        int32_t rate = 0;
        if (seekable && first_ > 0 && request_.store->decodeOrigin(&origin, &rate)) {
            const PieceOutcome outcome = decode(true, origin, rate);
            if (outcome != PieceOutcome::Failed || !fallBack_) return outcome;
            ZOR_LOG(3, "ZOR::AudioWaveExtractTask::decode", "'%s' frames [%d %d]: %s; decoding from the start",
                    request_.path.c_str(), first_, last_, problem_.c_str());
        }
        fallBack_ = false;
        return decode(false, 0, 0);
    }

    const std::string& problem() const { return problem_; }

private:
    PieceOutcome fail(const std::string& problem) {
        problem_ = problem;
        return PieceOutcome::Failed;
    }

    // fromPts: seek near the piece and place samples by timestamp; otherwise
    // decode from the start and count samples.
    PieceOutcome decode(bool fromPts, int64_t origin, int32_t originRate) {
        MediaDecoder decoder;
        std::string problem;
        if (!decoder.open(request_.path, request_.stream, &problem)) return fail(problem);
        const AVRational timeBase = decoder.stream()->time_base;
        std::unique_ptr<WaveAccumulator> waves;
        if (fromPts) {
            waves = std::make_unique<WaveAccumulator>(request_, first_, last_, originRate);
            const int64_t seekSample = std::max<int64_t>(0, waves->needFirst() - originRate / 5);
            const int64_t target = origin + av_rescale_q(seekSample, AVRational{1, originRate}, timeBase);
            if (decoder.seek(target) < 0) {
                fallBack_ = true;
                return fail("seek failed");
            }
        }
        FramePtr frame = newFrame();
        FloatSamples samples;
        if (!frame) return fail("'" + request_.path + "': " + avErrorText(AVERROR(ENOMEM)));
        const auto stop = [this] { return core_.stopping(request_); };
        int64_t next = 0;  // the sample after the last one seen
        bool any = false;
        for (;;) {
            const int result = decoder.next(frame.get(), stop);
            if (result == MediaDecoder::kStopped) return PieceOutcome::Stopped;
            if (result < 0) break;
            if (frame->nb_samples <= 0 || frame->sample_rate <= 0) continue;
            if (!waves) waves = std::make_unique<WaveAccumulator>(request_, first_, last_, frame->sample_rate);
            int64_t n0 = next;
            if (fromPts) {
                const int64_t pts = frame->best_effort_timestamp;
                if (pts == AV_NOPTS_VALUE) {
                    fallBack_ = true;
                    return fail("no timestamps");
                }
                n0 = av_rescale_q_rnd(pts - origin, timeBase, AVRational{1, originRate},
                                      static_cast<AVRounding>(AV_ROUND_NEAR_INF | AV_ROUND_PASS_MINMAX));
                if (!any && n0 > waves->needFirst()) {
                    // Landed after the piece's first sample.
                    fallBack_ = true;
                    return fail("seek landed late");
                }
            }
            if (!samples.load(frame.get())) return fail("'" + request_.path + "': cannot convert the samples");
            any = true;
            waves->add(n0, samples);
            next = n0 + samples.count();
            av_frame_unref(frame.get());
            if (next >= waves->needEnd()) {
                waves->completeBefore(next, true);
                return PieceOutcome::Done;
            }
            waves->completeBefore(next, false);
        }
        if (!any) {
            if (fromPts) {
                // Nothing after the seek: find the end by counting.
                fallBack_ = true;
                return fail("nothing after the seek");
            }
            return fail("'" + request_.path + "': " + noSamplesCause(decoder));
        }
        if (decoder.readError() != 0)
            ZOR_LOG(5, "ZOR::AudioWaveExtractTask::decode", "'%s': reading stopped early: %s", request_.path.c_str(),
                    avErrorText(decoder.readError()).c_str());
        waves->streamEnded(next);
        return PieceOutcome::Done;
    }

    TaskCore& core_;
    AudioRequest& request_;
    const int32_t first_;
    const int32_t last_;
    bool fallBack_ = false;
    std::string problem_;
};

void pieceEnded(TaskCore& core, AudioRequest& request, PieceOutcome outcome, const std::string& problem) {
    if (outcome == PieceOutcome::Failed) request.fail(problem);
    if (request.piecesLeft.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    const std::string failure = request.problem();
    if (core.stopping(request)) {
        core.finish(request, request.percent(), BsTaskCancelled);
    } else if (!failure.empty()) {
        ZOR_LOG(6, "ZOR::AudioWaveExtractTask::decode", "token:%lld cannot decode %s",
                static_cast<long long>(request.token()), failure.c_str());
        core.finish(request, request.percent(), BsTaskFailed);
    } else {
        core.finish(request, 100, BsTaskFinished);
    }
}

void runPiece(TaskCore& core, const std::shared_ptr<AudioRequest>& request, int32_t first, int32_t last,
              bool seekable) {
    if (core.stopping(*request)) {
        pieceEnded(core, *request, PieceOutcome::Stopped, std::string());
        return;
    }
    AudioPiece piece(core, *request, first, last);
    const PieceOutcome outcome = piece.run(seekable);
    pieceEnded(core, *request, outcome, piece.problem());
}

// The first job of a request: what is missing, how to cut it, and the first piece.
void planRequest(TaskCore& core, const std::shared_ptr<AudioRequest>& request) {
    AudioRequest& r = *request;
    if (core.stopping(r)) {
        core.finish(r, 0, BsTaskCancelled);
        return;
    }
    const auto missing = r.store->missingRanges(r.first, r.last);
    if (missing.empty()) {
        core.finish(r, 100, BsTaskFinished);
        return;
    }

    // Whether pieces may seek: a sample-exact container and a known origin.
    // A known origin says both (it is only measured in such containers).
    bool seekable = r.store->decodeOrigin(nullptr, nullptr);
    if (!seekable) {
        MediaDecoder decoder;
        std::string problem;
        if (!decoder.open(r.path, r.stream, &problem)) {
            ZOR_LOG(6, "ZOR::AudioWaveExtractTask::decode", "token:%lld cannot open %s",
                    static_cast<long long>(r.token()), problem.c_str());
            core.finish(r, 0, BsTaskFailed);
            return;
        }
        seekable = sampleExactContainer(decoder.format());
        if (seekable) {
            FramePtr frame = newFrame();
            const auto stop = [&core, &r] { return core.stopping(r); };
            int result = frame ? 0 : AVERROR(ENOMEM);
            while (result == 0) {
                result = decoder.next(frame.get(), stop);
                if (result == 0 && frame->nb_samples > 0 && frame->sample_rate > 0) break;
            }
            if (result == 0 && frame->best_effort_timestamp != AV_NOPTS_VALUE)
                r.store->setDecodeOrigin(frame->best_effort_timestamp, frame->sample_rate);
            else
                seekable = false;
        }
    }
    if (core.stopping(r)) {
        core.finish(r, 0, BsTaskCancelled);
        return;
    }

    // Pieces: one from the start when seeking is not exact; otherwise the
    // missing ranges cut so that every worker gets some.
    std::vector<std::pair<int32_t, int32_t>> pieces;
    int64_t total = 0;
    for (const auto& range : missing) total += int64_t{range.second} - range.first + 1;
    if (!seekable) {
        pieces.emplace_back(missing.front().first, missing.back().second);
        total = int64_t{missing.back().second} - missing.front().first + 1;
    } else {
        // Cut what the stream is expected to hold (with a second to spare);
        // the last piece runs on to the end of the range, where the stream
        // ends. Frames beyond the end cost no decoding.
        const int64_t bound = r.frameEstimate > 0 ? r.frameEstimate + 25 : int64_t{INT32_MAX};
        int64_t within = 0;
        for (const auto& range : missing)
            if (range.first <= bound) within += std::min<int64_t>(range.second, bound) - range.first + 1;
        const int64_t workers = static_cast<int64_t>(std::max<size_t>(1, core.workerCount()));
        const int64_t size = std::max<int64_t>(kMinPieceFrames, (within + 2 * workers - 1) / (2 * workers));
        for (const auto& range : missing) {
            for (int64_t begin = range.first; begin <= range.second; begin += size) {
                int64_t end = std::min<int64_t>(range.second, begin + size - 1);
                if (end >= bound) end = range.second;
                pieces.emplace_back(static_cast<int32_t>(begin), static_cast<int32_t>(end));
                if (end == range.second) break;
            }
            if (range.second >= bound) break;
        }
        // Ranges after the expected end join the last piece.
        if (pieces.back().second < missing.back().second) pieces.back().second = missing.back().second;
    }
    r.framesTotal.store(total, std::memory_order_release);
    r.piecesLeft.store(static_cast<int32_t>(pieces.size()), std::memory_order_release);
    ZOR_LOG(3, "ZOR::AudioWaveExtractTask::plan", "token:%lld %zu pieces, %lld frames, %s",
            static_cast<long long>(r.token()), pieces.size(), static_cast<long long>(total),
            seekable ? "seeking" : "from the start");
    for (size_t i = 1; i < pieces.size(); ++i) {
        const auto piece = pieces[i];
        TaskCore* owner = &core;
        const bool queued = core.submit(request, [owner, request, piece, seekable] {
            runPiece(*owner, request, piece.first, piece.second, seekable);
        });
        // Shut down meanwhile: the piece counts as stopped.
        if (!queued) pieceEnded(core, r, PieceOutcome::Stopped, std::string());
    }
    runPiece(core, request, pieces[0].first, pieces[0].second, seekable);
}

class AudioWaveExtractTask final : public RefCnt<void>, public TaskControl, public virtual IBsAudioWaveExtractTask {
public:
    ZOR_IMPLEMENT_REFCNT

    AudioWaveExtractTask() {
        core_ = std::make_shared<TaskCore>(static_cast<IDmBaseObj*>(static_cast<IBsAudioWaveExtractTask*>(this)),
                                           "AudioWaveExtractTask");
    }
    ~AudioWaveExtractTask() override { core_->shutdown(); }

    void* queryInterface(const char* name) override {
        if (name == nullptr) return nullptr;
        if (std::strcmp(name, "IBsAudioWaveExtractTask") == 0) return static_cast<IBsAudioWaveExtractTask*>(this);
        if (std::strcmp(name, "IBsTaskControl") == 0) return static_cast<IBsTaskControl*>(this);
        if (std::strcmp(name, "IDmBaseObj") == 0)
            return static_cast<IDmBaseObj*>(static_cast<IBsAudioWaveExtractTask*>(this));
        if (std::strcmp(name, "RefCnt") == 0) return static_cast<RefCnt<void>*>(this);
        return nullptr;
    }

    int32_t initialize() override { return core_->initialize(); }
    int32_t taskKind() override { return 1; }

    int32_t append(const BsWaveTaskRecord* record, int64_t* token) override {
        if (record == nullptr || token == nullptr || record->clip == nullptr) {
            ZOR_LOG(5, "ZOR::AudioWaveExtractTask::append", "rejected: no record, token or clip");
            return kTaskBadArgument;
        }
        auto* source = static_cast<IDmMediaSource*>(record->clip->queryInterface("IDmMediaSource"));
        if (source == nullptr) {
            ZOR_LOG(5, "ZOR::AudioWaveExtractTask::append", "rejected: clip '%s' has no media file",
                    record->clip->name() != nullptr ? record->clip->name() : "");
            return kTaskNoMedia;
        }
        const int32_t stream = source->resolvedStream(DmTrackAudio);
        IDmAudioWaveStore* store = source->waveStore();
        if (stream < 0 || store == nullptr) {
            ZOR_LOG(5, "ZOR::AudioWaveExtractTask::append", "rejected: no audio to decode: %s",
                    source->streamProblem(DmTrackAudio));
            return kTaskNoMedia;
        }
        if (record->rateNum <= 0 || record->rateDen <= 0 ||
            record->rateNum != IDmAudioWaveStore::kFrameRateNum * record->rateDen) {
            ZOR_LOG(5, "ZOR::AudioWaveExtractTask::append", "rejected: '%s': frame rate %lld/%lld (only 25/1)",
                    source->mediaPath(), static_cast<long long>(record->rateNum),
                    static_cast<long long>(record->rateDen));
            return kTaskUnsupported;
        }
        if (record->endFrame < record->beginFrame) {
            ZOR_LOG(5, "ZOR::AudioWaveExtractTask::append", "rejected: '%s': frames [%d %d]", source->mediaPath(),
                    record->beginFrame, record->endFrame);
            return kTaskBadArgument;
        }
        // The declared duration only shapes the pieces; the stream's end is
        // found by decoding.
        int64_t expectedFrames = 0;
        if (auto* audio = static_cast<IDmAudioFeature*>(record->clip->queryInterface("IDmAudioFeature")))
            expectedFrames = std::max<int64_t>(0, audio->mediaDuration() / (kCnsPerSecond / 25) + 1);
        auto request = std::make_shared<AudioRequest>(TaskCore::newToken(), source->mediaPath(), stream, store,
                                                      std::max(0, record->beginFrame), record->endFrame,
                                                      expectedFrames);
        TaskCore* owner = core_.get();
        const int32_t result = core_->add(request, [owner, request] { planRequest(*owner, request); });
        if (result != kTaskOk) {
            ZOR_LOG(5, "ZOR::AudioWaveExtractTask::append", "rejected: the task is shut down");
            return result;
        }
        *token = request->token();
        ZOR_LOG(4, "ZOR::AudioWaveExtractTask::append", "token:%lld '%s' stream %d frames [%d %d]",
                static_cast<long long>(*token), request->path.c_str(), stream, request->first, request->last);
        return kTaskOk;
    }

    int32_t cancel(int64_t token) override { return core_->cancel(token); }
};

}  // namespace

}  // namespace ZOR::btm

extern "C" ZOR::IBsAudioWaveExtractTask* createAudioWaveExtractTask() {
    return ZOR::zorCreateObject<ZOR::btm::AudioWaveExtractTask, ZOR::IBsAudioWaveExtractTask>();
}
