// What the command line accepts, in one table: the commands check their
// arguments against it and the usage text is written from it, so the two
// cannot disagree. A number outside it is a usage error that names the
// option and the limit, before any work.
#pragma once

#include <cstdint>
#include <climits>
#include <string>

namespace miravel {

struct Limit {
    const char* name;  // as the usage lists it: the options, or what is counted
    int64_t min;
    int64_t max;
    const char* unit;      // a word after the numbers, or ""
    const char* commands;  // the commands it holds for
};

namespace limits {

// Times in cns: 10^14 is 10^7 s, about 115 days. Counted in frames of 40 ms,
// as the wave data and the audio thumbnails count them, every such time stays
// within 32 bits.
inline constexpr Limit time{"--begin, --end, each of --times", -100'000'000'000'000, 100'000'000'000'000, "cns",
                            "wave, audio, frames, video"};
// The wave data tells its span (40 values a frame) in 32 bits: 10^13 cns is
// 25,000,000 frames, a span of 10^9.
inline constexpr Limit waveRange{"--end minus --begin", 0, 10'000'000'000'000, "cns", "wave"};
inline constexpr Limit stream{"--stream", -1, 65535, "", "wave, frames"};
inline constexpr Limit samples{"--samples", 1, 10'000'000, "", "wave"};
// The values printed: 40 a frame sampled (wave), or --points (audio); 16 MB
// of floats.
inline constexpr Limit values{"values printed (wave: 40 a frame sampled; audio: --points)", 1, 4'000'000, "",
                              "wave, audio"};
// peaks prints points values, and as many again for each channel.
inline constexpr Limit points{"--points", 1, 1'000'000, "", "peaks"};
inline constexpr Limit cacheBytes{"--prune", 0, INT64_MAX, "bytes (K, M or G after it: times 1024, 1024^2, 1024^3)",
                                  "cache"};
// A time list is one argument, and one argument holds at most 128 KiB.
inline constexpr Limit timeCount{"how many --times", 1, 10'000, "", "frames, video"};
// The pictures the frame store and the thumb adapter take.
inline constexpr Limit side{"each side of a picture (--size, --box; render's rows)", 1, 16384, "pixels",
                            "frames, video, media, render"};
inline constexpr Limit pictureBytes{"a picture, W x H x 4", 4, 268'435'456, "bytes", "frames, video, media, render"};
// The clip thumbnail service keeps every picture it made in memory: all of
// them together are held to what one picture may be.
inline constexpr Limit heldBytes{"the pictures held, distinct --times x W x H x 4", 4, 268'435'456, "bytes", "video"};
inline constexpr Limit width{"--width", 200, 16384, "pixels", "render"};
// The media thumbnail manager renders three pictures a step, rests 5 ms
// between steps and syncs each file to disk: a thousand pictures take
// seconds, a hundred thousand most of an hour.
inline constexpr Limit count{"--count", 1, 1'000, "pictures", "media"};
inline constexpr Limit position{"--position", 0, 1, "", "media"};
// The manager's requests keep paths in 1024 bytes; the root leaves room for
// the folder and file names below it.
inline constexpr Limit mediaPath{"MEDIA", 1, 1023, "bytes", "media"};
inline constexpr Limit rootPath{"--root", 1, 959, "bytes", "media"};
inline constexpr Limit timeout{"--timeout", 1, 1'000'000'000, "seconds", "every command that waits"};

inline constexpr const Limit* all[] = {&time,       &waveRange, &stream,    &samples,      &values,    &points,
                                       &cacheBytes, &timeCount, &side,      &pictureBytes, &heldBytes, &width,
                                       &count,      &position,  &mediaPath, &rootPath,     &timeout};

}  // namespace limits

// "from <min> to <max>[ <unit>]".
std::string rangeText(const Limit& limit);

// The table for the usage text: one line a limit.
std::string limitsText();

}  // namespace miravel
