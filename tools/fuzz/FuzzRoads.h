// The roads by which outside bytes enter Miravel, each as one function that
// takes any bytes and returns 0 (libFuzzer's contract). The libFuzzer
// targets, the replay programs and the regression tests all call these.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace ZOR::fuzz {

using Road = int (*)(const uint8_t* data, size_t size);

// A timeline document (OpenTimelineIO JSON), loaded from a file.
int otioDocument(const uint8_t* data, size_t size);
// A PNG file as the caches read theirs back.
int pngLoad(const uint8_t* data, size_t size);
// A media clip of any bytes: two bytes of stream choice, then the media.
int mediaProbe(const uint8_t* data, size_t size);
// The audio wave extraction of the first second of any bytes.
int audioWave(const uint8_t* data, size_t size);
// The thumb adapter's exact and keyframe decoding of any bytes, at 32 x 18.
int frameAt(const uint8_t* data, size_t size);
// A wave store file's bytes, through its three readers and back.
int waveStore(const uint8_t* data, size_t size);

struct RoadEntry {
    std::string_view name;
    Road road;
};
// Every road, by the name of its target (fuzz_<name>).
inline constexpr RoadEntry kRoads[] = {
    {"otio_document", otioDocument}, {"png_load", pngLoad},   {"media_probe", mediaProbe},
    {"audio_wave", audioWave},       {"frame_at", frameAt},   {"wave_store", waveStore},
};

// Quiet logs (FFmpeg's off, the platform log into a sink that drops lines,
// so that its formatting runs) and the wave store off. Once per process.
void prepareProcess();

}  // namespace ZOR::fuzz
