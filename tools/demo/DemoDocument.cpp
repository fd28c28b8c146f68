#include "DemoDocument.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <string>
#include <utility>

#include <nlohmann/json.hpp>

#include "DemoMedia.h"

namespace miravel::demo {
namespace {

using Json = nlohmann::ordered_json;

constexpr int kRate = 25;  // the documents' times are whole frames at 25/s

Json rationalTime(double seconds) {
    return Json{{"OTIO_SCHEMA", "RationalTime.1"}, {"value", std::round(seconds * kRate)}, {"rate", kRate}};
}

Json timeRange(double start, double duration) {
    return Json{
        {"OTIO_SCHEMA", "TimeRange.1"}, {"start_time", rationalTime(start)}, {"duration", rationalTime(duration)}};
}

Json gap(double duration) { return Json{{"OTIO_SCHEMA", "Gap.1"}, {"source_range", timeRange(0, duration)}}; }

// A clip of [start, start + duration) of a media file beside the document.
Json clip(const std::string& name, const std::string& file, double mediaSeconds, double start, double duration,
          Json miravel) {
    Json item{{"OTIO_SCHEMA", "Clip.1"},
              {"name", name},
              {"source_range", timeRange(start, duration)},
              {"media_reference",
               {{"OTIO_SCHEMA", "ExternalReference.1"},
                {"target_url", file},
                {"available_range", timeRange(0, mediaSeconds)}}}};
    if (!miravel.is_null()) item["metadata"] = Json{{"miravel", std::move(miravel)}};
    return item;
}

Json track(const std::string& name, const char* kind, Json children) {
    return Json{{"OTIO_SCHEMA", "Track.1"}, {"name", name}, {"kind", kind}, {"children", std::move(children)}};
}

Json timeline(const std::string& name, Json tracks) {
    return Json{{"OTIO_SCHEMA", "Timeline.1"},
                {"name", name},
                {"tracks", {{"OTIO_SCHEMA", "Stack.1"}, {"children", std::move(tracks)}}}};
}

}  // namespace

std::string demoTimelineDocument() {
    const double video = kDemoVideoSeconds;
    const Json ducking{{"enabled", true}, {"depth", 0.7}, {"fade", 0.6}, {"fade_ratio", 0.5}};
    Json videoTrack =
        track("Video", "Video",
              Json::array({clip("Opening", "video.mp4", video, 0, 20,
                                {{"volume_db", -3.0}, {"volume_keyframes", Json::array({{0, -24.0}, {2, 0.0}})}}),
                           clip("Freeze", "video.mp4", video, 20, 20,
                                {{"speed_parts", Json::array({{{"begin", 0}, {"end", 6}, {"speed", 1.0}},
                                                              {{"begin", 6}, {"end", 10}, {"speed", 0.0}},
                                                              {{"begin", 10}, {"end", 20}, {"speed", 1.0}}})}}),
                           clip("Closing", "video.mp4", video, 40, 20,
                                {{"loudness", {{"enabled", true}, {"gain", 0.5}}},
                                 {"volume_keyframes", Json::array({{16, 0.0}, {20, -30.0}})}})}));
    Json musicTrack =
        track("Music", "Audio",
              Json::array({clip("Music Bed", "music.wav", kDemoMusicSeconds, 0, 60,
                                {{"volume_db", -2.0},
                                 {"volume_gain_db", 1.5},
                                 {"loudness", {{"enabled", true}, {"gain", 0.8}}},
                                 {"volume_keyframes", Json::array({{0, -30.0}, {3, 0.0}, {55, 0.0}, {60, -30.0}})}})}));
    Json voiceTrack = track(
        "Voice", "Audio",
        Json::array(
            {gap(6), clip("Voice 1", "voice.wav", kDemoVoiceSeconds, 0, 14, {{"ducking", ducking}}), gap(14),
             clip("Voice 2", "voice.wav", kDemoVoiceSeconds, 14, 16, {{"volume_db", 2.0}, {"ducking", ducking}})}));
    return timeline("Miravel demo", Json::array({std::move(videoTrack), std::move(musicTrack), std::move(voiceTrack)}))
        .dump(2);
}

std::string manyClipsDocument(int clips, const std::string& mediaFolder) {
    const auto media = [&](const char* name) {
        return mediaFolder.empty() ? std::string(name) : (std::filesystem::path(mediaFolder) / name).string();
    };
    clips = std::max(clips, 1);
    const int videoClips = (clips + 2) / 3;
    const int soundClips = clips - videoClips;
    const int musicClips = (soundClips + 1) / 2;
    const int voiceClips = soundClips - musicClips;
    constexpr double kVideoLength = 4.0;
    constexpr double kSoundLength = 6.0;
    constexpr double kGap = 0.4;
    const Json ducking{{"enabled", true}, {"depth", 0.6}, {"fade", 0.4}, {"fade_ratio", 0.5}};

    Json videoItems = Json::array();
    for (int i = 0; i < videoClips; ++i) {
        // Start times walk through the file so that neighbouring clips show
        // different pictures.
        const double start = std::fmod(i * 7.0, kDemoVideoSeconds - kVideoLength);
        Json miravel = Json::object();
        if (i % 5 == 1) miravel["reverse"] = true;
        if (i % 5 == 3)
            miravel["speed_parts"] = Json::array({{{"begin", 0}, {"end", 1.5}, {"speed", 1.0}},
                                                  {{"begin", 1.5}, {"end", 2.5}, {"speed", 0.0}},
                                                  {{"begin", 2.5}, {"end", 4}, {"speed", 1.0}}});
        if (i % 4 == 2) miravel["volume_db"] = -6.0;
        if (i > 0 && i % 3 == 0) videoItems.push_back(gap(kGap));
        videoItems.push_back(clip("Video " + std::to_string(i + 1), media("video.mp4"), kDemoVideoSeconds, start,
                                  kVideoLength, miravel.empty() ? Json() : std::move(miravel)));
    }
    Json musicItems = Json::array();
    for (int i = 0; i < musicClips; ++i) {
        const double start = std::fmod(i * 5.0, kDemoMusicSeconds - kSoundLength);
        Json miravel = Json::object();
        if (i % 3 == 1) miravel["volume_db"] = -4.0;
        if (i % 7 == 4) miravel["volume_keyframes"] = Json::array({{0, -30.0}, {2, 0.0}});
        if (i > 0 && i % 4 == 0) musicItems.push_back(gap(kGap));
        musicItems.push_back(clip("Music " + std::to_string(i + 1), media("music.wav"), kDemoMusicSeconds, start,
                                  kSoundLength, miravel.empty() ? Json() : std::move(miravel)));
    }
    Json voiceItems = Json::array();
    for (int i = 0; i < voiceClips; ++i) {
        const double start = std::fmod(i * 3.0, kDemoVoiceSeconds - kSoundLength);
        Json miravel = Json::object();
        if (i % 4 == 0) miravel["ducking"] = ducking;
        if (i > 0 && i % 2 == 0) voiceItems.push_back(gap(kGap));
        voiceItems.push_back(clip("Voice " + std::to_string(i + 1), media("voice.wav"), kDemoVoiceSeconds, start,
                                  kSoundLength, miravel.empty() ? Json() : std::move(miravel)));
    }
    Json tracks = Json::array({track("Video", "Video", std::move(videoItems))});
    if (musicClips > 0) tracks.push_back(track("Music", "Audio", std::move(musicItems)));
    if (voiceClips > 0) tracks.push_back(track("Voice", "Audio", std::move(voiceItems)));
    return timeline("Miravel demo, " + std::to_string(clips) + " clips", std::move(tracks)).dump(2);
}

}  // namespace miravel::demo
