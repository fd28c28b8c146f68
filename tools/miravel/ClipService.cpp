#include "ClipService.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <utility>

#include "Adapter/Adapter.h"
#include "DataModel/DmMedia.h"
#include "DataModel/DmMediaInternal.h"
#include "DataModel/DmTimeline.h"

namespace miravel {

// ---------------------------------------------------------------------------
// The document

namespace {

// A warning as one line of stderr: control characters (a document path may
// hold any) are written as C escapes.
std::string oneLine(const std::string& text) {
    std::string line;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '\n') {
            line += "\\n";
        } else if (c == '\r') {
            line += "\\r";
        } else if (c == '\t') {
            line += "\\t";
        } else if (byte < 0x20 || byte == 0x7f) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\x%02x", byte);
            line += escaped;
        } else {
            line += c;
        }
    }
    return line;
}

}  // namespace

TimelineSession::TimelineSession(std::string document) : document_(std::move(document)) {
    std::string error;
    std::vector<std::string> warnings;
    timeline_ = ZOR::loadTimelineDocument(document_.c_str(), &error, &warnings);
    if (timeline_ == nullptr) throw Failure(error.empty() ? document_ + ": cannot read" : error);
    for (const std::string& warning : warnings)
        std::fprintf(stderr, "miravel: warning: %s\n", oneLine(warning).c_str());
    if (!warnings.empty()) std::fflush(stderr);
    service_ = createBsClipThumbnaiService();
    if (service_ == nullptr) {
        timeline_->Release();
        throw Failure("the clip thumbnail service could not be created");
    }
}

TimelineSession::~TimelineSession() {
    // The service goes first: it holds the timeline's thumbnail work.
    service_->Release();
    timeline_->Release();
}

ZOR::IDmClip* TimelineSession::clipNamed(const std::string& name) const {
    std::vector<ZOR::IDmClip*> found;
    std::vector<std::string> names;
    for (int32_t t = 0; t < timeline_->trackCount(); ++t) {
        for (int32_t i = 0; i < timeline_->clipCount(t); ++i) {
            ZOR::IDmClip* clip = timeline_->clip(t, i);
            if (clip == nullptr) continue;
            const std::string clipName = clip->name() != nullptr ? clip->name() : "";
            if (clipName == name) found.push_back(clip);
            if (std::find(names.begin(), names.end(), clipName) == names.end()) names.push_back(clipName);
        }
    }
    if (found.size() == 1) return found.front();
    std::string listed;
    for (const std::string& each : names) {
        if (!listed.empty()) listed += ", ";
        listed += "'" + each + "'";
    }
    std::string message = found.empty() ? "no clip named '" : "more than one clip named '";
    message += name;
    message += "' in ";
    message += document_;
    message += names.empty() ? std::string("; it has no clips") : "; its clips: " + listed;
    throw UsageError(message);
}

void TimelineSession::failClipLacks(const std::string& name, const std::string& what) const {
    std::string message = document_ + ": clip '" + name + "' has no " + what;
    // The reason is asked for again from the media file: the timeline keeps
    // only that the clip has no such stream.
    ZOR::DmTimelineDesc desc;
    std::string error;
    if (ZOR::parseTimelineDocument(document_.c_str(), &desc, &error) == 0) {
        for (const ZOR::DmTrackDesc& track : desc.tracks) {
            for (const ZOR::DmClipDesc& clip : track.clips) {
                if (clip.name != name) continue;
                if (clip.mediaPath.empty()) throw Failure(message + " (its media is missing)");
                ZOR::IDmClip* probe = ZOR::createMediaClip(clip.mediaPath.c_str(), -1, -1, &error);
                if (probe != nullptr) probe->Release();
                if (!error.empty()) throw Failure(message + " (" + error + ")");
                throw Failure(message);
            }
        }
    }
    throw Failure(message);
}

std::pair<int64_t, int64_t> clipTimeRange(ZOR::IDmClip* clip) {
    const int64_t markIn = ZOR::markInTimeOfClip(clip);
    return {markIn, markIn + (ZOR::endTimeOfClip(clip) - ZOR::beginTimeOfClip(clip))};
}

std::string safeFileName(const std::string& name) {
    std::string safe;
    for (const char c : name) {
        const bool kept = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
                          c == '-' || c == '_';
        safe += kept ? c : '_';
    }
    if (safe.empty() || safe.front() == '.') safe.insert(safe.begin(), '_');
    return safe;
}

// ---------------------------------------------------------------------------
// Waking the command's thread

void Wakeup::notify() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        pending_ = true;
    }
    changed_.notify_all();
}

void Wakeup::waitUntil(std::chrono::steady_clock::time_point until) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_until(lock, until, [this] { return pending_; });
    pending_ = false;
}

