// Small media and timeline documents for the viewer's tests, made on the spot
// with the FFmpeg libraries (through the demo's media writer): a film whose
// every picture differs (a colour per second and a moving bar) with a tone,
// and tones whose loudness rises and falls, so that waveforms have shape.
#pragma once

#include <QDir>
#include <QImage>
#include <QString>

#include <cmath>
#include <cstdint>
#include <filesystem>
#include <numbers>
#include <string>
#include <vector>

#include "DemoMedia.h"
#include "Paths.h"

namespace viewertest {

// A film of seconds at 25/s, width x height, with a key frame every
// keyframeSeconds (long intervals make exact pictures slow to decode), and a
// stereo tone at most 0.6 loud.
inline void writeFilm(const std::string& path, int seconds, int width, int height, int keyframeSeconds) {
    constexpr int kRate = 25;
    constexpr int kSampleRate = 48000;
    miravel::demo::MediaWriter writer(path);
    writer.addVideo(width, height, kRate, keyframeSeconds * kRate);
    writer.addAudio(kSampleRate, 2, miravel::demo::MediaWriter::AudioCodec::Aac);
    writer.start();
    std::vector<float> sound(static_cast<size_t>(kSampleRate / kRate) * 2);
    for (int i = 0; i < seconds * kRate; ++i) {
        unsigned char* rgb = writer.picture();
        const int second = i / kRate;
        const int bar = (i * 7) % width;
        for (int y = 0; y < height; ++y) {
            for (int x = 0; x < width; ++x) {
                unsigned char* pixel = rgb + (static_cast<size_t>(y) * width + x) * 3;
                const bool inBar = x >= bar && x < bar + width / 10;
                pixel[0] = inBar ? 250 : static_cast<unsigned char>((second * 53) % 200 + 30);
                pixel[1] = inBar ? 250 : static_cast<unsigned char>((second * 97 + y) % 200 + 20);
                pixel[2] = inBar ? 40 : static_cast<unsigned char>((second * 31 + x) % 180 + 40);
            }
        }
        writer.writePicture();
        for (int n = 0; n < kSampleRate / kRate; ++n) {
            const double t = static_cast<double>(i * (kSampleRate / kRate) + n) / kSampleRate;
            const auto value = static_cast<float>(0.6 * std::abs(std::sin(std::numbers::pi * t / 2.0)) *
                                                  std::sin(2.0 * std::numbers::pi * 330.0 * t));
            sound[static_cast<size_t>(n) * 2] = value;
            sound[static_cast<size_t>(n) * 2 + 1] = value;
        }
        writer.writeSamples(sound.data(), kSampleRate / kRate);
    }
    writer.finish();
}

// A mono WAV of seconds: a 440 Hz tone whose loudness goes from 0.05 to 0.75
// and back every 3 s.
inline void writeTone(const std::string& path, int seconds) {
    constexpr int kRate = 44100;
    miravel::demo::MediaWriter writer(path);
    writer.addAudio(kRate, 1, miravel::demo::MediaWriter::AudioCodec::Pcm16);
    writer.start();
    std::vector<float> piece(kRate);
    for (int second = 0; second < seconds; ++second) {
        for (int n = 0; n < kRate; ++n) {
            const double t = second + static_cast<double>(n) / kRate;
            const double level = 0.05 + 0.7 * std::abs(std::sin(std::numbers::pi * t / 3.0));
            piece[static_cast<size_t>(n)] = static_cast<float>(level * std::sin(2.0 * std::numbers::pi * 440.0 * t));
        }
        writer.writeSamples(piece.data(), kRate);
    }
    writer.finish();
}

struct DocClip {
    std::string name;
    std::string file;  // beside the document
    double start = 0;  // seconds of the media
    double duration = 0;
};

inline std::string rationalTime(double seconds) {
    return R"({"OTIO_SCHEMA": "RationalTime.1", "value": )" + std::to_string(std::lround(seconds * 25)) +
           R"(, "rate": 25})";
}

inline std::string clipJson(const DocClip& clip) {
    return R"({"OTIO_SCHEMA": "Clip.1", "name": ")" + clip.name +
           R"(", "source_range": {"OTIO_SCHEMA": "TimeRange.1", "start_time": )" + rationalTime(clip.start) +
           R"(, "duration": )" + rationalTime(clip.duration) +
           R"(}, "media_reference": {"OTIO_SCHEMA": "ExternalReference.1", "target_url": ")" + clip.file + R"("}})";
}

// A document of a video track and an audio track, clips end to end.
inline std::string documentJson(const std::vector<DocClip>& video, const std::vector<DocClip>& audio) {
    const auto track = [](const char* name, const char* kind, const std::vector<DocClip>& clips) {
        std::string children;
        for (const DocClip& clip : clips) {
            if (!children.empty()) children += ",\n";
            children += clipJson(clip);
        }
        return std::string(R"({"OTIO_SCHEMA": "Track.1", "name": ")") + name + R"(", "kind": ")" + kind +
               R"(", "children": [)" + children + "]}";
    };
    return R"({"OTIO_SCHEMA": "Timeline.1", "name": "Test", "tracks": {"OTIO_SCHEMA": "Stack.1", "children": [)" +
           track("Pictures", "Video", video) + ",\n" + track("Sound", "Audio", audio) + "]}}";
}

// Every file under folder whose name shows it was being written (".tmp-"
// of the PNG writer, ".partial" of the media writer and the viewer).
inline std::vector<std::string> unfinishedFiles(const std::string& folder) {
    std::vector<std::string> found;
    std::error_code error;
    for (auto it = std::filesystem::recursive_directory_iterator(folder, error);
         !error && it != std::filesystem::recursive_directory_iterator(); it.increment(error)) {
        const std::string name = it->path().filename().string();
        if (name.find(".tmp-") != std::string::npos || name.find(".partial") != std::string::npos)
            found.push_back(it->path().string());
    }
    return found;
}

// Every PNG file under folder.
inline std::vector<std::string> pngFiles(const std::string& folder) {
    std::vector<std::string> found;
    std::error_code error;
    for (auto it = std::filesystem::recursive_directory_iterator(folder, error);
         !error && it != std::filesystem::recursive_directory_iterator(); it.increment(error))
        if (it->path().extension() == ".png") found.push_back(it->path().string());
    return found;
}

}  // namespace viewertest
