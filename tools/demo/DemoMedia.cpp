#include "DemoMedia.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/error.h>
#include <libavutil/log.h>
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <numbers>
#include <vector>

namespace miravel::demo {

// ---------------------------------------------------------------------------
// The writer

struct MediaWriter::State {
    std::string path;
    std::string temporary;
    AVFormatContext* format = nullptr;
    AVPacket* packet = nullptr;
    bool fileOpen = false;
    bool finished = false;

    AVCodecContext* video = nullptr;
    AVStream* videoStream = nullptr;
    SwsContext* scaler = nullptr;
    std::vector<unsigned char> rgb;  // the picture to encode, with slack at the end
    AVFrame* picture = nullptr;
    int64_t nextPicture = 0;

    AVCodecContext* audio = nullptr;
    AVStream* audioStream = nullptr;
    SwrContext* resampler = nullptr;
    AVFrame* samples = nullptr;
    int frameSize = 0;  // samples per encoded frame
    int channels = 0;
    std::vector<float> pending;  // interleaved samples not yet encoded
    int64_t nextSample = 0;

    [[noreturn]] void fail(const std::string& what, int code) const {
        char text[AV_ERROR_MAX_STRING_SIZE] = {};
        av_strerror(code, text, sizeof text);
        throw DemoError(path + ": cannot " + what + ": " + text);
    }
    void check(int code, const std::string& what) const {
        if (code < 0) fail(what, code);
    }

    // Sends a frame (null: the end) and writes every packet that came out.
    void encode(AVCodecContext* codec, AVStream* stream, AVFrame* frame) {
        check(avcodec_send_frame(codec, frame), "encode");
        for (;;) {
            const int got = avcodec_receive_packet(codec, packet);
            if (got == AVERROR(EAGAIN) || got == AVERROR_EOF) return;
            check(got, "encode");
            av_packet_rescale_ts(packet, codec->time_base, stream->time_base);
            packet->stream_index = stream->index;
            check(av_interleaved_write_frame(format, packet), "write");
        }
    }

    void encodeSamples(const float* interleaved, int count) {
        check(av_frame_make_writable(samples), "encode");
        samples->nb_samples = count;
        const uint8_t* input[1] = {reinterpret_cast<const uint8_t*>(interleaved)};
        const int converted = swr_convert(resampler, samples->data, count, input, count);
        if (converted < 0) fail("convert the samples", converted);
        samples->nb_samples = converted;
        samples->pts = nextSample;
        nextSample += converted;
        encode(audio, audioStream, samples);
    }

