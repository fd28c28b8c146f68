// The commands of the miravel command line. Each run* function parses its
// arguments and returns the exit code, or throws UsageError (exit 2) or
// Failure (exit 1). The work of each command is also callable on its own
// (the demo runs them one after the other): it returns the JSON document the
// command prints.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace miravel {

int runWave(int argc, char** argv);
int runFrames(int argc, char** argv);
int runAudio(int argc, char** argv);
int runVideo(int argc, char** argv);
int runRender(int argc, char** argv);
int runMedia(int argc, char** argv);
int runDemo(int argc, char** argv);
int runPeaks(int argc, char** argv);
int runCache(int argc, char** argv);

// wave MEDIA: the audio wave wrapper's values of [begin, end).
struct WaveRequest {
    std::string media;
    int32_t stream = -1;
    int64_t begin = 0;
    int64_t end = 0;
    int32_t samples = 1;
    std::chrono::seconds timeout{600};
};
std::string waveJson(const WaveRequest& request);

// peaks MEDIA: a peak-true view of the wave data, from the wave store, what
// it lacks extracted first.
struct PeaksRequest {
    std::string media;
    int32_t stream = -1;
    std::optional<int64_t> begin;  // both or neither; default: the whole stream
    std::optional<int64_t> end;
    int32_t points = 1;
    bool channels = false;  // each channel's values too
    std::chrono::seconds timeout{600};
};
std::string peaksJson(const PeaksRequest& request);

// cache: what the cache root holds, after pruning it to bytes or emptying it.
struct CacheRequest {
    std::optional<int64_t> prune;
    bool clear = false;
};
std::string cacheJson(const CacheRequest& request);

// frames MEDIA: the video frame wrapper's pictures at times.
struct FramesRequest {
    std::string media;
    int32_t stream = -1;
    std::vector<int64_t> times;
    int32_t width = 1;
    int32_t height = 1;
    std::chrono::seconds timeout{600};
};
std::string framesJson(const FramesRequest& request);

// audio DOC: one audio thumbnail of a clip through the clip thumbnail service.
struct AudioRequest {
    std::string document;
    std::string clip;
    std::optional<int64_t> begin;  // both or neither; default: the clip's clip-time range
    std::optional<int64_t> end;
    uint32_t points = 1;
    bool ducking = true;
    std::chrono::seconds timeout{600};
};
std::string audioJson(const AudioRequest& request);

// video DOC: pictures of a clip through the clip thumbnail service, written
// as PNG files into outDir.
struct VideoRequest {
    std::string document;
    std::string clip;
    std::vector<int64_t> times;  // media times, cns
    int32_t width = 1;
    int32_t height = 1;
    std::string outDir;
    bool refresh = false;
    std::chrono::seconds timeout{600};
};
std::string videoJson(const VideoRequest& request);

// render DOC: the timeline picture as a PNG file.
struct RenderRequest {
    std::string document;
    std::string out;
    int32_t width = 1600;
    bool splitChannels = false;  // each channel's waveform in a lane of its own
    std::chrono::seconds timeout{600};
};
std::string renderJson(const RenderRequest& request);

// media MEDIA: the media thumbnail manager's count pictures of a media file,
// rendered under root until the item is complete. Prints the files the
// manager announced, in the order it announced them.
struct MediaRequest {
    std::string media;
    std::string root;
    int32_t count = 100;
    int32_t width = 320;
    int32_t height = 180;
    double position = 0.0;  // the getFrame position that queues the item, 0..1
    bool keyframe = false;  // ThumbSeekKeyframe instead of ThumbSeekExact
    std::chrono::seconds timeout{600};
};
std::string mediaJson(const MediaRequest& request);

}  // namespace miravel
