// The thumb adapter: pictures of a media file, or of a timeline, at given
// times, for thumbnails.
//
// Return codes: 0 on success; 1001 for a bad argument or a call out of order
// (no media set, not open, no output size, a buffer too small); 1002 when the
// media cannot be read or decoded (with a log line naming the file and the
// cause).
//
// A file is opened by open() and stays open, decoder and all, until close()
// or the next open(): the pictures of one item come from one decoder, which
// moves forward between pictures where it can (see FrameSession). A timeline
// is opened without reading anything; each picture is that of the clip shown
// at the time, and the decoders of the clips' files last met are kept open
// the same way. The pictures of a file that the caller plans with
// readAhead() are decoded ahead on lanes of their own (see ReadAhead), one a
// core; frameAt() then takes them from there.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "Adapter/Adapter.h"
#include "Common/ZorInternalComUtility.h"
#include "DataModel/DmMedia.h"
#include "DataModel/DmMediaInternal.h"
#include "DataModel/DmTimeline.h"
#include "ThumbAdapterInternal.h"
#include "ThumbFrameSession.h"
#include "ThumbReadAhead.h"

ZOR_LOG_SOURCE("platform/Adapter/ThumbAdapter")

namespace ZOR {

namespace {

constexpr int32_t kOk = 0;
constexpr int32_t kMediaFailed = 1002;

// Output sizes taken: each side 1..16384, at most 8192 x 8192 pixels in all.
constexpr int32_t kLargestSide = 16384;
constexpr int64_t kLargestArea = int64_t{8192} * 8192;
// Times beyond this (about three years, cns) are taken as this: far past any
// media, and far from overflowing any time base.
constexpr int64_t kFarthestTime = 1'000'000'000'000'000;
// Decoders kept open for the clips of a timeline.
constexpr size_t kClipSessions = 3;
// Lanes that read pictures of a file ahead: one a core, within reason (each
// holds a decoder of its own).
constexpr size_t kMostLanes = 4;
// The longest media identifier read from a clip without an IDmMediaSource.
constexpr int32_t kLongestMediaId = 1 << 16;

int64_t clampTime(int64_t time) { return std::clamp(time, -kFarthestTime, kFarthestTime); }

bool trackVisible(IDmTrack* track) {
    ZorProperty visible;
    if (track->getProperty(trackKey::visible, &visible) != 0 || visible.kind == ZorProperty::None) return true;
    return visible.boolValue();
}

// The clip a timeline shows at time: on the topmost visible video track that
// has a clip there. Null when none has.
IDmClip* clipShownAt(IDmTimeline* timeline, int64_t time) {
    for (int32_t index = timeline->trackCount() - 1; index >= 0; --index) {
        IDmTrack* track = timeline->track(index);
        if (track == nullptr || track->trackKind() != DmTrackVideo || !trackVisible(track)) continue;
        const int32_t clips = timeline->clipCount(index);
        for (int32_t c = 0; c < clips; ++c) {
            IDmClip* clip = timeline->clip(index, c);
            if (clip != nullptr && beginTimeOfClip(clip) <= time && time < endTimeOfClip(clip)) return clip;
        }
    }
    return nullptr;
}

// The file and video stream of a clip; false with *problem when it has none.
bool clipMedia(IDmClip* clip, std::string* path, int* stream, std::string* problem) {
    *stream = -1;
    if (auto* source = static_cast<IDmMediaSource*>(clip->queryInterface("IDmMediaSource"))) {
        const char* text = source->mediaPath();
        *path = text != nullptr ? text : "";
        *stream = source->resolvedStream(DmTrackVideo);
        if (!path->empty() && *stream < 0) {
            const char* cause = source->streamProblem(DmTrackVideo);
            *problem = cause != nullptr && *cause != '\0' ? cause : "'" + *path + "': no video stream";
            return false;
        }
    } else {
        path->clear();
        for (int32_t size = 4096; size <= kLongestMediaId; size *= 4) {
            std::vector<char> text(static_cast<size_t>(size), '\0');
            const int32_t result = clip->mediaId(text.data(), size);
            text.back() = '\0';
            *path = text.data();
            if (result == 0 || path->size() + 1 < static_cast<size_t>(size)) break;
        }
        if (auto* video = static_cast<IDmVideoFeature*>(clip->queryInterface("IDmVideoFeature")))
            *stream = video->videoStreamIndex();
    }
    if (path->empty()) {
        const char* id = clip->clipId();
        *problem = std::string("clip '") + (id != nullptr ? id : "") + "' has no media";
        return false;
    }
    return true;
}

class ThumbAdapter final : public RefCnt<void>, public virtual IThumbAdapter, public virtual IThumbAdapterInternal {
public:
    ZOR_IMPLEMENT_REFCNT