// ---------------------------------------------------------------------------
// Media failures

std::string mediaFailureOf(ZOR::IDmClip* clip, int32_t kind) {
    auto* source =
        clip != nullptr ? static_cast<ZOR::IDmMediaSource*>(clip->queryInterface("IDmMediaSource")) : nullptr;
    const char* path = source != nullptr ? source->mediaPath() : nullptr;
    std::string cause;
    if (path == nullptr || !ZOR::mediaFailure(path, kind, &cause)) return {};
    return cause;
}

MediaFailureWatch::MediaFailureWatch(Wakeup& wakeup)
    : id_(ZOR::addMediaFailureListener([&wakeup](const ZOR::DmMediaFailure&) { wakeup.notify(); })) {}

MediaFailureWatch::~MediaFailureWatch() { ZOR::removeMediaFailureListener(id_); }

// ---------------------------------------------------------------------------
// Audio

AudioThumbnails::AudioThumbnails(ZOR::IBsClipThumbnailService* service, Wakeup& wakeup)
    : service_(service), wakeup_(wakeup) {
    service_->addAudioClipThumbnailCallback(this);
}

AudioThumbnails::~AudioThumbnails() {
    for (const Query& query : queries_) service_->cancelAudioThumbnailQuery(query.clip);
    service_->removeAudioClipThumbnailCallback(this);
}

void AudioThumbnails::ask(std::vector<Query> queries) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        queries_ = std::move(queries);
        answers_.assign(queries_.size(), Answer{});
        answered_.assign(queries_.size(), false);
        stale_.assign(queries_.size(), false);
    }
    for (size_t i = 0; i < queries_.size(); ++i) askOne(i);
}

void AudioThumbnails::askOne(size_t i) {
    const Query& query = queries_[i];
    service_->queryAudioThumbnailData(query.clip, query.begin, query.end, query.points);
}

size_t AudioThumbnails::step() {
    std::vector<size_t> again;
    size_t answered = 0;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (size_t i = 0; i < queries_.size(); ++i) {
            if (stale_[i]) {
                stale_[i] = false;
                again.push_back(i);
            }
            if (answered_[i]) ++answered;
        }
    }
    for (size_t i : again) askOne(i);
    return answered;
}

std::string AudioThumbnails::missing() {
    std::lock_guard<std::mutex> lock(mutex_);
    std::string names;
    for (size_t i = 0; i < queries_.size(); ++i) {
        if (answered_[i]) continue;
        if (!names.empty()) names += ", ";
        names += "'" + queries_[i].name + "'";
    }
    return names;
}

std::string AudioThumbnails::failure() {
    std::vector<size_t> waiting;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (size_t i = 0; i < queries_.size(); ++i)
            if (!answered_[i]) waiting.push_back(i);
    }
    // queries_ is written only by ask(), on this thread.
    for (size_t i : waiting) {
        const std::string cause = mediaFailureOf(queries_[i].clip, ZOR::DmTrackAudio);
        if (!cause.empty()) return "clip '" + queries_[i].name + "': " + cause;
    }
    return {};
}

void AudioThumbnails::markStale(ZOR::IDmClip* clip) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (size_t i = 0; i < queries_.size(); ++i) {
            if (queries_[i].clip != clip) continue;
            // An answer read while the media was still being extracted: the
            // query is asked again and its answer awaited anew.
            answered_[i] = false;
            stale_[i] = true;
        }
    }
    wakeup_.notify();
}

int32_t AudioThumbnails::onAudioThumbnailNotice(ZOR::IDmClip* clip) {
    markStale(clip);
    return 0;
}

int32_t AudioThumbnails::onAudioThumbnailChanged(ZOR::IDmClip* audioClip) {
    markStale(audioClip);
    return 0;
}

int32_t AudioThumbnails::onAudioThumbnailData(ZOR::IDmClip* clip, int64_t beginCns, int64_t endCns,
                                              const float* samples, int32_t count) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (size_t i = 0; i < queries_.size(); ++i) {
            const Query& query = queries_[i];
            if (query.clip != clip || query.begin != beginCns || query.end != endCns) continue;
            Answer& answer = answers_[i];
            answer.begin = beginCns;
            answer.end = endCns;
            if (samples != nullptr && count > 0)
                answer.values.assign(samples, samples + count);
            else
                answer.values.clear();
            answered_[i] = true;
        }
    }
    wakeup_.notify();
    return 0;
}

// ---------------------------------------------------------------------------
// Video

VideoThumbnails::VideoThumbnails(ZOR::IBsClipThumbnailService* service, Wakeup& wakeup)
    : service_(service), wakeup_(wakeup) {
    service_->addVideoClipThumbnailCallback(this);
}

