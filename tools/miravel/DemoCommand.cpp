// miravel demo [--out DIR]
//
// Makes sample media in DIR (default ./miravel-demo): a 60 s video with
// sound, a music bed and a voice track, and a timeline document
// (timeline.otio) that uses them with volume keyframes, loudness, a frozen
// stretch and a voice that ducks the music. Then runs every pipeline on them,
// as the commands of the same names do, and keeps each result in DIR:
//   wave    wave.json      the audio wave wrapper over the music file, twice:
//                         decoded (cold), then from the wave store (warm)
//   frames  frames.json    the video frame wrapper over the video file
//   audio   audio-*.json   audio thumbnails of clips through the service
//   video   video.json     pictures of a clip through the service (video/)
//   render  timeline.png   the timeline picture
//   media_thumbnails  media-thumbnails.json
//                         24 pictures of the video file at 160x90 through
//                         the media thumbnail manager, under
//                         media-thumbnails/video/ (each media item has its
//                         own root folder)
// and writes summary.json with what was made and how long each step took.
// Prints {"out", "files": [...], "timings": {...}} (milliseconds).
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "Cli.h"
#include "Commands.h"
#include "Usage.h"
#include "DataModel/DmCache.h"
#include "DataModel/DmMedia.h"
#include "DemoDocument.h"
#include "DemoMedia.h"
#include "Json.h"
#include "ZorUtils/ZorUtils.h"

namespace miravel {
namespace {

using Json = nlohmann::ordered_json;

constexpr int64_t kSecond = 10'000'000;
constexpr int32_t kDemoMediaThumbnails = 24;

// Times the steps and keeps the files they made.
class Steps {
public:
    Steps(std::string out, int count) : out_(std::move(out)), count_(count) {}

    template <class Work>
    void run(const std::string& name, const std::string& title, Work work) {
        ++index_;
        std::fprintf(stderr, "demo [%d/%d] %s\n", index_, count_, title.c_str());
        std::fflush(stderr);
        const auto start = std::chrono::steady_clock::now();
        try {
            work();
        } catch (const std::bad_alloc&) {
            throw Failure(out_ + ": out of memory making " + title);
        }
        const auto elapsed = std::chrono::steady_clock::now() - start;
        timings_.emplace_back(name, std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count());
    }

    // A file of the folder, by its name there; kept for the list.
    std::string file(const std::string& name) {
        files_.push_back(name);
        return (std::filesystem::path(out_) / name).string();
    }
    // Keeps a result document as a file of the folder.
    void keep(const std::string& name, const std::string& document) { writeJsonFile(file(name), document); }