    ThumbAdapter() = default;
    ~ThumbAdapter() override = default;

    void* queryInterface(const char* name) override {
        if (name == nullptr) return nullptr;
        if (std::strcmp(name, "IThumbAdapter") == 0 || std::strcmp(name, "IDmBaseObj") == 0)
            return static_cast<IThumbAdapter*>(this);
        if (std::strcmp(name, "IThumbAdapterInternal") == 0) return static_cast<IThumbAdapterInternal*>(this);
        if (std::strcmp(name, "RefCnt") == 0) return static_cast<RefCnt<void>*>(this);
        return nullptr;
    }

    int32_t setMediaPath(const char* path) override {
        if (path == nullptr) return kResultFailure;
        std::lock_guard<std::mutex> lock(mutex_);
        nextTimeline_.reset();
        nextPath_ = path;
        nextIsPath_ = true;
        return kOk;
    }

    int32_t setMediaObject(int64_t handle) override {
        if (handle == 0) return kResultFailure;
        std::lock_guard<std::mutex> lock(mutex_);
        // The handle is the timeline's IDmTimeline pointer value.
        auto* timeline = reinterpret_cast<IDmTimeline*>(static_cast<intptr_t>(handle));
        nextTimeline_ = ZorRef<IDmTimeline>::share(timeline);
        if (!nextTimeline_) {
            ZOR_LOG(IBsLogger::Warning, "ZOR::ThumbAdapter::setMediaObject", "the timeline %lld is gone",
                    static_cast<long long>(handle));
            return kResultFailure;
        }
        nextPath_.clear();
        nextIsPath_ = false;
        return kOk;
    }

    int32_t setOutputSize(int32_t width, int32_t height) override {
        if (width < 1 || height < 1 || width > kLargestSide || height > kLargestSide ||
            int64_t{width} * height > kLargestArea)
            return kResultFailure;
        std::lock_guard<std::mutex> lock(mutex_);
        width_ = width;
        height_ = height;
        stopReadAhead();
        return kOk;
    }

    int32_t outputSize(int32_t* width, int32_t* height) override {
        if (width == nullptr || height == nullptr) return kResultFailure;
        std::lock_guard<std::mutex> lock(mutex_);
        *width = width_;
        *height = height_;
        return kOk;
    }

    int32_t setSeekMode(int32_t mode) override {
        if (mode != ThumbSeekExact && mode != ThumbSeekKeyframe) return kResultFailure;
        std::lock_guard<std::mutex> lock(mutex_);
        mode_ = mode;
        stopReadAhead();
        return kOk;
    }

    int32_t seekMode(int32_t* mode) override {
        if (mode == nullptr) return kResultFailure;
        std::lock_guard<std::mutex> lock(mutex_);
        *mode = mode_;
        return kOk;
    }

    int32_t open(int32_t streamId) override {
        std::lock_guard<std::mutex> lock(mutex_);
        closeLocked();
        if (nextIsPath_) {
            auto session = std::make_unique<thumb::FrameSession>(nextPath_, streamId, &counts_);
            session->setSkipping(skipping_);
            std::string problem;
            if (!session->open(&problem)) {
                ZOR_LOG(IBsLogger::Warning, "ZOR::ThumbAdapter::open", "cannot open %s", problem.c_str());
                noteMediaFailure(nextPath_.c_str(), DmTrackVideo, problem.c_str());
                return kMediaFailed;
            }
            file_ = std::move(session);
            return kOk;
        }
        if (nextTimeline_.get() != nullptr) {
            timeline_ = ZorRef<IDmTimeline>::share(nextTimeline_.get());
            if (!timeline_) return kResultFailure;
            return kOk;
        }
        ZOR_LOG(IBsLogger::Warning, "ZOR::ThumbAdapter::open", "no media set");
        return kResultFailure;
    }

    int32_t close() override {
        std::lock_guard<std::mutex> lock(mutex_);
        closeLocked();
        return kOk;
    }

