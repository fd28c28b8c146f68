// miravel render DOC --out PNG [--width W]
//
// The timeline picture: a time ruler, then each track in document order as a
// lane with its clips drawn where they sit on the timeline, framed so that
// every clip boundary shows. A clip with video shows a strip of pictures from
// the clip thumbnail service at evenly spaced media times across the clip; a
// clip with sound (on an audio track, or the sound of a video clip below its
// strip) shows its waveform peak-true: each pixel column reaches the largest
// millisecond level of the wave store among the media times the column
// covers, times the gain the service applied at that column (its audio
// thumbnail, one point per column, is the level at one time times that gain),
// so no transient between two points is lost. --split-channels draws each
// channel in a lane of its own. Prints {"file", "width", "height"};
// --timeout SECONDS (default 600) bounds the wait for the service.
//
// The picture is a picture as the limits take them (Limits.h): a document
// whose tracks would make it taller is refused before anything is asked of
// the service. The folder of the file and the frame store are checked first.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <chrono>
#include <climits>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "ClipService.h"
#include "Commands.h"
#include "Usage.h"
#include "DataModel/DmMedia.h"
#include "DataModel/DmMediaInternal.h"
#include "DataModel/DmTime.h"
#include "DataModel/DmWavePeaks.h"
#include "WaveExtract.h"
#include "Json.h"
#include "DataModel/DmTimeline.h"
#include "ZorUtils/ZorUtils.h"

namespace miravel {
namespace {

constexpr int kMargin = 8;
constexpr int kRuler = 18;
constexpr int kTrackGap = 6;
constexpr int kStripHeight = 54;      // picture height in a video lane
constexpr int kVideoWaveHeight = 32;  // the sound of video clips, below the pictures
constexpr int kAudioWaveHeight = 60;
constexpr int kInset = 2;
constexpr int64_t kSecond = 10'000'000;

struct Rgb {
    unsigned char r, g, b;
};

constexpr Rgb kBackground{30, 30, 30};
constexpr Rgb kLane{44, 44, 46};
constexpr Rgb kRulerTicks{150, 150, 150};
constexpr Rgb kVideoBody{40, 62, 92};
constexpr Rgb kVideoEdge{140, 190, 255};
constexpr Rgb kAudioBody{34, 70, 46};
constexpr Rgb kAudioEdge{150, 230, 160};
constexpr Rgb kWave{112, 214, 130};

class Canvas {
public:
    Canvas(int width, int height, Rgb colour)
        : width_(width), height_(height), pixels_(static_cast<size_t>(width) * static_cast<size_t>(height) * 4) {
        fill(0, 0, width, height, colour);
    }

    // [x0, x1) x [y0, y1), cut to the canvas.
    void fill(int x0, int y0, int x1, int y1, Rgb colour) {
        x0 = std::max(x0, 0);
        y0 = std::max(y0, 0);
        x1 = std::min(x1, width_);
        y1 = std::min(y1, height_);
        for (int y = y0; y < y1; ++y) {
            unsigned char* row = pixels_.data() + (static_cast<size_t>(y) * static_cast<size_t>(width_)) * 4;
            for (int x = x0; x < x1; ++x) {
                unsigned char* pixel = row + static_cast<size_t>(x) * 4;
                pixel[0] = colour.r;
                pixel[1] = colour.g;
                pixel[2] = colour.b;
                pixel[3] = 255;
            }
        }
    }

    // A frame one pixel wide around [x0, x1) x [y0, y1).
    void frame(int x0, int y0, int x1, int y1, Rgb colour) {
        fill(x0, y0, x1, y0 + 1, colour);
        fill(x0, y1 - 1, x1, y1, colour);
        fill(x0, y0, x0 + 1, y1, colour);
        fill(x1 - 1, y0, x1, y1, colour);
    }

    // An RGBA picture at (x, y), the columns outside [clipX0, clipX1) left out.
    void picture(int x, int y, int width, int height, const unsigned char* rgba, int clipX0, int clipX1) {
        const int from = std::max({x, clipX0, 0});
        const int to = std::min({x + width, clipX1, width_});
        for (int row = 0; row < height; ++row) {
            const int canvasY = y + row;
            if (canvasY < 0 || canvasY >= height_ || from >= to) continue;
            const unsigned char* source =
                rgba + (static_cast<size_t>(row) * static_cast<size_t>(width) + static_cast<size_t>(from - x)) * 4;
            unsigned char* target =
                pixels_.data() +
                (static_cast<size_t>(canvasY) * static_cast<size_t>(width_) + static_cast<size_t>(from)) * 4;
            for (int column = from; column < to; ++column, source += 4, target += 4) {
                target[0] = source[0];
                target[1] = source[1];
                target[2] = source[2];
                target[3] = 255;
            }
        }
    }

