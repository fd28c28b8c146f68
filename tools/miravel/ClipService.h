// Timeline documents and the clip thumbnail service as the commands use them:
// loading a document, finding clips by name, asking the service for audio and
// video thumbnails and waiting for its answers.
//
// The service answers on its own threads (audio on the audio builder's worker,
// video on the frame task's threads, cached pictures on the asking thread
// while it asks). The collectors below copy what arrives under their own
// mutex and wake the command's thread, which asks again where the service
// said an answer went stale, writes files and reports progress; no collector
// calls into the service from a callback.
#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "Cli.h"
#include "DataModel/DataModel.h"
#include "Miravel/Miravel.h"

namespace miravel {

// A timeline document loaded for one command, with one clip thumbnail
// service. Failure (the loader's one line naming the file) when the document
// cannot be read.
class TimelineSession {
public:
    explicit TimelineSession(std::string document);
    ~TimelineSession();
    TimelineSession(const TimelineSession&) = delete;
    TimelineSession& operator=(const TimelineSession&) = delete;

    const std::string& document() const { return document_; }
    ZOR::IDmTimeline* timeline() const { return timeline_; }
    ZOR::IBsClipThumbnailService* service() const { return service_; }

    // The clip of the document's tracks with this name. UsageError, listing
    // the clips' names, when there is none or more than one.
    ZOR::IDmClip* clipNamed(const std::string& name) const;

    // Failure: "<document>: clip '<name>' has no <what>", with the reason
    // when the clip's media file cannot be read.
    [[noreturn]] void failClipLacks(const std::string& name, const std::string& what) const;

private:
    std::string document_;
    ZOR::IDmTimeline* timeline_ = nullptr;             // one reference
    ZOR::IBsClipThumbnailService* service_ = nullptr;  // one reference
};

// The clip's range in clip time: [mark in, mark in + its length on the
// timeline).
std::pair<int64_t, int64_t> clipTimeRange(ZOR::IDmClip* clip);

// A name made safe as part of a file name: letters, digits, '.', '-' and
// '_' are kept, anything else becomes '_'.
std::string safeFileName(const std::string& name);

// Wakes the command's thread when a callback brought something.
class Wakeup {
public:
    void notify();
    // Returns when notify() was called since the last return, or at until.
    void waitUntil(std::chrono::steady_clock::time_point until);

private:
    std::mutex mutex_;  // innermost: guards pending_
    std::condition_variable changed_;
    bool pending_ = false;
};

// Audio thumbnails of audio clips (getBaseAudioClip), each clip at most once.
class AudioThumbnails final : public ZOR::IBsAudioClipThumbnailCallback {
public:
    struct Query {
        ZOR::IDmClip* clip = nullptr;  // an audio clip; no reference taken
        std::string name;              // for messages
        int64_t begin = 0;
        int64_t end = 0;
        uint32_t points = 1;
    };
    struct Answer {
        int64_t begin = 0;
        int64_t end = 0;
        std::vector<float> values;
    };

    // Registers with the service; the destructor unregisters.
    AudioThumbnails(ZOR::IBsClipThumbnailService* service, Wakeup& wakeup);
    ~AudioThumbnails();
    AudioThumbnails(const AudioThumbnails&) = delete;
    AudioThumbnails& operator=(const AudioThumbnails&) = delete;

    // Sends every query.
    void ask(std::vector<Query> queries);
    // On the command's thread: asks again what went stale. The number of
    // queries answered.
    size_t step();
    size_t total() const { return queries_.size(); }
    // Query i's answer, once step() counted them all.
    const Answer& answer(size_t i) const { return answers_[i]; }
    // The names of the clips without an answer, quoted, comma separated.
    std::string missing();
    // The first clip not answered yet whose media the host could not read or
    // decode, as "clip '<name>': <cause>"; empty when none.
    std::string failure();

    int32_t onAudioThumbnailNotice(ZOR::IDmClip* clip) override;
    int32_t onAudioThumbnailChanged(ZOR::IDmClip* audioClip) override;
    int32_t onAudioThumbnailData(ZOR::IDmClip* clip, int64_t beginCns, int64_t endCns, const float* samples,
                                 int32_t count) override;

private:
    void askOne(size_t i);
    void markStale(ZOR::IDmClip* clip);

