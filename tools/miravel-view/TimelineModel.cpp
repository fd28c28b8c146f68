#include "TimelineModel.h"

#include <algorithm>

#include "Adapter/Adapter.h"
#include "DataModel/DmEdit.h"
#include "DataModel/DmMediaInternal.h"

namespace miravel::view {
namespace {

bool flagOf(ZOR::IDmAudioFeature* audio, const char* key, bool fallback) {
    ZOR::ZorProperty value;
    return audio != nullptr && audio->getProperty(key, &value) == 0 ? value.boolValue() : fallback;
}

double numberOf(ZOR::IDmAudioFeature* audio, const char* key, double fallback) {
    ZOR::ZorProperty value;
    if (audio == nullptr || audio->getProperty(key, &value) != 0) return fallback;
    return value.kind == ZOR::ZorProperty::Double ? value.doubleValue : static_cast<double>(value.intValue);
}

}  // namespace

const ClipInfo* TimelineModel::find(const ZOR::IDmClip* clip) const {
    if (clip == nullptr) return nullptr;
    for (const TrackInfo& track : tracks)
        for (const ClipInfo& info : track.clips)
            if (info.clip == clip || info.audio == clip) return &info;
    return nullptr;
}

std::vector<std::string> TimelineModel::mediaFiles() const {
    std::vector<std::string> files;
    for (const TrackInfo& track : tracks)
        for (const ClipInfo& info : track.clips)
            if (!info.mediaPath.empty() && std::find(files.begin(), files.end(), info.mediaPath) == files.end())
                files.push_back(info.mediaPath);
    return files;
}

std::shared_ptr<const TimelineModel> TimelineModel::read(ZOR::IDmTimeline* timeline) {
    auto model = std::make_shared<TimelineModel>();
    if (timeline == nullptr) return model;
    model->duration = timeline->duration();
    model->undoable = ZOR::undoableEditCount(timeline);
    model->redoable = ZOR::redoableEditCount(timeline);
    for (int32_t t = 0; t < timeline->trackCount(); ++t) {
        TrackInfo track;
        ZOR::IDmTrack* dmTrack = timeline->track(t);
        track.video = dmTrack != nullptr && dmTrack->trackKind() == ZOR::DmTrackVideo;
        ZOR::ZorProperty flag;
        if (dmTrack != nullptr && dmTrack->getProperty(ZOR::trackKey::mute, &flag) == 0) track.mute = flag.boolValue();
        if (dmTrack != nullptr && dmTrack->getProperty(ZOR::trackKey::visible, &flag) == 0)
            track.visible = flag.boolValue();
        track.name = track.video ? "Video " + std::to_string(t + 1) : "Audio " + std::to_string(t + 1);
        for (int32_t i = 0; i < timeline->clipCount(t); ++i) {
            ZOR::IDmClip* clip = timeline->clip(t, i);
            if (clip == nullptr) continue;
            ClipInfo info;
            info.clip = clip;
            info.audio = ZOR::getBaseAudioClip(clip);
            info.name = clip->name() != nullptr ? clip->name() : "";
            info.track = t;
            info.index = i;
            info.begin = ZOR::beginTimeOfClip(clip);
            info.end = ZOR::endTimeOfClip(clip);
            info.markIn = ZOR::markInTimeOfClip(clip);
            info.markOut = ZOR::markOutTimeOfClip(clip);
            if (auto* source = static_cast<ZOR::IDmMediaSource*>(clip->queryInterface("IDmMediaSource"));
                source != nullptr && source->mediaPath() != nullptr)
                info.mediaPath = source->mediaPath();
            if (auto* feature = track.video
                                    ? static_cast<ZOR::IDmVideoFeature*>(clip->queryInterface("IDmVideoFeature"))
                                    : nullptr) {
                int32_t width = 0;
                int32_t height = 0;
                info.video = true;
                if (feature->videoSize(&width, &height) == 0 && width > 0 && height > 0) {
                    info.videoWidth = width;
                    info.videoHeight = height;
                }
            }
            ZOR::ZorProperty enabled;
            auto* owner = static_cast<ZOR::IDmPropertyOwner*>(clip->queryInterface("IDmPropertyOwner"));
            if (owner != nullptr && owner->getProperty(ZOR::clipKey::enable, &enabled) == 0)
                info.enabled = enabled.boolValue();
            if (info.audio != nullptr) {
                auto* audio = static_cast<ZOR::IDmAudioFeature*>(info.audio->queryInterface("IDmAudioFeature"));
                info.volumeDb = numberOf(audio, ZOR::audioKey::volume, 0.0);
                info.mute = flagOf(audio, ZOR::audioKey::mute, false);
                info.reverse = flagOf(audio, ZOR::audioReversePlayKey::enable, false);
                if (ZOR::IDmEffect* ducking = info.audio->effect(ZOR::DmEffectDucking)) {
                    info.ducking = ducking->isEnabled();
                    info.duckingDepth = ducking->value(0);
                    info.duckingFade = ducking->value(1);
                    info.duckingFadeRatio = ducking->value(2);
                }
                if (ZOR::IDmEffect* volume = info.audio->effect(ZOR::DmEffectVolume))
                    info.hasKeyframes = volume->keyframeCount(1) > 0;
            }
            track.clips.push_back(std::move(info));
        }
        model->tracks.push_back(std::move(track));
    }
    return model;
}

}  // namespace miravel::view