    const std::vector<std::string>& files() const { return files_; }
    const std::vector<std::pair<std::string, int64_t>>& timings() const { return timings_; }

private:
    std::string out_;
    int count_;
    int index_ = 0;
    std::vector<std::string> files_;
    std::vector<std::pair<std::string, int64_t>> timings_;  // milliseconds, in step order
};

// Lists the picture files of a frames or video result, by their names in out.
void keepFrameFiles(Steps& steps, const std::string& out, const std::string& result) {
    const Json parsed = Json::parse(result);
    for (const auto& frame : parsed.at("frames"))
        steps.file(std::filesystem::path(frame.at("file").get<std::string>()).lexically_relative(out).generic_string());
}

}  // namespace

int runDemo(int argc, char** argv) {
    Arguments arguments(argc, argv, 2, commandSpec("demo"));
    if (!arguments.positional().empty()) throw UsageError("demo takes no file arguments");
    const std::string out = arguments.text("out").value_or("miravel-demo");
    if (out.empty()) throw UsageError("--out needs a folder");
    const std::chrono::seconds timeout = commandTimeout(arguments);
    setupCommandLogging(arguments);

    requireWritableFolder(out, "the demo's files");
    // The frame store lives in the folder, emptied first so that every run
    // decodes what it shows.
    const std::string store = (std::filesystem::path(out) / "frame-store").string();
    ZOR::DirUtil::removeAll(store);
    requireWritableFolder(store, "the frame store");
    ZOR::setFrameStoreRoot(store.c_str());
    // The wave store too, and on whatever the environment says: the demo
    // shows a waveform decoded, then read back as a reopened project does.
    const std::string waves = (std::filesystem::path(out) / "wave-store").string();
    ZOR::DirUtil::removeAll(waves);
    requireWritableFolder(waves, "the wave store");
    ZOR::setWaveStoreRoot(waves.c_str());
    ZOR::setWaveStoreSwitch(1);
    int64_t waveColdMs = -1;
    int64_t waveWarmMs = -1;

    const auto started = std::chrono::steady_clock::now();
    Steps steps(out, 7);
    demo::DemoMediaFiles media;
    const std::string document = (std::filesystem::path(out) / "timeline.otio").string();
    steps.run("media", "sample media and the timeline document", [&] {
        Progress progress("media");
        media = demo::writeDemoMedia(out, [&](double done) { progress.update(done); });
        progress.finish();
        steps.file("video.mp4");
        steps.file("music.wav");
        steps.file("voice.wav");
        writeJsonFile(steps.file("timeline.otio"), demo::demoTimelineDocument());
    });

    steps.run("wave", "waveform of the music file (audio wave wrapper)", [&] {
        WaveRequest request;
        request.media = media.music;
        request.end = demo::kDemoMusicSeconds * kSecond;
        request.samples = 150;
        request.timeout = timeout;
        // Each run makes and drops its own clip, and with it the wave
        // manager: the second finds the levels in the store file the first
        // left behind.
        const auto timed = [&](int64_t* milliseconds) {
            const auto from = std::chrono::steady_clock::now();
            std::string result = waveJson(request);
            *milliseconds =
                std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - from).count();
            return result;
        };
        const std::string cold = timed(&waveColdMs);
        const std::string warm = timed(&waveWarmMs);
        if (nlohmann::json::parse(cold)["values"] != nlohmann::json::parse(warm)["values"])
            throw Failure(media.music + ": the wave values read back from the wave store differ from those decoded");
        steps.keep("wave.json", cold);
    });

    steps.run("frames", "frames of the video file (video frame wrapper)", [&] {
        FramesRequest request;
        request.media = media.video;
        for (int second = 0; second < demo::kDemoVideoSeconds; second += 12) request.times.push_back(second * kSecond);
        request.width = 160;
        request.height = 90;
        request.timeout = timeout;
        const std::string result = framesJson(request);
        steps.keep("frames.json", result);
        keepFrameFiles(steps, out, result);
    });

    steps.run("audio", "audio thumbnails of clips (clip thumbnail service)", [&] {
        struct Query {
            const char* clip;
            uint32_t points;
            bool ducking;
            const char* file;
        };
        for (const Query& query : {Query{"Music Bed", 1200, true, "audio-music.json"},
                                   Query{"Music Bed", 1200, false, "audio-music-no-ducking.json"},
                                   Query{"Freeze", 400, true, "audio-freeze.json"}}) {
            AudioRequest request;
            request.document = document;
            request.clip = query.clip;
            request.points = query.points;
            request.ducking = query.ducking;
            request.timeout = timeout;
            steps.keep(query.file, audioJson(request));
        }
    });

    steps.run("video", "pictures of a clip (clip thumbnail service)", [&] {
        VideoRequest request;
        request.document = document;
        request.clip = "Opening";
        for (int i = 0; i < 8; ++i) request.times.push_back(i * 25 * kSecond / 10);
        request.width = 160;
        request.height = 90;
        request.outDir = (std::filesystem::path(out) / "video").string();
        request.timeout = timeout;
        const std::string result = videoJson(request);
        steps.keep("video.json", result);
        keepFrameFiles(steps, out, result);
    });