    const unsigned char* data() const { return pixels_.data(); }

private:
    int width_;
    int height_;
    std::vector<unsigned char> pixels_;  // RGBA rows, no padding
};

// One clip as drawn: its columns and what it asks the service for.
struct ClipLayout {
    ZOR::IDmClip* clip = nullptr;
    int x0 = 0;  // columns [x0, x1) of the clip's frame
    int x1 = 0;
    bool video = false;
    int thumbWidth = 0;
    std::vector<int64_t> slotTimes;  // media time of each picture slot, left to right
    size_t videoQuery = 0;
    bool sound = false;
    size_t audioQuery = 0;
    ZOR::IDmClip* audioClip = nullptr;
    int64_t soundBegin = 0;  // the clip-time range of its audio thumbnail
    int64_t soundEnd = 0;
};

struct TrackLayout {
    bool videoTrack = false;
    int top = 0;
    int height = 0;
    std::vector<ClipLayout> clips;
};

// A ruler step in seconds that leaves at least 48 pixels between ticks.
int64_t rulerStep(double pixelsPerSecond) {
    for (int64_t step : {1, 2, 5, 10, 15, 30, 60, 120, 300, 600, 1800, 3600})
        if (static_cast<double>(step) * pixelsPerSecond >= 48.0) return step;
    return 7200;
}

constexpr int64_t kCnsPerWindow = 10'000;  // the wave store's millisecond
constexpr int32_t kWaveRateNum = 25;
constexpr float kNoGain = -1.0f;

// The service's point i of count over [begin, end), as the service places it.
int64_t servicePointTime(int64_t begin, int64_t end, int64_t i, int64_t count) {
    return begin +
           static_cast<int64_t>(static_cast<double>(i) / static_cast<double>(count) * static_cast<double>(end - begin));
}

// The level the service read for a point at source position: value
// floor(fraction x 40) of the position's frame, as the service picks it.
float serviceRawLevel(ZOR::IDmAudioWaveStore* store, int64_t position) {
    const ZOR::DmRational rate{kWaveRateNum, 1};
    const int64_t frame = ZOR::frameFromCnsTime(rate, position);
    const int64_t frameStart = ZOR::cnsTimeFromFrame(rate, frame);
    const int64_t frameLength = ZOR::cnsTimeFromFrame(rate, 1);
    const float fraction = static_cast<float>(position - frameStart) / static_cast<float>(frameLength);
    const auto perFrame = static_cast<uint32_t>(ZOR::IDmAudioWaveStore::kValuesPerFrame);
    const uint32_t index = std::min(static_cast<uint32_t>(fraction * static_cast<float>(perFrame)), perFrame - 1);
    float level = 0.0f;
    store->readChannelWindows(-1, frame * perFrame + index, 1, &level);
    return level;
}

// The peak-true columns of a clip's sound: for each channel asked for (-1:
// all of them at once), one value per column of values (the service's
// points). Column i covers the source positions of the service's points i
// and i + 1 (the clip-time end for the last); a column whose two positions
// meet (a held stretch) takes the millisecond it lies in. Its value is the
// largest level there times the column's gain, value / level at the
// service's own point; a column whose point read silence borrows the gain of
// the nearest column that did not, and a clip whose every point read silence
// is drawn at unit gain (its levels are all the picture can show).
std::vector<std::vector<float>> peakColumns(const std::string& document, const ClipLayout& clip,
                                            const std::vector<float>& values, bool split,
                                            std::chrono::seconds timeout) {
    ZOR::IDmClip* audioClip = clip.audioClip;
    auto* audio = static_cast<ZOR::IDmAudioFeature*>(audioClip->queryInterface("IDmAudioFeature"));
    auto* source = static_cast<ZOR::IDmMediaSource*>(audioClip->queryInterface("IDmMediaSource"));
    ZOR::IDmAudioWaveStore* store = source != nullptr ? source->waveStore() : nullptr;
    const auto count = static_cast<int64_t>(values.size());
    if (audio == nullptr || store == nullptr || count == 0) return {values};
    bool reverse = false;
    if (ZOR::IDmEffect* effect = audioClip->effect(ZOR::DmEffectReversePlay)) reverse = effect->value(0) != 0.0f;
    std::vector<int64_t> positions(static_cast<size_t>(count) + 1);
    for (int64_t i = 0; i <= count; ++i)
        positions[static_cast<size_t>(i)] = audio->sourcePosition(
            i < count ? servicePointTime(clip.soundBegin, clip.soundEnd, i, count) : clip.soundEnd, reverse);
    const auto [low, high] = std::minmax_element(positions.begin(), positions.end());
    const int64_t firstFrame = std::max<int64_t>(*low, 0) / (kCnsPerWindow * 40);
    const int64_t lastFrame = std::min<int64_t>(std::max<int64_t>(*high, 0) / (kCnsPerWindow * 40), INT32_MAX);
    extractMissingWave(document + ": clip '" + audioClip->name() + "'", audioClip, store,
                       static_cast<int32_t>(firstFrame), static_cast<int32_t>(lastFrame), timeout, nullptr);

    std::vector<float> gains(static_cast<size_t>(count), kNoGain);
    for (int64_t i = 0; i < count; ++i) {
        const float raw = serviceRawLevel(store, positions[static_cast<size_t>(i)]);
        if (raw > 0.0f) gains[static_cast<size_t>(i)] = values[static_cast<size_t>(i)] / raw;
    }
    // Silent points borrow: from the left first, then from the right.
    const auto borrow = [](auto first, auto last) {
        float carried = kNoGain;
        for (auto gain = first; gain != last; ++gain) {
            if (*gain != kNoGain)
                carried = *gain;
            else
                *gain = carried;
        }
    };
    borrow(gains.begin(), gains.end());
    borrow(gains.rbegin(), gains.rend());

    std::vector<int32_t> channels{-1};
    if (split) {
        channels.clear();
        for (int32_t c = 0; c < store->channelCount(); ++c) channels.push_back(c);
    }
    std::vector<std::vector<float>> columns;
    for (int32_t channel : channels) {
        std::vector<float>& column = columns.emplace_back(static_cast<size_t>(count));
        for (int64_t i = 0; i < count; ++i) {
            const int64_t a = positions[static_cast<size_t>(i)];
            const int64_t b = positions[static_cast<size_t>(i) + 1];
            const ZOR::DmPeakWindows windows = ZOR::peakWindowsOf(std::min(a, b), std::max(a, b));
            const float gain = gains[static_cast<size_t>(i)] == kNoGain ? 1.0f : gains[static_cast<size_t>(i)];
            column[static_cast<size_t>(i)] =
                std::min(1.0f, gain * store->channelPeak(channel, windows.first, windows.end));
        }
    }
    return columns;
}

}  // namespace

std::string renderJson(const RenderRequest& request) {
    TimelineSession session(request.document);
    ZOR::IDmTimeline* timeline = session.timeline();
    const int width = request.width;
    const int contentWidth = width - 2 * kMargin;
    const int64_t duration = std::max<int64_t>(timeline->duration(), kSecond);
    const auto column = [&](int64_t time) {
        const double x = static_cast<double>(time) * contentWidth / static_cast<double>(duration);
        return kMargin + static_cast<int>(std::lround(std::clamp(x, -1.0, static_cast<double>(contentWidth) + 1.0)));
    };

    // Lay the tracks out and gather what to ask for.
    std::vector<TrackLayout> tracks;
    std::vector<AudioThumbnails::Query> audioQueries;
    std::vector<VideoThumbnails::Query> videoQueries;
    int64_t y = kMargin + kRuler;
    for (int32_t t = 0; t < timeline->trackCount(); ++t) {
        TrackLayout track;
        ZOR::IDmTrack* dmTrack = timeline->track(t);
        track.videoTrack = dmTrack != nullptr && dmTrack->trackKind() == ZOR::DmTrackVideo;
        bool anySound = false;
        for (int32_t i = 0; i < timeline->clipCount(t); ++i) {
            ZOR::IDmClip* clip = timeline->clip(t, i);
            if (clip == nullptr) continue;
            ClipLayout layout;
            layout.clip = clip;
            layout.x0 = column(ZOR::beginTimeOfClip(clip));
            layout.x1 = std::max(column(ZOR::endTimeOfClip(clip)), layout.x0 + 3);
            const int inner = layout.x1 - layout.x0 - 2;
            const std::string name = clip->name() != nullptr ? clip->name() : "";
            auto* feature = track.videoTrack
                                ? static_cast<ZOR::IDmVideoFeature*>(clip->queryInterface("IDmVideoFeature"))
                                : nullptr;
            if (feature != nullptr) {
                int32_t videoWidth = 16;
                int32_t videoHeight = 9;
                if (feature->videoSize(&videoWidth, &videoHeight) != 0 || videoWidth < 1 || videoHeight < 1) {
                    videoWidth = 16;
                    videoHeight = 9;
                }
                layout.video = true;
                layout.thumbWidth = std::clamp(
                    static_cast<int>(std::lround(static_cast<double>(kStripHeight) * videoWidth / videoHeight)), 8,
                    1024);
                const int slots = std::max(1, (inner + layout.thumbWidth - 1) / layout.thumbWidth);
                // Each slot shows what plays at its left edge: the clip time
                // there mapped to the media as the clip plays it (frozen
                // stretches hold, reversed clips run backwards).
                const int64_t markIn = ZOR::markInTimeOfClip(clip);
                const int64_t length = std::max<int64_t>(ZOR::endTimeOfClip(clip) - ZOR::beginTimeOfClip(clip), 0);
                for (int slot = 0; slot < slots; ++slot) {
                    const int64_t clipTime = markIn + static_cast<int64_t>(static_cast<double>(length) * slot / slots);
                    layout.slotTimes.push_back(ZOR::mediaTimeOfClip(clip, clipTime));
                }
                layout.videoQuery = videoQueries.size();
                // A frozen stretch shows one picture in many slots: ask once.
                std::vector<int64_t> times = layout.slotTimes;
                std::sort(times.begin(), times.end());
                times.erase(std::unique(times.begin(), times.end()), times.end());
                videoQueries.push_back(
                    VideoThumbnails::Query{clip, name, layout.thumbWidth, kStripHeight, std::move(times), false});
            }
            if (ZOR::IDmClip* audioClip = ZOR::getBaseAudioClip(clip)) {
                const auto [begin, end] = clipTimeRange(audioClip);
                layout.sound = true;
                layout.audioClip = audioClip;
                layout.soundBegin = begin;
                layout.soundEnd = end;
                anySound = true;
                layout.audioQuery = audioQueries.size();
                audioQueries.push_back(
                    AudioThumbnails::Query{audioClip, name, begin, end, static_cast<uint32_t>(std::max(inner, 1))});
            }
            track.clips.push_back(std::move(layout));
        }
        // A picture taller than the limits is refused below; its tops are not used.
        track.top = static_cast<int>(std::min<int64_t>(y, limits::side.max));
        track.height = track.videoTrack ? kInset + kStripHeight + kInset + (anySound ? kVideoWaveHeight + kInset : 0)
                                        : kInset + kAudioWaveHeight + kInset;
        y += track.height + kTrackGap;
        tracks.push_back(std::move(track));
    }
    const int64_t rows = y - kTrackGap + kMargin;
    if (!pictureAllowed(width, rows))
        throw Failure(request.document + ": the timeline picture of its " + std::to_string(tracks.size()) +
                      " tracks would be " + std::to_string(width) + "x" + std::to_string(rows) +
                      " pixels; a picture has sides " + rangeText(limits::side) + " and at most " +
                      std::to_string(limits::pictureBytes.max) + " bytes");
    const int height = static_cast<int>(rows);
    const std::filesystem::path parent = std::filesystem::path(request.out).parent_path();
    const std::string folder = parent.empty() ? std::string(".") : parent.string();
    requireWritableFolder(folder, "the timeline picture");
    requireWritableFolder(ZOR::frameStoreRoot(), "the frame store");

    // Ask for everything at once; pictures are kept as they come.
    Progress progress("render");
    Wakeup wakeup;
    AudioThumbnails audio(session.service(), wakeup);
    VideoThumbnails video(session.service(), wakeup);
    std::map<std::pair<size_t, int64_t>, std::vector<unsigned char>> pictures;
    video.ask(std::move(videoQueries));
    audio.ask(std::move(audioQueries));
    waitForThumbnails(request.document, &audio, &video, wakeup, request.timeout, progress,
                      [&](std::vector<VideoThumbnails::Picture>&& arrived) {
                          for (VideoThumbnails::Picture& picture : arrived)
                              pictures[{picture.query, picture.time}] = std::move(picture.rgba);
                      });
    progress.finish();

    // Draw.
    Canvas canvas(width, height, kBackground);
    const double pixelsPerSecond = static_cast<double>(contentWidth) * kSecond / static_cast<double>(duration);
    const int64_t step = rulerStep(pixelsPerSecond);
    for (int64_t second = 0; second * kSecond <= duration; second += step) {
        const int x = column(second * kSecond);
        canvas.fill(x, kMargin + 4, x + 1, kMargin + kRuler - 4, kRulerTicks);
        for (int64_t minor = 1; minor < 5 && step * pixelsPerSecond >= 30.0; ++minor) {
            const int mx = column(second * kSecond + step * kSecond * minor / 5);
            if (mx < width - kMargin) canvas.fill(mx, kMargin + 9, mx + 1, kMargin + kRuler - 4, kRulerTicks);
        }
    }
    for (const TrackLayout& track : tracks) {
        canvas.fill(kMargin, track.top, width - kMargin, track.top + track.height, kLane);
        for (const ClipLayout& clip : track.clips) {
            const Rgb body = track.videoTrack ? kVideoBody : kAudioBody;
            const Rgb edge = track.videoTrack ? kVideoEdge : kAudioEdge;
            canvas.fill(clip.x0, track.top, clip.x1, track.top + track.height, body);
            const int innerX0 = clip.x0 + 1;
            const int innerX1 = clip.x1 - 1;
            int waveTop = track.top + kInset;
            int waveHeight = kAudioWaveHeight;
            if (clip.video) {
                const int stripTop = track.top + kInset;
                for (size_t slot = 0; slot < clip.slotTimes.size(); ++slot) {
                    auto found = pictures.find({clip.videoQuery, clip.slotTimes[slot]});
                    if (found == pictures.end()) continue;
                    canvas.picture(innerX0 + static_cast<int>(slot) * clip.thumbWidth, stripTop, clip.thumbWidth,
                                   kStripHeight, found->second.data(), innerX0, innerX1);
                }
                waveTop = stripTop + kStripHeight + kInset;
                waveHeight = kVideoWaveHeight;
            }
            if (clip.sound && (!track.videoTrack || waveTop + waveHeight <= track.top + track.height)) {
                const std::vector<std::vector<float>> lanes =
                    peakColumns(request.document, clip, audio.answer(clip.audioQuery).values, request.splitChannels,
                                request.timeout);
                // Each channel drawn apart takes an equal lane of the wave's rows.
                const int laneHeight = std::max(1, waveHeight / static_cast<int>(lanes.size()));
                for (size_t lane = 0; lane < lanes.size(); ++lane) {
                    const std::vector<float>& values = lanes[lane];
                    const double half = laneHeight / 2.0;
                    const int middle = waveTop + static_cast<int>(lane) * laneHeight + laneHeight / 2;
                    for (size_t i = 0; i < values.size() && innerX0 + static_cast<int>(i) < innerX1; ++i) {
                        const double value = std::clamp(static_cast<double>(values[i]), 0.0, 1.0);
                        const int reach = static_cast<int>(std::lround(value * std::max(half - 1.0, 0.0)));
                        const int x = innerX0 + static_cast<int>(i);
                        canvas.fill(x, middle - reach, x + 1, middle + reach + 1, kWave);
                    }
                }
            }
            // The clip's boundaries: a frame, its left edge doubled.
            canvas.frame(clip.x0, track.top, clip.x1, track.top + track.height, edge);
            canvas.fill(clip.x0, track.top, clip.x0 + 2, track.top + track.height, edge);
        }
    }

    if (ZOR::dumpPNG(width, height, canvas.data(), request.out.c_str(), -1) != 0)
        failToWrite(request.out, "the timeline picture", ZOR::lastWriteFailure(folder, nullptr));

    JsonWriter json;
    json.beginObject().key("file").value(request.out).key("width").value(width).key("height").value(height).endObject();
    return json.text();
}

int runRender(int argc, char** argv) {
    Arguments arguments(argc, argv, 2, commandSpec("render"));
    if (arguments.positional().size() != 1) throw UsageError("render needs one timeline DOC");
    RenderRequest request;
    request.document = arguments.positional()[0];
    request.out = arguments.required("out");
    if (request.out.empty()) throw UsageError("--out needs a file name");
    request.width = static_cast<int32_t>(arguments.integer("width", limits::width, 1600));
    request.splitChannels = arguments.has("split-channels");
    request.timeout = commandTimeout(arguments);
    setupCommandLogging(arguments);
    printJson(namingOutOfMemory(request.document, [&] { return renderJson(request); }));
    return 0;
}

}  // namespace miravel
