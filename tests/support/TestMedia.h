// How the tests and the benchmarks make their media with the ffmpeg command:
// each kind of file is made by one function here, which gives the command's
// arguments (everything after "ffmpeg"), and runFfmpeg() runs them. Nothing
// here depends on GoogleTest; MediaTestSupport.h adds the tests' checks.
#pragma once

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace MediaTest {

// The command line that runs "ffmpeg <arguments>" quietly.
inline std::string ffmpegCommand(const std::string& arguments) {
    return "ffmpeg -nostdin -hide_banner -loglevel error -y " + arguments + " </dev/null";
}

// Runs "ffmpeg <arguments>" quietly; true when it succeeded.
inline bool runFfmpeg(const std::string& arguments) { return std::system(ffmpegCommand(arguments).c_str()) == 0; }

// A number of seconds as ffmpeg reads it: "2", "1.5".
inline std::string secondsText(double seconds) {
    char text[32];
    std::snprintf(text, sizeof text, "%g", seconds);
    return text;
}

inline std::string quoted(const std::string& path) { return "'" + path + "'"; }

// --- Inputs -------------------------------------------------------------------

// A sine of frequency Hz at rate samples per second, mono.
inline std::string sineInput(int frequency, int rate, double seconds) {
    return "-f lavfi -i \"sine=f=" + std::to_string(frequency) + ":r=" + std::to_string(rate) +
           ":d=" + secondsText(seconds) + "\"";
}

// The moving test pattern, width x height at 25 frames per second.
inline std::string patternInput(int width, int height, double seconds) {
    return "-f lavfi -i \"testsrc2=s=" + std::to_string(width) + "x" + std::to_string(height) +
           ":r=25:d=" + secondsText(seconds) + "\"";
}

// One colour (0xRRGGBB), width x height at 25 frames per second.
inline std::string colourInput(const std::string& colour, int width, int height, double seconds) {
    return "-f lavfi -i \"color=c=" + colour + ":s=" + std::to_string(width) + "x" + std::to_string(height) +
           ":r=25:d=" + secondsText(seconds) + "\"";
}

// Two channels of sines (440 Hz and 660 Hz) whose amplitudes ramp in
// opposite directions over the length, 0.1 to 0.9 and 0.9 to 0.1: every
// window has its own peak, and the louder channel changes half way.
inline std::string rampInput(int rate, double seconds) {
    const std::string d = std::to_string(seconds);
    return "-f lavfi -i \"aevalsrc=exprs='(0.1+0.8*t/" + d + ")*sin(2*PI*440*t)|(0.9-0.8*t/" + d +
           ")*sin(2*PI*660*t)':s=" + std::to_string(rate) + ":d=" + d + "\"";
}

// --- Encodings ----------------------------------------------------------------

// H.264 in 4:2:0, the encoder's defaults otherwise.
inline constexpr const char* kH264 = "-c:v libx264 -pix_fmt yuv420p";
// H.264 in 4:2:0 with a keyframe every 50 frames (2 s at 25/1) and nowhere
// else, and B-frames in a pyramid: most pictures depend on others, many are
// never referred to.
inline constexpr const char* kH264Pyramid =
    "-c:v libx264 -pix_fmt yuv420p -x264-params keyint=50:min-keyint=50:scenecut=0:bframes=3:b-adapt=0:b-pyramid=normal";

// --- Files --------------------------------------------------------------------

// A sine as 16-bit PCM, channels copies of it.
inline std::string toneArguments(const std::string& path, int frequency, int rate, double seconds, int channels = 1) {
    return sineInput(frequency, rate, seconds) + (channels != 1 ? " -ac " + std::to_string(channels) : "") +
           " -c:a pcm_s16le " + quoted(path);
}

// A film: the test pattern, width x height at 25/1 in H.264, with a sine of
// frequency Hz at 48 kHz as its stereo sound (AAC unless audioCodec says
// otherwise); video stream 0, audio stream 1.
inline std::string filmArguments(const std::string& path, int width, int height, double seconds, int frequency,
                                 const std::string& audioCodec = "aac") {
    return patternInput(width, height, seconds) + " " + sineInput(frequency, 48000, seconds) + " -ac 2 " + kH264 +
           " -c:a " + audioCodec + " " + quoted(path);
}

// The test pattern, width x height at 25/1 in H.264, without sound.
inline std::string silentVideoArguments(const std::string& path, int width, int height, double seconds) {
    return patternInput(width, height, seconds) + " " + kH264 + " " + quoted(path);
}

// Two audio streams of 16-bit PCM in one file (Matroska, say): a sine of
// firstFrequency Hz at firstRate, then one of secondFrequency Hz at
// secondRate, with the channels given.
struct ToneStream {
    int frequency;
    int rate;
    int channels;
};
inline std::string twoStreamsArguments(const std::string& path, ToneStream first, ToneStream second, double seconds) {
    return sineInput(first.frequency, first.rate, seconds) + " " + sineInput(second.frequency, second.rate, seconds) +
           " -map 0:a -map 1:a -ac:a:0 " + std::to_string(first.channels) + " -ac:a:1 " +
           std::to_string(second.channels) + " -c:a pcm_s16le " + quoted(path);
}

// One second of each colour (0xRRGGBB), width x height at 25/1, one after
// the other; filter (e.g. ",scale=...") follows the concatenation, encoding
// is the video encoder's arguments. With a sound file, its first audio
// stream comes along, copied as 16-bit PCM.
struct ColourVideo {
    std::vector<std::string> colours;
    int width = 64;
    int height = 48;
    std::string encoding = kH264;
    std::string filter;
    std::string sound;
};
inline std::string colourVideoArguments(const std::string& path, const ColourVideo& video) {
    std::string inputs;
    std::string pads;
    for (size_t i = 0; i < video.colours.size(); ++i) {
        inputs += colourInput(video.colours[i], video.width, video.height, 1) + " ";
        pads += '[';
        pads += std::to_string(i);
        pads += ']';
    }
    std::string arguments = inputs;
    if (!video.sound.empty()) arguments += "-i " + quoted(video.sound) + " ";
    arguments += "-filter_complex \"" + pads + "concat=n=" + std::to_string(video.colours.size()) + ":v=1:a=0" +
                 video.filter + "[v]\" -map \"[v]\" ";
    if (!video.sound.empty()) arguments += "-map " + std::to_string(video.colours.size()) + ":a -c:a pcm_s16le ";
    return arguments + video.encoding + " " + quoted(path);
}

// The test pattern, width x height at 25/1, under a band 16 rows high that
// spells each frame's number in binary (stripes 16 pixels wide, bright for
// a 1, lowest bit at the left), in H.264 (kH264Pyramid).
inline std::string numberedVideoArguments(const std::string& path, int width, int height, double seconds) {
    return patternInput(width, height, seconds) +
           " -vf \"format=yuv420p,"
           "geq=lum='if(lt(Y,16),if(gt(bitand(N,pow(2,floor(X/16))),0),235,16),lum(X,Y))':"
           "cb='if(lt(Y/SH,16),128,cb(X,Y))':cr='if(lt(Y/SH,16),128,cr(X,Y))'\" " +
           kH264Pyramid + " " + quoted(path);
}

// The frame number the band of a picture of numberedVideoArguments() spells
// (bit k white in the stripe 16k..16k+15 of the top rows), or -1; rgba holds
// rows of width pixels, 4 bytes each.
inline int numberOfBand(const unsigned char* rgba, int width) {
    int number = 0;
    for (int bit = 0; bit < 8; ++bit) {
        const unsigned char* p = rgba + (static_cast<size_t>(8) * static_cast<size_t>(width) + 16 * bit + 8) * 4;
        if (p[0] > 200 && p[1] > 200 && p[2] > 200)
            number |= 1 << bit;
        else if (p[0] > 50 || p[1] > 50 || p[2] > 50)
            return -1;
    }
    return number;
}

}  // namespace MediaTest