VideoThumbnails::~VideoThumbnails() {
    for (const Query& query : queries_) service_->cancelVideoThumbnailQuery(query.clip);
    service_->removeVideoClipThumbnailCallback(this);
}

void VideoThumbnails::ask(std::vector<Query> queries) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        queries_ = std::move(queries);
        outstanding_.clear();
        total_ = 0;
        for (const Query& query : queries_) {
            outstanding_.emplace_back(query.times.begin(), query.times.end());
            total_ += outstanding_.back().size();
        }
    }
    for (const Query& query : queries_) {
        if (query.times.empty()) continue;
        int32_t streamId = -1;
        ZOR::ZorProperty value;
        auto* feature = static_cast<ZOR::IDmVideoFeature*>(query.clip->queryInterface("IDmVideoFeature"));
        if (feature != nullptr && feature->getProperty(ZOR::videoKey::streamId, &value) == 0)
            streamId = static_cast<int32_t>(value.intValue);
        std::vector<int64_t> frames = query.times;  // the service sorts them in place
        ZOR::VideoThumbnailRequest request;
        request.clip = query.clip;
        request.width = query.width;
        request.height = query.height;
        request.streamId = streamId;
        request.frames = frames.data();
        request.frameCount = static_cast<int32_t>(frames.size());
        request.refresh = query.refresh ? 1u : 0u;
        // Pictures already cached arrive during this call, on this thread.
        service_->queryVideoThumbnail(&request);
    }
}

std::vector<VideoThumbnails::Picture> VideoThumbnails::take() {
    std::lock_guard<std::mutex> lock(mutex_);
    return std::exchange(arrived_, {});
}

size_t VideoThumbnails::delivered() {
    std::lock_guard<std::mutex> lock(mutex_);
    size_t outstanding = 0;
    for (const std::set<int64_t>& times : outstanding_) outstanding += times.size();
    return total_ - outstanding;
}

std::string VideoThumbnails::missing() {
    std::lock_guard<std::mutex> lock(mutex_);
    std::string text;
    for (size_t i = 0; i < queries_.size(); ++i) {
        if (outstanding_[i].empty()) continue;
        if (!text.empty()) text += ", ";
        text += "'" + queries_[i].name + "' at";
        // The first few times, and how many more: the line stays readable.
        constexpr size_t kShown = 10;
        size_t listed = 0;
        for (int64_t time : outstanding_[i]) {
            if (listed == kShown) break;
            text += listed == 0 ? " " : ",";
            text += std::to_string(time);
            ++listed;
        }
        if (outstanding_[i].size() > listed)
            text += " and " + std::to_string(outstanding_[i].size() - listed) + " more";
    }
    return text;
}

std::string VideoThumbnails::failure() {
    std::vector<size_t> waiting;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (size_t i = 0; i < queries_.size(); ++i)
            if (!outstanding_[i].empty()) waiting.push_back(i);
    }
    // queries_ is written only by ask(), on this thread.
    for (size_t i : waiting) {
        const std::string cause = mediaFailureOf(queries_[i].clip, ZOR::DmTrackVideo);
        if (!cause.empty()) return "clip '" + queries_[i].name + "': " + cause;
    }
    return {};
}

int32_t VideoThumbnails::onVideoThumbnailNotice(void* /*value*/) { return 0; }

// The pictures already copied stay valid; nothing to do.
int32_t VideoThumbnails::onVideoThumbnailChanged(ZOR::IDmClip* /*clip*/) { return 0; }

int32_t VideoThumbnails::onVideoThumbnailData(ZOR::IDmClip* clip, int32_t width, int32_t height,
                                              ZOR::IZORLonglongList* frames, ZOR::IZORPByteList* pictures,
                                              int32_t count, int32_t bytesPerPicture) {
    if (frames == nullptr || pictures == nullptr || bytesPerPicture <= 0) return 0;
    const int32_t available = std::min({count, frames->count(), pictures->count()});
    bool arrived = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (size_t q = 0; q < queries_.size(); ++q) {
            const Query& query = queries_[q];
            if (query.clip != clip || query.width != width || query.height != height) continue;
            const size_t bytes = static_cast<size_t>(width) * static_cast<size_t>(height) * 4;
            if (static_cast<size_t>(bytesPerPicture) < bytes) continue;
            for (int32_t i = 0; i < available; ++i) {
                const int64_t time = frames->get(i);
                const unsigned char* picture = pictures->get(i);
                if (picture == nullptr || outstanding_[q].erase(time) == 0) continue;
                arrived_.push_back(Picture{q, time, std::vector<unsigned char>(picture, picture + bytes)});
                arrived = true;
            }
        }
    }
    if (arrived) wakeup_.notify();
    return 0;
}

}  // namespace miravel