    struct Rendered {
        bool done = false;
        std::string file;
        int64_t width = 0;
        int64_t height = 0;
    } render;
    steps.run("render", "the timeline picture", [&] {
        RenderRequest request;
        request.document = document;
        request.out = steps.file("timeline.png");
        request.timeout = timeout;
        const Json parsed = Json::parse(renderJson(request));
        render = Rendered{true, parsed.at("file").get<std::string>(), parsed.at("width").get<int64_t>(),
                          parsed.at("height").get<int64_t>()};
    });

    // Media thumbnails: the manager's pictures of the video file, emptied
    // first so that every run renders them (pictures on disk are not
    // rendered again, nor announced).
    struct MediaThumbnails {
        bool done = false;
        int32_t count = 0;
        int64_t milliseconds = 0;
        std::vector<std::string> files;
    } mediaThumbnails;
    steps.run("media_thumbnails", "media thumbnails of the video file (media thumbnail manager)", [&] {
        MediaRequest request;
        request.media = media.video;
        request.root = (std::filesystem::path(out) / "media-thumbnails" / "video").string();
        ZOR::DirUtil::removeAll(request.root);
        request.count = kDemoMediaThumbnails;
        request.width = 160;
        request.height = 90;
        request.timeout = timeout;
        const auto start = std::chrono::steady_clock::now();
        const std::string result = mediaJson(request);
        const int64_t milliseconds =
            std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
        steps.keep("media-thumbnails.json", result);
        const Json parsed = Json::parse(result);
        mediaThumbnails.done = true;
        mediaThumbnails.count = request.count;
        mediaThumbnails.milliseconds = milliseconds;
        for (const auto& file : parsed.at("files")) {
            const std::string name =
                std::filesystem::path(file.at("file").get<std::string>()).lexically_relative(out).generic_string();
            mediaThumbnails.files.push_back(name);
            steps.file(name);
        }
    });

    const int64_t total =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - started).count();
    const std::string summaryPath = steps.file("summary.json");
    JsonWriter summary;
    summary.beginObject()
        .key("out")
        .value(out)
        .key("document")
        .value("timeline.otio")
        .key("video_encoder")
        .value(media.videoEncoder)
        .key("files")
        .beginArray();
    for (const std::string& file : steps.files()) summary.value(file);
    summary.endArray().key("timings_ms").beginObject();
    for (const auto& [name, milliseconds] : steps.timings()) summary.key(name).value(milliseconds);
    summary.key("total").value(total).endObject();
    summary.key("wave_cold_ms").value(waveColdMs).key("wave_warm_ms").value(waveWarmMs);
    summary.key("picture").value("timeline.png");
    summary.key("render");
    if (render.done)
        summary.beginObject()
            .key("file")
            .value(render.file)
            .key("width")
            .value(render.width)
            .key("height")
            .value(render.height)
            .endObject();
    else
        summary.null();
    summary.key("media_thumbnails");
    if (!mediaThumbnails.done) {
        summary.null();
    } else {
        summary.beginObject()
            .key("status")
            .value("done")
            .key("media")
            .value("video.mp4")
            .key("root")
            .value("media-thumbnails/video")
            .key("count")
            .value(mediaThumbnails.count)
            .key("box")
            .value("160x90")
            .key("seek")
            .value("exact")
            .key("milliseconds")
            .value(mediaThumbnails.milliseconds)
            .key("files")
            .beginArray();
        for (const std::string& file : mediaThumbnails.files) summary.value(file);
        summary.endArray().endObject();
    }
    summary.endObject();
    writeJsonFile(summaryPath, summary.text());

    JsonWriter json;
    json.beginObject().key("out").value(out).key("files").beginArray();
    for (const std::string& file : steps.files()) json.value(file);
    json.endArray().key("timings").beginObject();
    for (const auto& [name, milliseconds] : steps.timings()) json.key(name).value(milliseconds);
    json.key("total").value(total).endObject().endObject();
    printJson(json.text());
    return 0;
}

}  // namespace miravel
