// Writing a timeline back as a timeline document: the timeline is described
// as it is now (on the event thread, so that no edit runs meanwhile), then
// written as OpenTimelineIO JSON that parseTimelineDocument reads back to the
// same description.
//
// Times are written as RationalTime values at the rate 10^7 (one cns each),
// so that every range reads back exactly; keyframe and speed-part times are
// seconds from the clip's start, as the "miravel" metadata has them. What the
// data model keeps as single-precision floats (the ducking values) is
// described, and so written, in the shortest decimal form of the float, so
// that it reads back to the same float.
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <exception>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "DataModel/DmKeyTexts.h"
#include "DataModel/DmEdit.h"
#include "DataModel/DmTimeline.h"
#include "DmEffect.h"
#include "DmTimelineObject.h"
#include "DmTimelineClip.h"
#include "DmTrack.h"
#include "ListenerCenter/ListenerCenter.h"
#include "ZorUtils/ZorUtils.h"

namespace ZOR {
namespace {

using Json = nlohmann::ordered_json;

constexpr int64_t kCnsRate = 10'000'000;

// The double whose shortest decimal form is the float's: it reads back to
// the same float, and equals the double a document gave for it.
double floatAsWritten(double value) {
    const auto single = static_cast<float>(value);
    char text[32];
    const auto [end, problem] = std::to_chars(text, text + sizeof text, single);
    if (problem != std::errc()) return value;
    double widened = value;
    std::from_chars(text, end, widened);
    return widened;
}

bool boolOf(int32_t (*get)(void*, const char*, ZorProperty*), void* owner, const char* key, bool fallback) {
    ZorProperty value;
    return get(owner, key, &value) == 0 && value.kind != ZorProperty::None ? value.boolValue() : fallback;
}

double doubleOf(int32_t (*get)(void*, const char*, ZorProperty*), void* owner, const char* key, double fallback) {
    ZorProperty value;
    if (get(owner, key, &value) != 0) return fallback;
    if (value.kind == ZorProperty::Double) return value.doubleValue;
    if (value.kind == ZorProperty::Int || value.kind == ZorProperty::Bool) return static_cast<double>(value.intValue);
    return fallback;
}

int32_t clipGet(void* clip, const char* key, ZorProperty* value) {
    return static_cast<DmTimelineClip*>(clip)->getProperty(key, value);
}

int32_t trackGet(void* track, const char* key, ZorProperty* value) {
    return static_cast<DmTrack*>(track)->getProperty(key, value);
}

// The style identifier of the first attached item whose data answers name.
std::string styleOf(DmTimelineClip* clip, const char* name) {
    IDmAttachedItemList* items = clip->attachedItems();
    if (items == nullptr) return {};
    for (int32_t i = 0; i < items->count(); ++i) {
        IDmAttachedItem* item = items->get(i);
        IDmBaseObj* data = item != nullptr && item->dataCount() > 0 ? item->data(0) : nullptr;
        auto* style = data != nullptr ? static_cast<IDmStyleData*>(data->queryInterface(name)) : nullptr;
        const char* text = style != nullptr ? style->text(2) : nullptr;
        if (text != nullptr) return text;
    }
    return {};
}

DmClipDesc describeClip(DmTimelineClip* clip, int32_t trackKind) {
    DmClipDesc desc;
    desc.name = clip->name();
    desc.mediaPath = clip->describedMediaPath();
    const bool videoTrack = trackKind == DmTrackVideo;
    ZorProperty stream;
    if (clip->getOwnProperty(videoTrack ? keytext::kVideoStreamId : keytext::kAudioStreamId, &stream) == 0 &&
        stream.kind == ZorProperty::Int)
        desc.streamId = static_cast<int32_t>(stream.intValue);
    if (videoTrack && clip->linkedAudioClip() != nullptr)
        desc.audioStreamId = clip->linkedAudioClip()->requestedAudioStream();

    const DmTimelineClip::Range range = clip->times();
    desc.begin = range.begin;
    desc.end = range.end;
    desc.markIn = range.markIn;
    desc.markOut = range.markOut;
    desc.speed = clip->speed();
    desc.speedParts = clip->speedParts();

    // Sound keys of a video clip are its linked clip's; getProperty forwards them.
    desc.enabled = boolOf(clipGet, clip, keytext::kClipEnable, true);
    desc.mute = boolOf(clipGet, clip, keytext::kAudioMute, false);
    desc.reverse = boolOf(clipGet, clip, keytext::kReversePlayEnable, false);
    desc.volumeDb = doubleOf(clipGet, clip, keytext::kAudioVolume, 0.0);
    desc.volumeGainDb = doubleOf(clipGet, clip, keytext::kClipVolumeGain, 0.0);
    desc.loudnessEnabled = boolOf(clipGet, clip, keytext::kLoudnessEnable, false);
    desc.loudnessGain = doubleOf(clipGet, clip, keytext::kLoudnessGain, 1.0);

    if (DmTimelineClip* sound = clip->soundCarrier()) {
        if (const DmEffect* volume = sound->currentEffect(DmEffectVolume))
            desc.volumeKeyframes = volume->settings().keyframes;
        if (const DmEffect* ducking = sound->currentEffect(DmEffectDucking)) {
            const DmEffect::Settings settings = ducking->settings();
            desc.ducking.present = true;
            desc.ducking.enabled = settings.enabled;
            const auto valueAt = [&](size_t index) {
                return index < settings.values.size() ? static_cast<double>(settings.values[index]) : 0.0;
            };
            // Kept as floats: given back as the doubles a document writes for them.
            desc.ducking.depth = floatAsWritten(valueAt(0));
            desc.ducking.fade = floatAsWritten(valueAt(1));
            desc.ducking.fadeRatio = floatAsWritten(valueAt(2));
        }
    }
    desc.imageStyleId = styleOf(clip, "IImageStylizesData");
    desc.templateStyleId = styleOf(clip, "IAITemplateGenerateData");
    return desc;
}

int32_t fail(std::string* error, std::string text) {
    if (error != nullptr) *error = std::move(text);
    return kResultFailure;
}

// ---------------------------------------------------------------------------
// The document

Json rationalTime(int64_t cns) {
    return Json{{"OTIO_SCHEMA", "RationalTime.1"},
                {"value", static_cast<double>(cns)},
                {"rate", static_cast<double>(kCnsRate)}};
}

Json timeRange(int64_t start, int64_t duration) {
    return Json{
        {"OTIO_SCHEMA", "TimeRange.1"}, {"start_time", rationalTime(start)}, {"duration", rationalTime(duration)}};
}

double seconds(int64_t cns) { return static_cast<double>(cns) / static_cast<double>(kCnsRate); }

// The media file as the document names it: relative to the document's
// folder when it lies there or below, absolute otherwise.
std::string targetUrl(const std::string& media, const std::filesystem::path& folder) {
    std::error_code ignored;
    const std::filesystem::path absolute = std::filesystem::absolute(media, ignored).lexically_normal();
    const std::filesystem::path relative = absolute.lexically_relative(folder);
    if (!relative.empty() && *relative.begin() != "..") return relative.string();
    return absolute.string();
}

Json clipItem(const DmClipDesc& clip, const std::filesystem::path& folder) {
    Json item{{"OTIO_SCHEMA", "Clip.1"},
              {"name", clip.name},
              {"source_range", timeRange(clip.markIn, clip.end - clip.begin)},
              {"enabled", clip.enabled}};
    if (clip.mediaPath.empty())
        item["media_reference"] = Json{{"OTIO_SCHEMA", "MissingReference.1"}};
    else
        item["media_reference"] =
            Json{{"OTIO_SCHEMA", "ExternalReference.1"}, {"target_url", targetUrl(clip.mediaPath, folder)}};
    if (clip.speed == 0.0)
        item["effects"] = Json::array({Json{{"OTIO_SCHEMA", "FreezeFrame.1"}, {"name", ""}, {"time_scalar", 0.0}}});
    else if (clip.speed != 1.0)
        item["effects"] =
            Json::array({Json{{"OTIO_SCHEMA", "LinearTimeWarp.1"}, {"name", ""}, {"time_scalar", clip.speed}}});

    Json miravel{{"stream_id", clip.streamId},
                 {"volume_db", clip.volumeDb},
                 {"volume_gain_db", clip.volumeGainDb},
                 {"loudness", {{"enabled", clip.loudnessEnabled}, {"gain", clip.loudnessGain}}},
                 {"mute", clip.mute}};
    Json keyframes = Json::array();
    for (const DmKeyframeDesc& keyframe : clip.volumeKeyframes)
        keyframes.push_back(Json::array({seconds(keyframe.time - clip.markIn), keyframe.db}));
    miravel["volume_keyframes"] = std::move(keyframes);
    if (clip.ducking.present)
        miravel["ducking"] = Json{{"enabled", clip.ducking.enabled},
                                  {"depth", clip.ducking.depth},
                                  {"fade", clip.ducking.fade},
                                  {"fade_ratio", clip.ducking.fadeRatio}};
    miravel["reverse"] = clip.reverse;
    Json parts = Json::array();
    for (const DmSpeedPartDesc& part : clip.speedParts)
        parts.push_back(Json{{"begin", seconds(part.begin - clip.markIn)},
                             {"end", seconds(part.end - clip.markIn)},
                             {"speed", part.speed}});
    miravel["speed_parts"] = std::move(parts);
    item["metadata"] = Json{{"miravel", std::move(miravel)}};
    return item;
}

bool documentOf(const DmTimelineDesc& desc, const std::filesystem::path& folder, Json* out, std::string* problem) {
    Json tracks = Json::array();
    for (size_t t = 0; t < desc.tracks.size(); ++t) {
        const DmTrackDesc& track = desc.tracks[t];
        const bool video = track.kind == DmTrackVideo;
        Json children = Json::array();
        int64_t position = 0;
        for (const DmClipDesc& clip : track.clips) {
            if (clip.begin < position) {
                *problem = "clip '" + clip.name + "' of track " + std::to_string(t) +
                           " begins before the end of the clip before it";
                return false;
            }
            if (clip.begin > position)
                children.push_back(
                    Json{{"OTIO_SCHEMA", "Gap.1"}, {"source_range", timeRange(0, clip.begin - position)}});
            children.push_back(clipItem(clip, folder));
            position = clip.end;
        }
        tracks.push_back(
            Json{{"OTIO_SCHEMA", "Track.1"},
                 {"name", track.name},
                 {"kind", video ? "Video" : "Audio"},
                 {"enabled", video ? track.visible : !track.mute},
                 {"metadata", {{"miravel", {{"mute", track.mute}, {"visible", track.visible}, {"solo", track.solo}}}}},
                 {"children", std::move(children)}});
    }
    *out = Json{{"OTIO_SCHEMA", "Timeline.1"},
                {"name", desc.name},
                {"tracks", {{"OTIO_SCHEMA", "Stack.1"}, {"name", "tracks"}, {"children", std::move(tracks)}}}};
    return true;
}

// Writes the text whole (a temporary beside it, synced, renamed over it), so
// that a reader sees the old document or the whole new one, and a failure
// leaves the old one as it was. "" on success, otherwise the cause in words.
std::string writeAtomically(const std::string& path, const std::string& text) {
    const int32_t error = writeFileAtomically(path.c_str(), text.data(), text.size());
    if (error == 0) return {};
    // No folder to write the temporary into.
    if (error == ENOENT || error == ENOTDIR) return "cannot create a file in its folder: " + writeErrorText(error);
    return "cannot write: " + writeErrorText(error);
}

}  // namespace

int32_t describeTimeline(IDmTimeline* timeline, DmTimelineDesc* desc, std::string* error) {
    auto* owner = timeline != nullptr ? dynamic_cast<DmTimeline*>(timeline) : nullptr;
    if (owner == nullptr || desc == nullptr)
        return fail(error, owner == nullptr ? "not a timeline made by the data model" : "no description to fill");
    DmTimelineDesc result;
    const int32_t ran = runOnEventThread([&] {
        result.name = owner->name();
        for (int32_t t = 0; t < owner->trackCount(); ++t) {
            DmTrack* track = owner->trackAt(t);
            if (track == nullptr) continue;
            DmTrackDesc trackDesc;
            trackDesc.name = track->name();
            trackDesc.kind = track->trackKind();
            trackDesc.mute = boolOf(trackGet, track, keytext::kTrackMute, false);
            trackDesc.visible = boolOf(trackGet, track, keytext::kTrackVisible, true);
            trackDesc.solo = boolOf(trackGet, track, keytext::kTrackSolo, false);
            for (DmTimelineClip* clip : track->clips()) trackDesc.clips.push_back(describeClip(clip, trackDesc.kind));
            result.tracks.push_back(std::move(trackDesc));
        }
    });
    if (ran != 0) return fail(error, "the timeline could not be read");
    *desc = std::move(result);
    if (error != nullptr) error->clear();
    return 0;
}

int32_t writeTimelineDocument(IDmTimeline* timeline, const char* path, std::string* error) {
    const std::string shown = path != nullptr ? path : "(null)";
    if (path == nullptr || *path == '\0') return fail(error, shown + ": no file name");
    try {
        DmTimelineDesc desc;
        std::string problem;
        if (describeTimeline(timeline, &desc, &problem) != 0) return fail(error, shown + ": " + problem);
        std::error_code ignored;
        const std::filesystem::path folder =
            std::filesystem::absolute(std::filesystem::path(path), ignored).lexically_normal().parent_path();
        Json document;
        if (!documentOf(desc, folder, &document, &problem)) return fail(error, shown + ": " + problem);
        std::string text = document.dump(2);
        text += '\n';
        const std::string failure = writeAtomically(path, text);
        if (!failure.empty()) return fail(error, shown + ": " + failure);
        if (error != nullptr) error->clear();
        return 0;
    } catch (const std::exception& failure) {
        return fail(error, shown + ": cannot write: " + failure.what());
    }
}

}  // namespace ZOR