    ZOR::IBsClipThumbnailService* service_;
    Wakeup& wakeup_;
    std::vector<Query> queries_;  // set by ask() before any answer can come
    std::mutex mutex_;            // after the service's callback lock: guards the three below
    std::vector<Answer> answers_;
    std::vector<bool> answered_;
    std::vector<bool> stale_;  // to be asked again
};

// Video thumbnails of video clips, each clip at most once.
class VideoThumbnails final : public ZOR::IBsVideoClipThumbnailCallback {
public:
    struct Query {
        ZOR::IDmClip* clip = nullptr;  // no reference taken
        std::string name;              // for messages
        int32_t width = 1;
        int32_t height = 1;
        std::vector<int64_t> times;  // media times, cns
        bool refresh = false;
    };
    struct Picture {
        size_t query = 0;
        int64_t time = 0;
        std::vector<unsigned char> rgba;  // width x height x 4
    };

    VideoThumbnails(ZOR::IBsClipThumbnailService* service, Wakeup& wakeup);
    ~VideoThumbnails();
    VideoThumbnails(const VideoThumbnails&) = delete;
    VideoThumbnails& operator=(const VideoThumbnails&) = delete;

    void ask(std::vector<Query> queries);
    // On the command's thread: the pictures delivered since the last call, in
    // delivery order, each requested time once.
    std::vector<Picture> take();
    // The distinct times requested, and those delivered so far.
    size_t total() const { return total_; }
    size_t delivered();
    // What is missing: each clip with its times, for messages.
    std::string missing();
    // The first clip with pictures missing whose media the host could not
    // read or decode, as "clip '<name>': <cause>"; empty when none.
    std::string failure();

    int32_t onVideoThumbnailNotice(void* value) override;
    int32_t onVideoThumbnailChanged(ZOR::IDmClip* clip) override;
    int32_t onVideoThumbnailData(ZOR::IDmClip* clip, int32_t width, int32_t height, ZOR::IZORLonglongList* frames,
                                 ZOR::IZORPByteList* pictures, int32_t count, int32_t bytesPerPicture) override;

private:
    ZOR::IBsClipThumbnailService* service_;
    Wakeup& wakeup_;
    std::vector<Query> queries_;  // set by ask() before it sends anything
    size_t total_ = 0;
    std::mutex mutex_;                            // after the service's callback lock: guards the two below
    std::vector<std::set<int64_t>> outstanding_;  // per query
    std::vector<Picture> arrived_;
};

// The cause the host noted for a clip's media of this kind (DmTrackAudio or
// DmTrackVideo): "'<path>': <cause>"; empty when it reads.
std::string mediaFailureOf(ZOR::IDmClip* clip, int32_t kind);

// Wakes the command's thread whenever the host notes a media failure, while
// it lives.
class MediaFailureWatch {
public:
    explicit MediaFailureWatch(Wakeup& wakeup);
    ~MediaFailureWatch();
    MediaFailureWatch(const MediaFailureWatch&) = delete;
    MediaFailureWatch& operator=(const MediaFailureWatch&) = delete;

private:
    int64_t id_;
};

// Waits until every query of audio and video was answered, handing pictures
// to onPictures as they come and showing progress; Failure naming the
// document and what is missing when timeout passed first.
template <class OnPictures>
void waitForThumbnails(const std::string& document, AudioThumbnails* audio, VideoThumbnails* video, Wakeup& wakeup,
                       std::chrono::seconds timeout, Progress& progress, OnPictures onPictures) {
    // A clip whose media cannot be read or decoded ends the wait at once:
    // the service does not tell of failures, the host does.
    const MediaFailureWatch watch(wakeup);
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    const size_t total = (audio != nullptr ? audio->total() : 0) + (video != nullptr ? video->total() : 0);
    size_t shown = 0;  // the bar does not go back when an answer is asked for again
    size_t answered = 0;
    const bool done = waitWithProgress(
        deadline, progress,
        [&] {
            answered = audio != nullptr ? audio->step() : 0;
            // Counted before taking, so that whatever was counted is taken.
            const size_t delivered = answered + (video != nullptr ? video->delivered() : 0);
            if (video != nullptr) onPictures(video->take());
            shown = std::max(shown, delivered);
            progress.update(total == 0 ? 1.0 : static_cast<double>(shown) / static_cast<double>(total));
            if (delivered == total) return true;
            std::string failed = audio != nullptr ? audio->failure() : std::string();
            if (failed.empty() && video != nullptr) failed = video->failure();
            if (!failed.empty()) throw Failure(document + ": " + failed);
            return false;
        },
        [&](std::chrono::steady_clock::time_point until) { wakeup.waitUntil(until); });
    if (done) return;
    std::string what;
    if (audio != nullptr && answered < audio->total()) what = "no audio thumbnail of " + audio->missing();
    if (video != nullptr && video->delivered() < video->total()) {
        if (!what.empty()) what += "; ";
        what += "no picture of " + video->missing();
    }
    throw Failure(document + ": " + what + " within " + std::to_string(timeout.count()) + " s");
}

}  // namespace miravel
