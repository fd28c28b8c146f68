// Test media for the tests: a fresh folder per test, small files made with
// the ffmpeg command (by the makers of TestMedia.h), and independent readers
// for what the tests compare against (WAV samples, raw float samples decoded
// by the ffmpeg command, PNG pixels).
#pragma once

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>
#include <vector>

#include <gtest/gtest.h>

#include "TempFolder.h"
#include "TestMedia.h"

namespace MediaTest {

// Runs "ffmpeg <arguments>" quietly (the arguments of TestMedia.h's makers,
// or others); true when it succeeded, a failure of the test when not.
inline bool ffmpeg(const std::string& arguments) {
    const std::string command = ffmpegCommand(arguments);
    const int status = std::system(command.c_str());
    EXPECT_EQ(status, 0) << "failed: " << command;
    return status == 0;
}

// The regular files under a folder, recursively.
inline std::vector<std::string> filesUnder(const std::filesystem::path& folder) {
    std::vector<std::string> files;
    std::error_code ec;
    if (!std::filesystem::exists(folder, ec)) return files;
    for (auto it = std::filesystem::recursive_directory_iterator(folder, ec);
         !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec))
        if (it->is_regular_file(ec)) files.push_back(it->path().string());
    return files;
}

inline std::vector<char> readBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<char>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void writeText(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
}

// Samples as floats at full scale 1.0, interleaved.
struct Pcm {
    int rate = 0;
    int channels = 0;
    std::vector<float> samples;
    size_t frames() const { return channels > 0 ? samples.size() / static_cast<size_t>(channels) : 0; }
};

// Reads a 16-bit PCM WAV file chunk by chunk (s / 32768, as libswresample
// converts 16-bit samples to floats).
inline Pcm readWav16(const std::string& path) {
    Pcm pcm;
    const std::vector<char> bytes = readBytes(path);
    auto u16 = [&](size_t at) {
        return static_cast<uint32_t>(static_cast<unsigned char>(bytes[at])) |
               (static_cast<uint32_t>(static_cast<unsigned char>(bytes[at + 1])) << 8);
    };
    auto u32 = [&](size_t at) { return u16(at) | (u16(at + 2) << 16); };
    if (bytes.size() < 12 || std::memcmp(bytes.data(), "RIFF", 4) != 0 ||
        std::memcmp(bytes.data() + 8, "WAVE", 4) != 0) {
        ADD_FAILURE() << path << " is not a WAV file";
        return pcm;
    }
    size_t at = 12;
    int bits = 0;
    while (at + 8 <= bytes.size()) {
        const uint32_t size = u32(at + 4);
        const size_t body = at + 8;
        if (std::memcmp(bytes.data() + at, "fmt ", 4) == 0) {
            pcm.channels = static_cast<int>(u16(body + 2));
            pcm.rate = static_cast<int>(u32(body + 4));
            bits = static_cast<int>(u16(body + 14));
        } else if (std::memcmp(bytes.data() + at, "data", 4) == 0) {
            const size_t end = std::min(bytes.size(), body + size);
            for (size_t i = body; i + 1 < end; i += 2)
                pcm.samples.push_back(static_cast<float>(static_cast<int16_t>(u16(i))) / 32768.0f);
        }
        at = body + size + (size & 1);
    }
    EXPECT_EQ(bits, 16) << path;
    return pcm;
}

// Decodes a file's first audio stream with the ffmpeg command into raw 32-bit
// floats (the decoder's own samples, converted without resampling).
inline Pcm decodeWithCommand(const std::string& path, const std::string& rawPath, int rate, int channels) {
    Pcm pcm;
    pcm.rate = rate;
    pcm.channels = channels;
    if (!ffmpeg("-i '" + path + "' -map 0:a:0 -f f32le -acodec pcm_f32le '" + rawPath + "'")) return pcm;
    const std::vector<char> bytes = readBytes(rawPath);
    pcm.samples.resize(bytes.size() / 4);
    std::memcpy(pcm.samples.data(), bytes.data(), pcm.samples.size() * 4);
    return pcm;
}

// The wave values by their definition: window m = floor(n x 1000 / rate)
// holds the largest absolute sample of every channel; value k of frame f is
// window 40 f + k. Frames cover every window that holds a sample.
inline std::vector<float> waveValues(const Pcm& pcm) {
    const size_t frames = pcm.frames();
    if (frames == 0) return {};
    const size_t lastWindow = static_cast<size_t>((static_cast<int64_t>(frames) - 1) * 1000 / pcm.rate);
    std::vector<float> windows((lastWindow / 40 + 1) * 40, 0.0f);
    for (size_t n = 0; n < frames; ++n) {
        const size_t m = static_cast<size_t>(static_cast<int64_t>(n) * 1000 / pcm.rate);
        for (int c = 0; c < pcm.channels; ++c)
            windows[m] = std::max(
                windows[m], std::fabs(pcm.samples[n * static_cast<size_t>(pcm.channels) + static_cast<size_t>(c)]));
    }
    return windows;
}

// What a value reads back as after the 16-bit store: the nearest step of
// 1/32768, at most 65535 steps.
inline float quantised(float value) {
    if (!(value > 0.0f)) return 0.0f;
    const double step = std::min(std::round(static_cast<double>(value) * 32768.0), 65535.0);
    return static_cast<float>(step / 32768.0);
}

}  // namespace MediaTest
