#include "DmTimelineObject.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <exception>
#include <sstream>
#include <utility>

#include "DataModel/DmKeyTexts.h"
#include "DataModel/DmTimeline.h"
#include "DmEditSteps.h"
#include "DmTimelineClip.h"
#include "DmTrack.h"

ZOR_LOG_SOURCE("platform/DataModel/DmTimeline")

namespace ZOR {

DmTimeline::DmTimeline(std::string name) : name_(std::move(name)) {}

DmTimeline::~DmTimeline() {
    // The history names its objects by plain pointers: it goes first.
    undo_.clear();
    redo_.clear();
    for (DmTrack* track : tracks_) {
        track->detachFromTimeline();
        track->Release();
    }
    for (DmTimelineClip* clip : retained_) {
        clip->forgetTimeline();
        clip->Release();
    }
}

void* DmTimeline::queryInterface(const char* name) {
    if (name == nullptr) return nullptr;
    if (std::strcmp(name, "IDmTimeline") == 0) return static_cast<IDmTimeline*>(this);
    if (std::strcmp(name, "IDmCallbackSource") == 0) return static_cast<IDmCallbackSource*>(this);
    if (std::strcmp(name, "IDmTimelineInternal") == 0) return static_cast<IDmTimelineInternal*>(this);
    if (std::strcmp(name, "IDmBaseObj") == 0) return static_cast<IDmBaseObj*>(static_cast<IDmTimeline*>(this));
    if (std::strcmp(name, "RefCnt") == 0) return static_cast<RefCnt<void>*>(this);
    return nullptr;
}

int32_t DmTimeline::settings(Settings* settings) {
    if (settings == nullptr) return kResultFailure;
    *settings = Settings{1920, 16, 9};
    for (int32_t t = trackCount() - 1; t >= 0; --t) {
        IDmTrack* track = this->track(t);
        if (track == nullptr || track->trackKind() != DmTrackVideo) continue;
        ZorProperty visible;
        if (track->getProperty(keytext::kTrackVisible, &visible) == 0 && !visible.boolValue()) continue;
        for (int32_t i = 0; i < clipCount(t); ++i) {
            auto* video = static_cast<IDmVideoFeature*>(clip(t, i)->queryInterface("IDmVideoFeature"));
            int32_t width = 0;
            int32_t height = 0;
            ZorProperty value;
            auto* owner = static_cast<IDmPropertyOwner*>(clip(t, i)->queryInterface("IDmPropertyOwner"));
            if (video == nullptr || owner == nullptr) continue;
            if (owner->getProperty(keytext::kMediaInfoWidth, &value) == 0) width = static_cast<int32_t>(value.intValue);
            if (owner->getProperty(keytext::kMediaInfoHeight, &value) == 0)
                height = static_cast<int32_t>(value.intValue);
            if (width < 1 || height < 1) continue;
            *settings = Settings{width, width, height};
            return 0;
        }
    }
    return 0;
}

int64_t DmTimeline::adapterHandle() {
    return static_cast<int64_t>(reinterpret_cast<uintptr_t>(static_cast<IDmTimeline*>(this)));
}

int32_t DmTimeline::trackCount() { return static_cast<int32_t>(tracks_.size()); }

DmTrack* DmTimeline::trackAt(int32_t index) const {
    if (index < 0 || static_cast<size_t>(index) >= tracks_.size()) return nullptr;
    return tracks_[static_cast<size_t>(index)];
}

IDmTrack* DmTimeline::track(int32_t index) {
    DmTrack* found = trackAt(index);
    return found != nullptr ? static_cast<IDmTrack*>(found) : nullptr;
}

int32_t DmTimeline::clipCount(int32_t trackIndex) {
    DmTrack* found = trackAt(trackIndex);
    return found != nullptr ? found->clipCount() : 0;
}

IDmClip* DmTimeline::clip(int32_t trackIndex, int32_t clipIndex) {
    DmTrack* found = trackAt(trackIndex);
    DmTimelineClip* clip = found != nullptr ? found->clipAt(clipIndex) : nullptr;
    return clip != nullptr ? static_cast<IDmClip*>(clip) : nullptr;
}

int64_t DmTimeline::duration() {
    int64_t end = 0;
    for (DmTrack* track : tracks_)
        for (DmTimelineClip* clip : track->clips()) end = std::max(end, clip->endTime());
    return end;
}

int32_t DmTimeline::usesMedia(const char* mediaId) {
    if (mediaId == nullptr || *mediaId == '\0') return 0;
    for (DmTrack* track : tracks_) {
        for (DmTimelineClip* clip : track->clips()) {
            // The canonical path (what IDmClip::mediaId gives) or the path as
            // the description wrote it.
            if (std::strcmp(clip->mediaPath(), mediaId) == 0 || clip->describedMediaPath() == mediaId) return 1;
        }
    }
    return 0;
}

int32_t DmTimeline::registerCallback(IDmBaseObj* listener) { return callbacks_.add(listener); }
int32_t DmTimeline::unregisterCallback(IDmBaseObj* listener) { return callbacks_.remove(listener); }

void DmTimeline::appendTrack(DmTrack* track) { tracks_.push_back(track); }

void DmTimeline::retainClip(DmTimelineClip* clip) {
    std::lock_guard<std::mutex> lock(historyLock_);
    if (std::find(retained_.begin(), retained_.end(), clip) != retained_.end()) return;
    clip->AddRef();
    retained_.push_back(clip);
}

void DmTimeline::recordEdit(std::shared_ptr<DmEditStep> step) {
    std::vector<std::shared_ptr<DmEditStep>> forgotten;  // destroyed after the lock is left
    std::lock_guard<std::mutex> lock(historyLock_);
    undo_.push_back(std::move(step));
    forgotten.swap(redo_);
}

std::shared_ptr<DmEditStep> DmTimeline::takeUndo() {
    std::lock_guard<std::mutex> lock(historyLock_);
    if (undo_.empty()) return nullptr;
    std::shared_ptr<DmEditStep> step = std::move(undo_.back());
    undo_.pop_back();
    redo_.push_back(step);
    return step;
}

std::shared_ptr<DmEditStep> DmTimeline::takeRedo() {
    std::lock_guard<std::mutex> lock(historyLock_);
    if (redo_.empty()) return nullptr;
    std::shared_ptr<DmEditStep> step = std::move(redo_.back());
    redo_.pop_back();
    undo_.push_back(step);
    return step;
}

int32_t DmTimeline::undoCount() const {
    std::lock_guard<std::mutex> lock(historyLock_);
    return static_cast<int32_t>(undo_.size());
}

int32_t DmTimeline::redoCount() const {
    std::lock_guard<std::mutex> lock(historyLock_);
    return static_cast<int32_t>(redo_.size());
}

bool DmTimeline::close() {
    if (closed_.exchange(true, std::memory_order_acq_rel)) return false;
    std::vector<std::shared_ptr<DmEditStep>> forgottenUndo;  // destroyed after the lock is left
    std::vector<std::shared_ptr<DmEditStep>> forgottenRedo;
    std::lock_guard<std::mutex> lock(historyLock_);
    forgottenUndo.swap(undo_);
    forgottenRedo.swap(redo_);
    return true;
}

// ---------------------------------------------------------------------------
// Factory

namespace {

// The texts are built with a stream: GCC 12 misreads some chains of string
// concatenation as overlapping copies.
std::string trackLabel(size_t index, const DmTrackDesc& track) {
    std::ostringstream text;
    text << "track " << index;
    if (!track.name.empty()) text << " \"" << track.name << '"';
    return text.str();
}

std::string clipLabel(size_t trackIndex, const DmTrackDesc& track, size_t clipIndex, const DmClipDesc& clip) {
    std::ostringstream text;
    text << "clip " << clipIndex;
    if (!clip.name.empty()) text << " \"" << clip.name << '"';
    text << " on " << trackLabel(trackIndex, track);
    return text.str();
}

}  // namespace

std::string speedPartsFault(const std::vector<DmSpeedPartDesc>& speedParts) {
    std::ostringstream text;
    std::vector<const DmSpeedPartDesc*> parts;
    for (const DmSpeedPartDesc& part : speedParts) parts.push_back(&part);
    std::stable_sort(parts.begin(), parts.end(),
                     [](const DmSpeedPartDesc* a, const DmSpeedPartDesc* b) { return a->begin < b->begin; });
    const DmSpeedPartDesc* previous = nullptr;
    for (const DmSpeedPartDesc* part : parts) {
        if (part->end < part->begin) {
            text << "has a speed part [" << part->begin << ", " << part->end << ") that ends before it begins";
            return text.str();
        }
        if (!std::isfinite(part->speed) || part->speed < 0.0) {
            text << "has a speed part [" << part->begin << ", " << part->end << ") with speed " << part->speed;
            return text.str();
        }
        if (previous != nullptr && part->begin < previous->end) {
            text << "has speed parts that overlap: [" << previous->begin << ", " << previous->end << ") and ["
                 << part->begin << ", " << part->end << ")";
            return text.str();
        }
        previous = part;
    }
    return "";
}

std::string clipDescriptionFault(const DmClipDesc& clip) {
    std::ostringstream text;
    if (clip.end < clip.begin) {
        text << "ends (" << clip.end << ") before it begins (" << clip.begin << ")";
        return text.str();
    }
    if (clip.markOut < clip.markIn) {
        text << "marks out (" << clip.markOut << ") before it marks in (" << clip.markIn << ")";
        return text.str();
    }
    if (!std::isfinite(clip.speed) || clip.speed < 0.0) {
        text << "has speed " << clip.speed;
        return text.str();
    }
    return speedPartsFault(clip.speedParts);
}

namespace {

// The first fault of desc as one line; "" when it is consistent.
std::string timelineFault(const DmTimelineDesc& desc) {
    for (size_t t = 0; t < desc.tracks.size(); ++t) {
        const DmTrackDesc& track = desc.tracks[t];
        if (track.kind != DmTrackVideo && track.kind != DmTrackAudio) {
            std::ostringstream text;
            text << trackLabel(t, track) << " has an unknown track kind " << track.kind << " (1 video, 2 audio)";
            return text.str();
        }
        for (size_t c = 0; c < track.clips.size(); ++c) {
            const std::string fault = clipDescriptionFault(track.clips[c]);
            if (!fault.empty()) return clipLabel(t, track, c, track.clips[c]) + " " + fault;
        }
    }
    return "";
}

DmTimeline* buildTimeline(const DmTimelineDesc& desc) {
    auto* timeline = new DmTimeline(desc.name);
    timeline->AddRef();
    try {
        for (size_t t = 0; t < desc.tracks.size(); ++t) {
            const DmTrackDesc& trackDesc = desc.tracks[t];
            auto* track = new DmTrack(timeline, static_cast<int32_t>(t), trackDesc.kind, trackDesc.name, trackDesc.mute,
                                      trackDesc.visible, trackDesc.solo);
            track->AddRef();
            timeline->appendTrack(track);
            for (size_t c = 0; c < trackDesc.clips.size(); ++c) {
                DmTimelineClip::Place place;
                place.timeline = timeline;
                place.track = track;
                place.trackIndex = static_cast<int32_t>(t);
                place.clipIndex = static_cast<int32_t>(c);
                track->appendClip(DmTimelineClip::create(trackDesc.clips[c], trackDesc.kind, place));
            }
        }
    } catch (...) {
        timeline->Release();
        throw;
    }
    return timeline;
}

}  // namespace

IDmTimeline* createTimeline(const DmTimelineDesc& desc, std::string* error) {
    const std::string fault = timelineFault(desc);
    if (!fault.empty()) {
        const std::string line = "createTimeline: " + fault;
        ZOR_LOG(IBsLogger::Warning, "ZOR::DmTimeline::createTimeline", "%s", line.c_str());
        if (error != nullptr) *error = line;
        return nullptr;
    }
    try {
        DmTimeline* timeline = buildTimeline(desc);
        if (error != nullptr) error->clear();
        return static_cast<IDmTimeline*>(timeline);
    } catch (const std::exception& thrown) {
        const std::string line = std::string("createTimeline: cannot build the timeline: ") + thrown.what();
        ZOR_LOG(IBsLogger::Warning, "ZOR::DmTimeline::createTimeline", "%s", line.c_str());
        if (error != nullptr) *error = line;
        return nullptr;
    }
}

}  // namespace ZOR
