// miravel video DOC --clip NAME --times T1,T2,... --size WxH --out DIR [--refresh]
//
// Pictures of a clip of a timeline document through the clip thumbnail
// service, at media times (cns). Each delivered picture is written into DIR
// (created when missing) as <clip>-<time>.png, and the command prints
// {"clip", "width", "height", "frames": [{"time", "file"}, ...]} in the order
// the pictures were delivered. It ends when every distinct time was
// delivered; --timeout SECONDS (default 600) bounds the wait. --refresh drops
// what the service cached and extracts anew.
//
// DIR and the frame store are checked before the request: made when
// missing, a file written and removed; temporaries left in DIR by writers
// that died are removed.
#include <cstdio>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "ClipService.h"
#include "Commands.h"
#include "Usage.h"
#include "DataModel/DmMedia.h"
#include "Json.h"
#include "ZorUtils/ZorUtils.h"

namespace miravel {

std::string videoJson(const VideoRequest& request) {
    TimelineSession session(request.document);
    ZOR::IDmClip* clip = session.clipNamed(request.clip);
    if (clip->queryInterface("IDmVideoFeature") == nullptr) session.failClipLacks(request.clip, "video");
    ZOR::removeAbandonedTemporaries(request.outDir);
    requireWritableFolder(request.outDir, "the pictures");
    requireWritableFolder(ZOR::frameStoreRoot(), "the frame store");

    Progress progress("video");
    Wakeup wakeup;
    VideoThumbnails video(session.service(), wakeup);
    const std::string prefix = safeFileName(request.clip) + "-";
    std::vector<std::pair<int64_t, std::string>> written;
    // A failure takes back the files this run wrote.
    struct Undo {
        std::vector<std::pair<int64_t, std::string>>* files;
        bool keep = false;
        ~Undo() {
            if (!keep)
                for (const auto& [time, file] : *files) std::remove(file.c_str());
        }
    } undo{&written};
    const auto write = [&](std::vector<VideoThumbnails::Picture>&& pictures) {
        for (const VideoThumbnails::Picture& picture : pictures) {
            const std::string file =
                ZOR::PathUtil::join(request.outDir, prefix + std::to_string(picture.time) + ".png").str();
            if (ZOR::dumpPNG(request.width, request.height, picture.rgba.data(), file.c_str(), -1) != 0)
                failToWrite(file, "the picture", ZOR::lastWriteFailure(request.outDir, nullptr));
            written.emplace_back(picture.time, file);
        }
    };
    video.ask(
        {VideoThumbnails::Query{clip, request.clip, request.width, request.height, request.times, request.refresh}});
    waitForThumbnails(request.document, nullptr, &video, wakeup, request.timeout, progress, write);
    progress.finish();
    undo.keep = true;

    JsonWriter json;
    json.beginObject()
        .key("clip")
        .value(request.clip)
        .key("width")
        .value(request.width)
        .key("height")
        .value(request.height)
        .key("frames")
        .beginArray();
    for (const auto& [time, file] : written)
        json.beginObject().key("time").value(time).key("file").value(file).endObject();
    json.endArray().endObject();
    return json.text();
}

int runVideo(int argc, char** argv) {
    Arguments arguments(argc, argv, 2, commandSpec("video"));
    if (arguments.positional().size() != 1) throw UsageError("video needs one timeline DOC");
    VideoRequest request;
    request.document = arguments.positional()[0];
    request.clip = arguments.required("clip");
    request.times = arguments.times("times");
    if (!arguments.has("size")) throw UsageError("--size is required");
    std::tie(request.width, request.height) = arguments.size("size", {0, 0});
    // The service keeps every picture it made: within limits::heldBytes.
    const int64_t distinct = static_cast<int64_t>(std::set<int64_t>(request.times.begin(), request.times.end()).size());
    const int64_t held = distinct * request.width * request.height * 4;
    if (held > limits::heldBytes.max)
        throw UsageError("--times and --size ask for " + std::to_string(distinct) + " pictures of " +
                         std::to_string(request.width) + "x" + std::to_string(request.height) + ", " +
                         std::to_string(held) + " bytes held; at most " + std::to_string(limits::heldBytes.max));
    request.outDir = arguments.required("out");
    if (request.outDir.empty()) throw UsageError("--out needs a folder");
    request.refresh = arguments.has("refresh");
    request.timeout = commandTimeout(arguments);
    setupCommandLogging(arguments);
    printJson(namingOutOfMemory(request.document, [&] { return videoJson(request); }));
    return 0;
}

}  // namespace miravel