    int32_t frameAt(int64_t time, unsigned char* buffer, int64_t bufferSize) override {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!file_ && timeline_.get() == nullptr) {
            ZOR_LOG(IBsLogger::Warning, "ZOR::ThumbAdapter::frameAt", "not open");
            return kResultFailure;
        }
        if (width_ < 1 || height_ < 1) {
            ZOR_LOG(IBsLogger::Warning, "ZOR::ThumbAdapter::frameAt", "no output size set");
            return kResultFailure;
        }
        const int64_t bytes = int64_t{width_} * height_ * 4;
        if (buffer == nullptr || bufferSize < bytes) {
            ZOR_LOG(IBsLogger::Warning, "ZOR::ThumbAdapter::frameAt", "a buffer of %lld bytes for %dx%d",
                    static_cast<long long>(bufferSize), width_, height_);
            return kResultFailure;
        }
        time = clampTime(time);
        const bool keyframe = mode_ == ThumbSeekKeyframe;
        std::string problem;
        if (file_ && aheadStarted_) {
            // A picture planned ahead is taken from its lane (waiting for it
            // when it is being decoded); one that is not is decoded here.
            const int taken = ahead_->take(time, buffer, &problem);
            if (taken > 0) return kOk;
            if (taken < 0) {
                ZOR_LOG(IBsLogger::Warning, "ZOR::ThumbAdapter::frameAt", "no picture at %lld: %s",
                        static_cast<long long>(time), problem.c_str());
                noteMediaFailure(file_->path().c_str(), DmTrackVideo, problem.c_str());
                return kMediaFailed;
            }
        }
        if (file_) {
            const int result = file_->pictureAt(time, keyframe, width_, height_, buffer, &problem);
            if (result != 0) {
                ZOR_LOG(IBsLogger::Warning, "ZOR::ThumbAdapter::frameAt", "no picture at %lld: %s",
                        static_cast<long long>(time), problem.c_str());
                // Nothing of the file could be decoded (not a picture given
                // up or one that could not be converted).
                if (result != AVERROR_EXIT && result != AVERROR(EINVAL))
                    noteMediaFailure(file_->path().c_str(), DmTrackVideo, problem.c_str());
                return kMediaFailed;
            }
            return kOk;
        }
        IDmClip* clip = clipShownAt(timeline_.get(), time);
        if (clip == nullptr) {
            std::memset(buffer, 0, static_cast<size_t>(bytes));
            return kOk;
        }
        std::string path;
        int stream = -1;
        if (!clipMedia(clip, &path, &stream, &problem)) {
            ZOR_LOG(IBsLogger::Warning, "ZOR::ThumbAdapter::frameAt", "no picture at %lld: %s",
                    static_cast<long long>(time), problem.c_str());
            return kMediaFailed;
        }
        // The clip's media position at the time, as the clip plays it (speed,
        // speed parts and direction applied).
        const int64_t sourceTime =
            clampTime(mediaTimeOfClip(clip, markInTimeOfClip(clip) + (time - beginTimeOfClip(clip))));
        thumb::FrameSession* session = clipSession(path, stream);
        if (session->pictureAt(sourceTime, keyframe, width_, height_, buffer, &problem) != 0) {
            ZOR_LOG(IBsLogger::Warning, "ZOR::ThumbAdapter::frameAt", "no picture at %lld (media %lld): %s",
                    static_cast<long long>(time), static_cast<long long>(sourceTime), problem.c_str());
            return kMediaFailed;
        }
        return kOk;
    }

    int32_t mediaDuration(int64_t* duration, int32_t /*reserved*/) override {
        if (duration == nullptr) return kResultFailure;
        std::lock_guard<std::mutex> lock(mutex_);
        if (file_) {
            *duration = file_->duration();
            return kOk;
        }
        if (timeline_.get() != nullptr) {
            *duration = timeline_.get()->duration();
            return kOk;
        }
        return kResultFailure;
    }

    int32_t frameRate(int64_t* num, int64_t* den, int32_t /*reserved*/) override {
        if (num == nullptr || den == nullptr) return kResultFailure;
        std::lock_guard<std::mutex> lock(mutex_);
        if (file_) return file_->frameRate(num, den) ? kOk : kMediaFailed;
        if (timeline_.get() != nullptr) return timelineFrameRate(num, den) ? kOk : kMediaFailed;
        return kResultFailure;
    }

    int32_t readAhead(const int64_t* times, int32_t count) override {
        if (count < 0 || (count > 0 && times == nullptr)) return kResultFailure;
        std::lock_guard<std::mutex> lock(mutex_);
        // Only a file is read ahead; the pictures of a timeline come from
        // the clips' files one by one.
        if (!file_ || width_ < 1 || height_ < 1) return kOk;
        if (!ahead_) {
            const size_t lanes = std::clamp<size_t>(std::thread::hardware_concurrency(), 1, kMostLanes);
            try {
                ahead_ = std::make_unique<thumb::ReadAhead>(lanes);
            } catch (const std::system_error& error) {
                ZOR_LOG(IBsLogger::Warning, "ZOR::ThumbAdapter::readAhead", "no thread to read ahead: %s",
                        error.what());
                return kOk;
            }
        }
        if (!aheadStarted_) {
            ahead_->start(file_->path(), file_->requestedStream(), width_, height_, mode_ == ThumbSeekKeyframe,
                          skipping_);
            aheadStarted_ = true;
        }
        std::vector<int64_t> clamped(times, times + count);
        for (int64_t& time : clamped) time = clampTime(time);
        ahead_->plan(clamped.data(), clamped.size());
        return kOk;
    }

