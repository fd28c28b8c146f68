// The demo's sample media: pictures and sounds made in code and written with
// the FFmpeg libraries (the library itself never links them). Shared by the
// command line and the viewer, which both make the demo's media on demand.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>

namespace miravel::demo {

// A file that could not be made: the message names it and the cause.
class DemoError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Writes one media file: a video stream of RGB pictures and/or an audio
// stream of float samples, the container chosen by the file name's
// extension. The file is written under a temporary name and renamed into
// place by finish(), so no reader ever sees a partial file; a writer that is
// destroyed unfinished removes what it wrote. Every failure throws DemoError
// naming the file and the cause.
class MediaWriter {
public:
    explicit MediaWriter(std::string path);
    ~MediaWriter();
    MediaWriter(const MediaWriter&) = delete;
    MediaWriter& operator=(const MediaWriter&) = delete;

    // H.264 (libx264) when the FFmpeg build has it, MPEG-4 part 2 otherwise;
    // a key frame every keyframeInterval pictures (0: every second).
    void addVideo(int width, int height, int framesPerSecond, int keyframeInterval = 0);
    // AAC (the native encoder) or 16-bit PCM.
    enum class AudioCodec { Aac, Pcm16 };
    void addAudio(int sampleRate, int channels, AudioCodec codec);
    // Opens the file; streams are added before.
    void start();
    // Where to paint the next picture: width x height RGB, rows of width x 3
    // bytes (the buffer has room beyond them for the scaler's wide reads).
    unsigned char* picture();
    // Encodes the picture painted.
    void writePicture();
    // The next samples: frames x channels interleaved floats at full scale 1.
    void writeSamples(const float* samples, int frames);
    // Flushes the encoders, ends the file and moves it into place.
    void finish();

    // The name of the video encoder in use (after addVideo).
    const char* videoEncoderName() const;

private:
    struct State;
    std::unique_ptr<State> state_;
};

// Keeps the FFmpeg libraries' messages below errors off stderr (the encoders
// report their settings and statistics at the information level).
void quietEncoderMessages();

// The demo's three media files. progress receives 0..1 as each is made; what
// it throws ends the making, and the file being written is removed.
struct DemoMediaFiles {
    std::string video;  // 60 s, 640x360, 25 fps, moving pattern, with a tone of beeps
    std::string music;  // 60 s of chords over a beat, WAV
    std::string voice;  // 30 s of syllable-like bursts with pauses, WAV
    std::string videoEncoder;
};
DemoMediaFiles writeDemoMedia(const std::string& folder, const std::function<void(double)>& progress);

// Lengths of the files, seconds.
constexpr int kDemoVideoSeconds = 60;
constexpr int kDemoMusicSeconds = 60;
constexpr int kDemoVoiceSeconds = 30;

}  // namespace miravel::demo