    void release() {
        if (format != nullptr && fileOpen) avio_closep(&format->pb);
        fileOpen = false;
        avcodec_free_context(&video);
        avcodec_free_context(&audio);
        av_frame_free(&picture);
        av_frame_free(&samples);
        sws_freeContext(scaler);
        scaler = nullptr;
        swr_free(&resampler);
        av_packet_free(&packet);
        avformat_free_context(format);
        format = nullptr;
    }
};

MediaWriter::MediaWriter(std::string path) : state_(std::make_unique<State>()) {
    State& s = *state_;
    s.path = std::move(path);
    const std::filesystem::path target(s.path);
    std::string hidden = ".";
    hidden += target.filename().string();
    hidden += ".partial";
    s.temporary = (target.parent_path() / hidden).string();
    const AVOutputFormat* container = av_guess_format(nullptr, s.path.c_str(), nullptr);
    if (container == nullptr) throw DemoError(s.path + ": no container format for this file name");
    s.check(avformat_alloc_output_context2(&s.format, container, nullptr, s.temporary.c_str()), "set the file up");
    s.packet = av_packet_alloc();
    if (s.packet == nullptr) s.fail("set the file up", AVERROR(ENOMEM));
}

MediaWriter::~MediaWriter() {
    State& s = *state_;
    const bool unfinished = !s.finished;
    s.release();
    if (unfinished) std::remove(s.temporary.c_str());
}

const char* MediaWriter::videoEncoderName() const {
    return state_->video != nullptr && state_->video->codec != nullptr ? state_->video->codec->name : "";
}

void MediaWriter::addVideo(int width, int height, int framesPerSecond, int keyframeInterval) {
    State& s = *state_;
    const AVCodec* codec = avcodec_find_encoder_by_name("libx264");
    if (codec == nullptr) codec = avcodec_find_encoder(AV_CODEC_ID_MPEG4);
    if (codec == nullptr) throw DemoError(s.path + ": this FFmpeg has neither an H.264 nor an MPEG-4 encoder");
    s.videoStream = avformat_new_stream(s.format, nullptr);
    s.video = avcodec_alloc_context3(codec);
    if (s.videoStream == nullptr || s.video == nullptr) s.fail("add the video stream", AVERROR(ENOMEM));
    s.video->width = width;
    s.video->height = height;
    s.video->time_base = AVRational{1, framesPerSecond};
    s.video->framerate = AVRational{framesPerSecond, 1};
    s.video->pix_fmt = AV_PIX_FMT_YUV420P;
    // One a second by default: cheap seeking for the thumbnails.
    s.video->gop_size = keyframeInterval > 0 ? keyframeInterval : framesPerSecond;
    s.video->max_b_frames = 0;
    s.video->thread_count = 2;
    if (codec->id == AV_CODEC_ID_H264) {
        av_opt_set(s.video->priv_data, "preset", "ultrafast", 0);
        av_opt_set(s.video->priv_data, "crf", "26", 0);
    } else {
        s.video->bit_rate = 1'500'000;
    }
    if ((s.format->oformat->flags & AVFMT_GLOBALHEADER) != 0) s.video->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    s.check(avcodec_open2(s.video, codec, nullptr), std::string("open the ") + codec->name + " encoder");
    s.check(avcodec_parameters_from_context(s.videoStream->codecpar, s.video), "add the video stream");
    s.videoStream->time_base = s.video->time_base;
    s.scaler = sws_getContext(width, height, AV_PIX_FMT_RGB24, width, height, AV_PIX_FMT_YUV420P, SWS_BILINEAR, nullptr,
                              nullptr, nullptr);
    // The scaler reads the source in wide steps, past the last pixel.
    s.rgb.assign(static_cast<size_t>(width) * static_cast<size_t>(height) * 3 + 64, 0);
    s.picture = av_frame_alloc();
    if (s.scaler == nullptr || s.picture == nullptr) s.fail("add the video stream", AVERROR(ENOMEM));
    s.picture->format = AV_PIX_FMT_YUV420P;
    s.picture->width = width;
    s.picture->height = height;
    s.check(av_frame_get_buffer(s.picture, 0), "add the video stream");
}

void MediaWriter::addAudio(int sampleRate, int channels, AudioCodec kind) {
    State& s = *state_;
    const AVCodec* codec = avcodec_find_encoder(kind == AudioCodec::Aac ? AV_CODEC_ID_AAC : AV_CODEC_ID_PCM_S16LE);
    if (codec == nullptr)
        throw DemoError(s.path + ": this FFmpeg has no " + (kind == AudioCodec::Aac ? "AAC" : "PCM") + " encoder");
    s.audioStream = avformat_new_stream(s.format, nullptr);
    s.audio = avcodec_alloc_context3(codec);
    if (s.audioStream == nullptr || s.audio == nullptr) s.fail("add the audio stream", AVERROR(ENOMEM));
    s.audio->sample_rate = sampleRate;
    av_channel_layout_default(&s.audio->ch_layout, channels);
    s.audio->sample_fmt = codec->sample_fmts != nullptr ? codec->sample_fmts[0] : AV_SAMPLE_FMT_S16;
    s.audio->time_base = AVRational{1, sampleRate};
    if (kind == AudioCodec::Aac) s.audio->bit_rate = 96'000;
    if ((s.format->oformat->flags & AVFMT_GLOBALHEADER) != 0) s.audio->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    s.check(avcodec_open2(s.audio, codec, nullptr), std::string("open the ") + codec->name + " encoder");
    s.check(avcodec_parameters_from_context(s.audioStream->codecpar, s.audio), "add the audio stream");
    s.audioStream->time_base = s.audio->time_base;
    s.channels = channels;
    const bool variable = (codec->capabilities & AV_CODEC_CAP_VARIABLE_FRAME_SIZE) != 0;
    s.frameSize = s.audio->frame_size > 0 && !variable ? s.audio->frame_size : 1024;

    AVChannelLayout layout{};
    av_channel_layout_default(&layout, channels);
    s.check(swr_alloc_set_opts2(&s.resampler, &s.audio->ch_layout, s.audio->sample_fmt, sampleRate, &layout,
                                AV_SAMPLE_FMT_FLT, sampleRate, 0, nullptr),
            "convert the samples");
    av_channel_layout_uninit(&layout);
    s.check(swr_init(s.resampler), "convert the samples");
    s.samples = av_frame_alloc();
    if (s.samples == nullptr) s.fail("add the audio stream", AVERROR(ENOMEM));
    s.samples->format = s.audio->sample_fmt;
    s.samples->sample_rate = sampleRate;
    s.check(av_channel_layout_copy(&s.samples->ch_layout, &s.audio->ch_layout), "add the audio stream");
    s.samples->nb_samples = s.frameSize;
    s.check(av_frame_get_buffer(s.samples, 0), "add the audio stream");
}

void MediaWriter::start() {
    State& s = *state_;
    if ((s.format->oformat->flags & AVFMT_NOFILE) == 0) {
        s.check(avio_open(&s.format->pb, s.temporary.c_str(), AVIO_FLAG_WRITE), "create the file");
        s.fileOpen = true;
    }
    s.check(avformat_write_header(s.format, nullptr), "write the header");
}

unsigned char* MediaWriter::picture() { return state_->rgb.data(); }

void MediaWriter::writePicture() {
    State& s = *state_;
    s.check(av_frame_make_writable(s.picture), "encode");
    const uint8_t* planes[1] = {s.rgb.data()};
    const int strides[1] = {s.video->width * 3};
    sws_scale(s.scaler, planes, strides, 0, s.video->height, s.picture->data, s.picture->linesize);
    s.picture->pts = s.nextPicture++;
    s.encode(s.video, s.videoStream, s.picture);
}

void MediaWriter::writeSamples(const float* samples, int frames) {
    State& s = *state_;
    s.pending.insert(s.pending.end(), samples, samples + static_cast<size_t>(frames) * static_cast<size_t>(s.channels));
    const size_t frameValues = static_cast<size_t>(s.frameSize) * static_cast<size_t>(s.channels);
    size_t used = 0;
    while (s.pending.size() - used >= frameValues) {
        s.encodeSamples(s.pending.data() + used, s.frameSize);
        used += frameValues;
    }
    s.pending.erase(s.pending.begin(), s.pending.begin() + static_cast<std::ptrdiff_t>(used));
}

void MediaWriter::finish() {
    State& s = *state_;
    if (s.audio != nullptr) {
        if (!s.pending.empty())
            s.encodeSamples(s.pending.data(), static_cast<int>(s.pending.size() / static_cast<size_t>(s.channels)));
        s.pending.clear();
        s.encode(s.audio, s.audioStream, nullptr);
    }
    if (s.video != nullptr) s.encode(s.video, s.videoStream, nullptr);
    s.check(av_write_trailer(s.format), "finish the file");
    if (s.fileOpen) {
        s.fileOpen = false;
        s.check(avio_closep(&s.format->pb), "finish the file");
    }
    std::error_code error;
    std::filesystem::rename(s.temporary, s.path, error);
    if (error) throw DemoError(s.path + ": cannot write: " + error.message());
    s.finished = true;
}

// ---------------------------------------------------------------------------
// What the media show and sound like

namespace {

constexpr double kTwoPi = 2.0 * std::numbers::pi;

// A small generator of its own, so that the media are the same on every
// machine.
class Random {
public:
    double between(double low, double high) {
        state_ = state_ * 1664525u + 1013904223u;
        return low + (high - low) * static_cast<double>(state_ >> 8) / 16777216.0;
    }
    int count(int low, int high) { return std::min(high, static_cast<int>(between(low, high + 1))); }

private:
    uint32_t state_ = 20240611u;
};

unsigned char channel(double value) {
    return static_cast<unsigned char>(std::clamp(std::lround(value * 255.0), 0L, 255L));
}

// The picture at time seconds: a gradient whose hue turns once a minute,
// scrolling colour bars, a bouncing square and a bar of the time passed.
void paintPicture(unsigned char* rgb, int width, int height, double seconds, double total) {
    const double hue = std::fmod(seconds / total, 1.0) * 6.0;
    const double x = 1.0 - std::fabs(std::fmod(hue, 2.0) - 1.0);
    std::array<double, 3> tint{};
    switch (static_cast<int>(hue)) {
        case 0:
            tint = {1, x, 0};
            break;
        case 1:
            tint = {x, 1, 0};
            break;
        case 2:
            tint = {0, 1, x};
            break;
        case 3:
            tint = {0, x, 1};
            break;
        case 4:
            tint = {x, 0, 1};
            break;
        default:
            tint = {1, 0, x};
            break;
    }
    const size_t stride = static_cast<size_t>(width) * 3;
    for (int y = 0; y < height; ++y) {
        const double shade = 0.25 + 0.5 * (1.0 - static_cast<double>(y) / height);
        unsigned char* row = rgb + static_cast<size_t>(y) * stride;
        const unsigned char pixel[3] = {channel(tint[0] * shade), channel(tint[1] * shade), channel(tint[2] * shade)};
        for (int i = 0; i < width; ++i) std::copy(pixel, pixel + 3, row + static_cast<size_t>(i) * 3);
    }
    static constexpr unsigned char kBars[8][3] = {{235, 235, 235}, {235, 235, 16}, {16, 235, 235}, {16, 235, 16},
                                                  {235, 16, 235},  {235, 16, 16},  {16, 16, 235},  {16, 16, 16}};
    const int barWidth = width / 16;
    const int shift = static_cast<int>(seconds * 80.0);
    const int barsTop = height / 3;
    const int barsBottom = barsTop + height / 4;
    std::vector<unsigned char> barRow(stride);
    for (int i = 0; i < width; ++i) {
        const unsigned char* colour = kBars[((i + shift) / barWidth) % 8];
        std::copy(colour, colour + 3, barRow.begin() + static_cast<std::ptrdiff_t>(i) * 3);
    }
    for (int y = barsTop; y < barsBottom; ++y)
        std::copy(barRow.begin(), barRow.end(), rgb + static_cast<size_t>(y) * stride);
    const auto fill = [&](int x0, int y0, int x1, int y1, unsigned char value) {
        for (int y = std::max(y0, 0); y < std::min(y1, height); ++y)
            std::fill(rgb + static_cast<size_t>(y) * stride + static_cast<size_t>(std::max(x0, 0)) * 3,
                      rgb + static_cast<size_t>(y) * stride + static_cast<size_t>(std::min(x1, width)) * 3, value);
    };
    const int side = height / 6;
    const auto bounce = [](double position, int span) {
        const double phase = std::fmod(position, 2.0);
        return static_cast<int>((phase < 1.0 ? phase : 2.0 - phase) * span);
    };
    const int squareX = bounce(seconds / 3.1, width - side);
    const int squareY = bounce(seconds / 1.7, height - side);
    fill(squareX, squareY, squareX + side, squareY + side, 250);
    fill(0, height - 10, static_cast<int>(width * seconds / total), height - 4, 240);
}

// The video's sound: a low hum and a beep at each second, higher at each
// tenth second.
float beepSample(double t) {
    double value = 0.06 * std::sin(kTwoPi * 110.0 * t);
    const double local = std::fmod(t, 1.0);
    if (local < 0.15) {
        const double envelope = std::min(1.0, local / 0.005) * std::min(1.0, (0.15 - local) / 0.02);
        const double pitch = static_cast<int64_t>(t) % 10 == 0 ? 880.0 : 440.0;
        value += 0.5 * envelope * std::sin(kTwoPi * pitch * t);
    }
    return static_cast<float>(value);
}

double noteFrequency(int midi) { return 440.0 * std::pow(2.0, (midi - 69) / 12.0); }

// The music bed: C, Am, F, G, two seconds each, over a beat.
void musicSample(double t, float* left, float* right) {
    static constexpr int kChords[4][4] = {{48, 60, 64, 67}, {45, 57, 60, 64}, {41, 53, 57, 60}, {43, 55, 59, 62}};
    const int chord = static_cast<int>(t / 2.0) % 4;
    const double local = t - 2.0 * std::floor(t / 2.0);
    const double envelope =
        std::min(1.0, local / 0.02) * (0.55 + 0.45 * std::exp(-local * 3.0)) * std::min(1.0, (2.0 - local) / 0.05);
    double high = 0.0;
    for (int n = 1; n < 4; ++n) {
        const double f = noteFrequency(kChords[chord][n]);
        high += std::sin(kTwoPi * f * t) + 0.5 * std::sin(kTwoPi * 2 * f * t) + 0.33 * std::sin(kTwoPi * 3 * f * t);
    }
    const double fb = noteFrequency(kChords[chord][0]);
    const double bass = std::sin(kTwoPi * fb * t) + 0.5 * std::sin(kTwoPi * 2 * fb * t);
    const double beat = std::fmod(t, 0.5);
    const double kick = 0.3 * std::exp(-beat * 18.0) * std::sin(kTwoPi * 55.0 * beat);
    const double common = envelope * 0.12 * bass + kick;
    *left = static_cast<float>(std::clamp(envelope * 0.08 * high + common, -0.99, 0.99));
    *right = static_cast<float>(std::clamp(envelope * 0.068 * high + common, -0.99, 0.99));
}

// One syllable of the voice: a vowel (two formants) on a gliding pitch, some
// starting with a burst of noise.
struct Syllable {
    double begin = 0;
    double length = 0;
    double pitchFrom = 0;
    double pitchTo = 0;
    double level = 0;
    bool consonant = false;
    std::vector<double> harmonics;  // amplitude of harmonic k + 1
};

std::vector<Syllable> voiceSyllables(double total) {
    static constexpr double kVowels[5][2] = {{730, 1090}, {270, 2290}, {300, 870}, {530, 1840}, {570, 840}};
    Random random;
    std::vector<Syllable> syllables;
    double t = 0.4;
    while (t < total - 1.0) {
        const double base = random.between(115.0, 165.0);
        const int words = random.count(3, 7);
        for (int w = 0; w < words && t < total - 1.0; ++w) {
            const int parts = random.count(1, 3);
            for (int p = 0; p < parts; ++p) {
                Syllable s;
                s.begin = t;
                s.length = random.between(0.12, 0.26);
                if (t + s.length > total - 0.5) break;
                const double drift = 1.0 - 0.15 * w / words;
                s.pitchFrom = base * drift * random.between(0.95, 1.12);
                s.pitchTo = s.pitchFrom * random.between(0.85, 1.05);
                s.level = random.between(0.35, 0.6);
                s.consonant = random.between(0.0, 1.0) < 0.5;
                const double* vowel = kVowels[random.count(0, 4)];
                const double pitch = (s.pitchFrom + s.pitchTo) / 2.0;
                double sum = 0.0;
                for (int k = 1; k * pitch < 3800.0 && k <= 28; ++k) {
                    const auto resonance = [&](double formant) {
                        const double distance = (k * pitch - formant) / 110.0;
                        return 1.0 / (1.0 + distance * distance);
                    };
                    const double amplitude =
                        (resonance(vowel[0]) + 0.6 * resonance(vowel[1]) + 0.05) / std::pow(k, 0.6);
                    s.harmonics.push_back(amplitude);
                    sum += amplitude;
                }
                for (double& amplitude : s.harmonics) amplitude /= sum;
                syllables.push_back(std::move(s));
                t += syllables.back().length + 0.035;
            }
            t += random.between(0.10, 0.22);
        }
        t += random.between(0.7, 1.5);
    }
    return syllables;
}

// Writes seconds of a sound, sample by sample from sample(t, out), in
// one-second pieces.
template <class Sample>
void writeSound(MediaWriter& writer, int rate, int channels, int seconds, Sample sample,
                const std::function<void(double)>& progress) {
    std::vector<float> piece(static_cast<size_t>(rate) * static_cast<size_t>(channels));
    for (int second = 0; second < seconds; ++second) {
        for (int n = 0; n < rate; ++n) {
            const int64_t index = static_cast<int64_t>(second) * rate + n;
            sample(static_cast<double>(index) / rate,
                   piece.data() + static_cast<size_t>(n) * static_cast<size_t>(channels));
        }
        writer.writeSamples(piece.data(), rate);
        progress(static_cast<double>(second + 1) / seconds);
    }
}

}  // namespace

void quietEncoderMessages() { av_log_set_level(AV_LOG_ERROR); }

DemoMediaFiles writeDemoMedia(const std::string& folder, const std::function<void(double)>& progress) {
    DemoMediaFiles files;
    files.video = (std::filesystem::path(folder) / "video.mp4").string();
    files.music = (std::filesystem::path(folder) / "music.wav").string();
    files.voice = (std::filesystem::path(folder) / "voice.wav").string();

    // The video takes most of the time: 0 .. 0.8 of the way.
    {
        constexpr int kWidth = 640;
        constexpr int kHeight = 360;
        constexpr int kRate = 25;
        constexpr int kSampleRate = 48000;
        MediaWriter writer(files.video);
        writer.addVideo(kWidth, kHeight, kRate);
        writer.addAudio(kSampleRate, 2, MediaWriter::AudioCodec::Aac);
        files.videoEncoder = writer.videoEncoderName();
        writer.start();
        std::vector<float> sound(static_cast<size_t>(kSampleRate / kRate) * 2);
        constexpr int kPictures = kDemoVideoSeconds * kRate;
        for (int i = 0; i < kPictures; ++i) {
            paintPicture(writer.picture(), kWidth, kHeight, static_cast<double>(i) / kRate, kDemoVideoSeconds);
            writer.writePicture();
            for (int n = 0; n < kSampleRate / kRate; ++n) {
                const int64_t index = static_cast<int64_t>(i) * (kSampleRate / kRate) + n;
                const float value = beepSample(static_cast<double>(index) / kSampleRate);
                sound[static_cast<size_t>(n) * 2] = value;
                sound[static_cast<size_t>(n) * 2 + 1] = 0.8f * value;
            }
            writer.writeSamples(sound.data(), kSampleRate / kRate);
            if (i % kRate == 0) progress(0.8 * i / kPictures);
        }
        writer.finish();
    }
    {
        MediaWriter writer(files.music);
        writer.addAudio(44100, 2, MediaWriter::AudioCodec::Pcm16);
        writer.start();
        writeSound(
            writer, 44100, 2, kDemoMusicSeconds, [](double t, float* out) { musicSample(t, out, out + 1); },
            [&](double done) { progress(0.8 + 0.1 * done); });
        writer.finish();
    }
    {
        const std::vector<Syllable> syllables = voiceSyllables(kDemoVoiceSeconds);
        constexpr int kRate = 24000;
        size_t current = 0;
        double phase = 0.0;
        Random noise;
        MediaWriter writer(files.voice);
        writer.addAudio(kRate, 1, MediaWriter::AudioCodec::Pcm16);
        writer.start();
        writeSound(
            writer, kRate, 1, kDemoVoiceSeconds,
            [&](double t, float* out) {
                while (current < syllables.size() && t >= syllables[current].begin + syllables[current].length)
                    ++current;
                *out = 0.0f;
                if (current >= syllables.size() || t < syllables[current].begin) {
                    phase = 0.0;
                    return;
                }
                const Syllable& s = syllables[current];
                const double local = t - s.begin;
                const double u = local / s.length;
                const double pitch = s.pitchFrom + (s.pitchTo - s.pitchFrom) * u + 3.0 * std::sin(kTwoPi * 5.5 * t);
                phase = std::fmod(phase + kTwoPi * pitch / kRate, kTwoPi);
                double voiced = 0.0;
                for (size_t k = 0; k < s.harmonics.size(); ++k)
                    voiced += s.harmonics[k] * std::sin(static_cast<double>(k + 1) * phase);
                const double envelope = std::min(1.0, local / 0.025) * std::min(1.0, (s.length - local) / 0.04) *
                                        (0.8 + 0.2 * std::sin(std::numbers::pi * u));
                double value = s.level * envelope * voiced * 2.2;
                if (s.consonant && local < 0.035) value += 0.25 * (1.0 - local / 0.035) * noise.between(-1.0, 1.0);
                *out = static_cast<float>(std::clamp(value, -0.95, 0.95));
            },
            [&](double done) { progress(0.9 + 0.1 * done); });
        writer.finish();
    }
    progress(1.0);
    return files;
}

}  // namespace miravel::demo