    ThumbDecodeCounts decodeCounts() override {
        std::lock_guard<std::mutex> lock(mutex_);
        ThumbDecodeCounts total = counts_;
        if (ahead_) total += ahead_->counts();
        return total;
    }

    void waitForReadAhead() override {
        // Not under mutex_: the lanes never take it, and a caller may hold
        // the adapter busy meanwhile.
        thumb::ReadAhead* ahead = nullptr;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            ahead = ahead_.get();
        }
        if (ahead != nullptr) ahead->waitUntilIdle();
    }

    void setFrameSkipping(bool enable) override {
        std::lock_guard<std::mutex> lock(mutex_);
        skipping_ = enable;
        stopReadAhead();
        if (file_) file_->setSkipping(enable);
        for (auto& session : clipSessions_) session->setSkipping(enable);
    }

private:
    // What was planned ahead is forgotten (a new plan starts the lanes on
    // the file open then, with the size and mode then).
    void stopReadAhead() {
        if (aheadStarted_) ahead_->stop();
        aheadStarted_ = false;
    }

    void closeLocked() {
        stopReadAhead();
        file_.reset();
        clipSessions_.clear();
        timeline_.reset();
    }

    // The decoder of a clip's file, kept open with those of the last few
    // files met (the most recent first).
    thumb::FrameSession* clipSession(const std::string& path, int stream) {
        for (auto it = clipSessions_.begin(); it != clipSessions_.end(); ++it) {
            if ((*it)->path() == path && (*it)->requestedStream() == stream) {
                clipSessions_.splice(clipSessions_.begin(), clipSessions_, it);
                return clipSessions_.front().get();
            }
        }
        clipSessions_.push_front(std::make_unique<thumb::FrameSession>(path, stream, &counts_));
        clipSessions_.front()->setSkipping(skipping_);
        if (clipSessions_.size() > kClipSessions) clipSessions_.pop_back();
        return clipSessions_.front().get();
    }

    // The frame rate of the first clip with video, from the top track down.
    bool timelineFrameRate(int64_t* num, int64_t* den) {
        IDmTimeline* timeline = timeline_.get();
        for (int32_t index = timeline->trackCount() - 1; index >= 0; --index) {
            IDmTrack* track = timeline->track(index);
            if (track == nullptr || track->trackKind() != DmTrackVideo || !trackVisible(track)) continue;
            const int32_t clips = timeline->clipCount(index);
            for (int32_t c = 0; c < clips; ++c) {
                IDmClip* clip = timeline->clip(index, c);
                auto* video =
                    clip != nullptr ? static_cast<IDmVideoFeature*>(clip->queryInterface("IDmVideoFeature")) : nullptr;
                int64_t rateNum = 0;
                int64_t rateDen = 0;
                if (video != nullptr && video->frameRate(&rateNum, &rateDen) == 0 && rateNum > 0 && rateDen > 0) {
                    *num = rateNum;
                    *den = rateDen;
                    return true;
                }
            }
        }
        return false;
    }

    std::mutex mutex_;
    // What open() opens.
    std::string nextPath_;
    bool nextIsPath_ = false;
    ZorRef<IDmTimeline> nextTimeline_;
    // What is open: a file, or a timeline and the files of its clips.
    std::unique_ptr<thumb::FrameSession> file_;
    ZorRef<IDmTimeline> timeline_;
    std::list<std::unique_ptr<thumb::FrameSession>> clipSessions_;

    int32_t width_ = 0;
    int32_t height_ = 0;
    int32_t mode_ = ThumbSeekExact;
    bool skipping_ = true;
    ThumbDecodeCounts counts_;
    // Lanes reading the open file's planned pictures ahead; made on the
    // first plan. Declared last: its lanes end before the rest goes.
    std::unique_ptr<thumb::ReadAhead> ahead_;
    bool aheadStarted_ = false;
};

}  // namespace

IThumbAdapter* createThumbAdapter() { return zorCreateObject<ThumbAdapter, IThumbAdapter>(); }

}  // namespace ZOR
