extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/mathematics.h>
#include <libavutil/samplefmt.h>
#include <libswresample/swresample.h>
}

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "BackgroundTaskManager/BackgroundTaskManager.h"
#include "BtmAudioWaveTask.h"
#include "BtmMediaDecoder.h"
#include "BtmPacketIndex.h"
#include "BtmTaskControl.h"
#include "BtmTaskCore.h"
#include "Common/ZorInternalComUtility.h"
#include "DataModel/DmMedia.h"
#include "DataModel/DmMediaInternal.h"

ZOR_LOG_SOURCE("platform/BackgroundTaskManager/BtmAudioWaveTask")

namespace ZOR::btm {

namespace {

// The smallest piece worth a decoder of its own: 10 s.
constexpr int32_t kMinPieceFrames = 250;
// Pieces per worker when the stream is decoded by its packet index (more
// pieces than workers even out uneven progress).
constexpr int64_t kIndexedPiecesPerWorker = 4;
// Packets an indexed piece decodes twice to check its pre-roll.
constexpr size_t kCheckPackets = 3;

bool sampleExactContainer(const AVFormatContext* format) {
    static const char* const kExact[] = {"wav", "w64", "aiff", "caf", "flac", "mov,mp4,m4a,3gp,3g2,mj2"};
    if (format == nullptr || format->iformat == nullptr || format->iformat->name == nullptr) return false;
    for (const char* name : kExact)
        if (std::strcmp(format->iformat->name, name) == 0) return true;
    return false;
}

// Unverified: an indexed piece found the packet index or its pre-roll wrong;
// its request is decoded again from the start.
enum class PieceOutcome { Done, Stopped, Failed, Unverified };
enum class PieceMode { FromStart, Seeking, Indexed };

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
        if (seekable && first_ > 0 && request_.store_->decodeOrigin(request_.generation, &origin, &rate)) {
            const PieceOutcome outcome = decode(true, origin, rate);
            if (outcome != PieceOutcome::Failed || !fallBack_) return outcome;
            ZOR_LOG(IBsLogger::Debug, "ZOR::AudioWaveExtractTask::decode",
                    "'%s' frames [%d %d]: %s; decoding from the start", request_.path.c_str(), first_, last_,
                    problem_.c_str());
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
            ZOR_LOG(IBsLogger::Warning, "ZOR::AudioWaveExtractTask::decode", "'%s': reading stopped early: %s",
                    request_.path.c_str(), avErrorText(decoder.readError()).c_str());
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

// Whether the content the request decoded is no longer the file's (it changed
// on disk while decoding) or no longer the store's (a newer content was
// adopted meanwhile). A file that changed is adopted: the store drops what the
// request stored.
bool contentReplaced(AudioRequest& request) {
    const DmFileIdentity now = mediaFileIdentity(request.path.c_str());
    if (now != request.planned) {
        request.store_->adoptContent(now);
        ZOR_LOG(IBsLogger::Info, "ZOR::AudioWaveExtractTask::decode", "token:%lld '%s' changed on disk while decoding",
                static_cast<long long>(request.token()), request.path.c_str());
        return true;
    }
    if (request.store_->contentGeneration() != request.generation) {
        ZOR_LOG(IBsLogger::Info, "ZOR::AudioWaveExtractTask::decode",
                "token:%lld '%s': newer content adopted while decoding", static_cast<long long>(request.token()),
                request.path.c_str());
        return true;
    }
    return false;
}

// FNV-1a over the bytes of a frame's samples.
uint64_t hashSamples(uint64_t hash, const AVFrame* frame) {
    const auto format = static_cast<AVSampleFormat>(frame->format);
    const int channels = frame->ch_layout.nb_channels;
    const bool planar = av_sample_fmt_is_planar(format) != 0;
    const size_t bytes = static_cast<size_t>(frame->nb_samples) * static_cast<size_t>(av_get_bytes_per_sample(format)) *
                         static_cast<size_t>(planar ? 1 : channels);
    for (int plane = 0; plane < (planar ? channels : 1); ++plane) {
        const uint8_t* data = frame->extended_data[plane];
        for (size_t i = 0; i < bytes; ++i) {
            hash ^= data[i];
            hash *= 1099511628211ULL;
        }
    }
    return hash;
}

constexpr uint64_t kHashBasis = 14695981039346656037ULL;

// A piece decoded by the packet index of its stream (see BtmPacketIndex.h).
class IndexedPiece {
public:
    IndexedPiece(TaskCore& core, AudioRequest& request, std::shared_ptr<const PacketIndex> index, int32_t first,
                 int32_t last)
        : core_(core), request_(request), index_(std::move(index)), first_(first), last_(last) {}

    PieceOutcome run() {
        const PacketIndex& index = *index_;
        const int64_t rate = index.sampleRate();
        const int64_t total = index.totalSamples();
        WaveAccumulator waves(request_, first_, last_, rate);
        if (waves.needFirst() >= total) {
            waves.streamEnded(total);
            return PieceOutcome::Done;
        }
        const size_t packets = index.packets();
        const size_t firstPacket = index.packetOf(waves.needFirst());
        const size_t endPacket = waves.needEnd() >= total ? packets : index.packetOf(waves.needEnd() - 1) + 1;
        const size_t start = index.startFor(firstPacket, 1);
        // A piece that starts with the stream is a sequential decode; any
        // other checks its first packets against a decode from further back.
        const bool checking = start > 0;
        const size_t checkEnd = checking ? std::min(packets, firstPacket + kCheckPackets) : 0;
        const auto stop = [this] { return core_.stopping(request_); };

        FramePtr frame = newFrame();
        if (!frame) return fail(avErrorText(AVERROR(ENOMEM)));
        uint64_t expected = kHashBasis;
        if (checking) {
            IndexedDecoder probe;
            std::string problem;
            if (!probe.open(request_.path, index_, &problem)) return fail(problem);
            probe.setQuiet(true);
            for (size_t j = index.startFor(firstPacket, 2); j < checkEnd; ++j) {
                if (stop()) return PieceOutcome::Stopped;
                int frames = 0;
                const int result = probe.decode(j, frame.get(), &frames);
                if (result < 0) return fail("'" + request_.path + "': " + avErrorText(result));
                if (frames > 0 && j >= firstPacket) expected = hashSamples(expected, frame.get());
                av_frame_unref(frame.get());
            }
        }

        IndexedDecoder decoder;
        std::string problem;
        if (!decoder.open(request_.path, index_, &problem)) return fail(problem);
        decoder.setQuiet(checking);
        FloatSamples samples;
        uint64_t hash = kHashBasis;
        const size_t end = std::max(endPacket, checkEnd);
        for (size_t j = start; j < end; ++j) {
            if (stop()) return PieceOutcome::Stopped;
            int frames = 0;
            const int result = decoder.decode(j, frame.get(), &frames);
            if (result < 0) return fail("'" + request_.path + "': " + avErrorText(result));
            if (j + 1 >= firstPacket) decoder.setQuiet(false);
            if (j < firstPacket && checking) {  // pre-roll
                av_frame_unref(frame.get());
                continue;
            }
            // The packet gives what the index says.
            const int64_t output = index.outputOf(j);
            if (frames != (output > 0 ? 1 : 0) ||
                (frames == 1 && (frame->nb_samples != output || frame->sample_rate != rate)))
                return unverified("packet " + std::to_string(j) + " gave " + std::to_string(frames) + " frames of " +
                                  std::to_string(frames > 0 ? frame->nb_samples : 0) + " samples; the index says " +
                                  std::to_string(output));
            if (frames > 0 && j < checkEnd) hash = hashSamples(hash, frame.get());
            if (j + 1 == checkEnd && hash != expected)
                return unverified("the pre-roll before packet " + std::to_string(firstPacket) +
                                  " did not settle the decoder");
            if (frames == 0) continue;
            if (j < endPacket) {
                if (!samples.load(frame.get())) return fail("'" + request_.path + "': cannot convert the samples");
                waves.add(index.firstSample(j), samples);
                // Nothing is stored before the check has passed.
                if (j + 1 >= checkEnd) waves.completeBefore(index.firstSample(j + 1), false);
            }
            av_frame_unref(frame.get());
        }
        if (waves.needEnd() >= total)
            waves.streamEnded(total);
        else
            waves.completeBefore(waves.needEnd(), true);
        ZOR_LOG(IBsLogger::Trace, "ZOR::AudioWaveExtractTask::decode",
                "token:%lld frames [%d %d]: packets [%zu %zu) after a pre-roll from %zu%s",
                static_cast<long long>(request_.token()), first_, last_, firstPacket, endPacket, start,
                checking ? ", checked" : "");
        return PieceOutcome::Done;
    }

    const std::string& problem() const { return problem_; }

private:
    PieceOutcome fail(const std::string& problem) {
        problem_ = problem;
        return PieceOutcome::Failed;
    }
    PieceOutcome unverified(const std::string& problem) {
        problem_ = problem;
        index_->distrust();
        return PieceOutcome::Unverified;
    }

    TaskCore& core_;
    AudioRequest& request_;
    const std::shared_ptr<const PacketIndex> index_;
    const int32_t first_;
    const int32_t last_;
    std::string problem_;
};

void pieceEnded(TaskCore& core, AudioRequest& request, PieceOutcome outcome, const std::string& problem) {
    if (outcome == PieceOutcome::Failed) request.fail(problem);
    if (outcome == PieceOutcome::Unverified) {
        ZOR_LOG(IBsLogger::Warning, "ZOR::AudioWaveExtractTask::decode", "token:%lld '%s': %s; decoding from the start",
                static_cast<long long>(request.token()), request.path.c_str(), problem.c_str());
        request.redo.store(true, std::memory_order_release);
    }
    if (request.piecesLeft.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    // An indexed piece could not be trusted: the whole range again, from the
    // start, over what the pieces stored.
    if (request.redo.load(std::memory_order_acquire) && !core.stopping(request) && request.problem().empty()) {
        AudioPiece piece(core, request, request.first, request.last);
        const PieceOutcome redone = piece.run(false);
        if (redone == PieceOutcome::Failed) request.fail(piece.problem());
    }
    const std::string failure = request.problem();
    if (core.stopping(request)) {
        core.finish(request, request.percent(), BsTaskCancelled);
    } else if (contentReplaced(request)) {
        core.finish(request, request.percent(), BsTaskResubmit);
    } else if (!failure.empty()) {
        ZOR_LOG(IBsLogger::Error, "ZOR::AudioWaveExtractTask::decode", "token:%lld cannot decode %s",
                static_cast<long long>(request.token()), failure.c_str());
        noteMediaFailure(request.path.c_str(), DmTrackAudio, failure.c_str());
        core.finish(request, request.percent(), BsTaskFailed);
    } else {
        core.finish(request, 100, BsTaskFinished);
    }
    // What was decoded, the whole request or part of it, is kept on disk for
    // later processes; after the report, so that nobody waits for the write.
    request.store_->flush();
}

void runPiece(TaskCore& core, const std::shared_ptr<AudioRequest>& request, int32_t first, int32_t last, PieceMode mode,
              const std::shared_ptr<const PacketIndex>& index) {
    if (core.stopping(*request)) {
        pieceEnded(core, *request, PieceOutcome::Stopped, std::string());
        return;
    }
    if (mode == PieceMode::Indexed) {
        IndexedPiece piece(core, *request, index, first, last);
        const PieceOutcome outcome = piece.run();
        pieceEnded(core, *request, outcome, piece.problem());
        return;
    }
    AudioPiece piece(core, *request, first, last);
    const PieceOutcome outcome = piece.run(mode == PieceMode::Seeking);
    pieceEnded(core, *request, outcome, piece.problem());
}

// missing cut into pieces of at least kMinPieceFrames, about `count` of them.
// Frames after bound (the expected end) join the last piece.
std::vector<std::pair<int32_t, int32_t>> cutPieces(const std::vector<std::pair<int32_t, int32_t>>& missing,
                                                   int64_t bound, int64_t count) {
    std::vector<std::pair<int32_t, int32_t>> pieces;
    int64_t within = 0;
    for (const auto& range : missing)
        if (range.first <= bound) within += std::min<int64_t>(range.second, bound) - range.first + 1;
    const int64_t size = std::max<int64_t>(kMinPieceFrames, (within + count - 1) / count);
    for (const auto& range : missing) {
        for (int64_t begin = range.first; begin <= range.second; begin += size) {
            int64_t end = std::min<int64_t>(range.second, begin + size - 1);
            if (end >= bound) end = range.second;
            pieces.emplace_back(static_cast<int32_t>(begin), static_cast<int32_t>(end));
            if (end == range.second) break;
        }
        if (range.second >= bound) break;
    }
    if (pieces.back().second < missing.back().second) pieces.back().second = missing.back().second;
    return pieces;
}

// The first job of a request: what is missing, how to cut it, and the first piece.
void planRequest(TaskCore& core, const std::shared_ptr<AudioRequest>& request) {
    AudioRequest& r = *request;
    if (core.stopping(r)) {
        core.finish(r, 0, BsTaskCancelled);
        return;
    }
    // The file must still be what append() saw; otherwise the request is not
    // decoded against the new content: the store drops the old content's
    // frames and the client submits again (status 7).
    r.planned = mediaFileIdentity(r.path.c_str());
    if (r.planned != r.appended) {
        r.store_->adoptContent(r.planned);
        ZOR_LOG(IBsLogger::Info, "ZOR::AudioWaveExtractTask::decode",
                "token:%lld '%s' changed on disk since it was appended", static_cast<long long>(r.token()),
                r.path.c_str());
        core.finish(r, 0, BsTaskResubmit);
        return;
    }
    r.generation = r.store_->adoptContent(r.planned);
    auto missing = r.store_->missingRanges(r.first, r.last);
    if (missing.empty()) {
        core.finish(r, 100, BsTaskFinished);
        return;
    }

    // How pieces decode: seeking in a sample-exact container with a known
    // origin (a known origin says both: it is only measured in such
    // containers), by the packet index of an MP3 stream, or from the start.
    const auto stop = [&core, &r] { return core.stopping(r); };
    PieceMode mode = r.store_->decodeOrigin(r.generation, nullptr, nullptr) ? PieceMode::Seeking : PieceMode::FromStart;
    std::shared_ptr<const PacketIndex> index;
    if (mode == PieceMode::FromStart) index = keptPacketIndex(r.path, r.stream, r.planned);
    if (mode == PieceMode::FromStart && !index) {
        MediaDecoder decoder;
        std::string problem;
        if (!decoder.open(r.path, r.stream, &problem)) {
            ZOR_LOG(IBsLogger::Error, "ZOR::AudioWaveExtractTask::decode", "token:%lld cannot open %s",
                    static_cast<long long>(r.token()), problem.c_str());
            noteMediaFailure(r.path.c_str(), DmTrackAudio, problem.c_str());
            core.finish(r, 0, BsTaskFailed);
            return;
        }
        if (sampleExactContainer(decoder.format())) {
            FramePtr frame = newFrame();
            int result = frame ? 0 : AVERROR(ENOMEM);
            while (result == 0) {
                result = decoder.next(frame.get(), stop);
                if (result == 0 && frame->nb_samples > 0 && frame->sample_rate > 0) break;
            }
            if (result == 0 && frame->best_effort_timestamp != AV_NOPTS_VALUE) {
                r.store_->setDecodeOrigin(r.generation, frame->best_effort_timestamp, frame->sample_rate);
                mode = PieceMode::Seeking;
            }
        } else {
            std::string why;
            const auto started = std::chrono::steady_clock::now();
            index = packetIndexFor(r.path, r.stream, r.planned, &decoder, stop, &why);
            if (index)
                ZOR_LOG(IBsLogger::Debug, "ZOR::AudioWaveExtractTask::plan", "'%s': %zu packets indexed in %.1f ms",
                        r.path.c_str(), index->packets(),
                        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - started).count());
            else if (!why.empty())
                ZOR_LOG(IBsLogger::Debug, "ZOR::AudioWaveExtractTask::plan", "'%s' is decoded from the start: %s",
                        r.path.c_str(), why.c_str());
        }
    }
    if (index && !index->distrusted()) {
        // The index knows where the stream ends: nothing beyond is decoded.
        mode = PieceMode::Indexed;
        const int64_t endFrame = frameOfSample(index->totalSamples() - 1, index->sampleRate()) + 1;
        if (endFrame <= INT32_MAX) r.store_->setEndFrame(r.generation, static_cast<int32_t>(endFrame));
        missing = r.store_->missingRanges(r.first, r.last);
        if (missing.empty()) {
            core.finish(r, 100, BsTaskFinished);
            return;
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
    const int64_t workers = static_cast<int64_t>(std::max<size_t>(1, core.workerCount()));
    if (mode == PieceMode::FromStart) {
        pieces.emplace_back(missing.front().first, missing.back().second);
        total = int64_t{missing.back().second} - missing.front().first + 1;
    } else if (mode == PieceMode::Indexed) {
        pieces = cutPieces(missing, int64_t{INT32_MAX}, kIndexedPiecesPerWorker * workers);
    } else {
        // Cut what the stream is expected to hold (with a second to spare);
        // the last piece runs on to the end of the range, where the stream
        // ends. Frames beyond the end cost no decoding.
        pieces = cutPieces(missing, r.frameEstimate > 0 ? r.frameEstimate + 25 : int64_t{INT32_MAX}, 2 * workers);
    }
    r.framesTotal.store(total, std::memory_order_release);
    r.piecesLeft.store(static_cast<int32_t>(pieces.size()), std::memory_order_release);
    ZOR_LOG(IBsLogger::Debug, "ZOR::AudioWaveExtractTask::plan", "token:%lld %zu pieces, %lld frames, %s",
            static_cast<long long>(r.token()), pieces.size(), static_cast<long long>(total),
            mode == PieceMode::Seeking   ? "seeking"
            : mode == PieceMode::Indexed ? "by packet index"
                                         : "from the start");
    for (size_t i = 1; i < pieces.size(); ++i) {
        const auto piece = pieces[i];
        TaskCore* owner = &core;
        const bool queued = core.submit(request, [owner, request, piece, mode, index] {
            runPiece(*owner, request, piece.first, piece.second, mode, index);
        });
        // Shut down meanwhile: the piece counts as stopped.
        if (!queued) pieceEnded(core, r, PieceOutcome::Stopped, std::string());
    }
    runPiece(core, request, pieces[0].first, pieces[0].second, mode, index);
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
            ZOR_LOG(IBsLogger::Warning, "ZOR::AudioWaveExtractTask::append", "rejected: no record, token or clip");
            return kTaskBadArgument;
        }
        auto* source = static_cast<IDmMediaSource*>(record->clip->queryInterface("IDmMediaSource"));
        if (source == nullptr) {
            ZOR_LOG(IBsLogger::Warning, "ZOR::AudioWaveExtractTask::append", "rejected: clip '%s' has no media file",
                    record->clip->name() != nullptr ? record->clip->name() : "");
            return kTaskNoMedia;
        }
        const int32_t stream = source->resolvedStream(DmTrackAudio);
        IDmAudioWaveStore* store = source->waveStore();
        if (stream < 0 || store == nullptr) {
            ZOR_LOG(IBsLogger::Warning, "ZOR::AudioWaveExtractTask::append", "rejected: no audio to decode: %s",
                    source->streamProblem(DmTrackAudio));
            return kTaskNoMedia;
        }
        if (record->rateNum <= 0 || record->rateDen <= 0 ||
            record->rateNum != IDmAudioWaveStore::kFrameRateNum * record->rateDen) {
            ZOR_LOG(IBsLogger::Warning, "ZOR::AudioWaveExtractTask::append",
                    "rejected: '%s': frame rate %lld/%lld (only 25/1)", source->mediaPath(),
                    static_cast<long long>(record->rateNum), static_cast<long long>(record->rateDen));
            return kTaskUnsupported;
        }
        if (record->endFrame < record->beginFrame) {
            ZOR_LOG(IBsLogger::Warning, "ZOR::AudioWaveExtractTask::append", "rejected: '%s': frames [%d %d]",
                    source->mediaPath(), record->beginFrame, record->endFrame);
            return kTaskBadArgument;
        }
        // The declared duration only shapes the pieces; the stream's end is
        // found by decoding.
        int64_t expectedFrames = 0;
        if (auto* audio = static_cast<IDmAudioFeature*>(record->clip->queryInterface("IDmAudioFeature")))
            expectedFrames = std::max<int64_t>(0, audio->mediaDuration() / (kCnsPerSecond / 25) + 1);
        auto request = std::make_shared<AudioRequest>(TaskCore::newToken(), source->mediaPath(), stream, store,
                                                      std::max(0, record->beginFrame), record->endFrame, expectedFrames,
                                                      mediaFileIdentity(source->mediaPath()));
        TaskCore* owner = core_.get();
        const int32_t result = core_->add(request, [owner, request] { planRequest(*owner, request); });
        if (result != kTaskOk) {
            ZOR_LOG(IBsLogger::Warning, "ZOR::AudioWaveExtractTask::append", "rejected: the task is shut down");
            return result;
        }
        *token = request->token();
        ZOR_LOG(IBsLogger::Info, "ZOR::AudioWaveExtractTask::append", "token:%lld '%s' stream %d frames [%d %d]",
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
