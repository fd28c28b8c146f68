// miravel frames MEDIA [--stream N] --times T1,T2,... --size WxH
//
// Asks the video frame wrapper for the pictures of the media's video stream
// at the given media times (cns) and prints, in request order,
// {"frames": [{"time", "file", "shown"}, ...]}: the file of each picture in
// the frame store and the presentation time of the frame shown.
//
// The frame store is where the pictures are: the media's folder in it is
// checked before the request (made when missing, a file written and removed,
// temporaries of writers that died removed), and a picture missing from it
// afterwards fails the command with the cause of the failed write.
#include <cstdio>
#include <string>
#include <tuple>
#include <vector>

#include "Cli.h"
#include "Commands.h"
#include "Common/ZorInternalComUtility.h"
#include "Usage.h"
#include "DataModel/DataModel.h"
#include "DataModel/DmMedia.h"
#include "DataModel/DmMediaInternal.h"
#include "Json.h"
#include "Miravel/Miravel.h"
#include "ZorUtils/ZorUtils.h"

namespace miravel {
namespace {

constexpr size_t kSlotBytes = 1024;

class FramesResult final : public ZOR::IBsVideoFrameExtractCallback {
public:
    void onVideoFrameChanged(int64_t /*token*/, int32_t status, const int64_t* /*times*/, void* frames,
                             int32_t count) override {
        auto lock = completion.lock();
        if (status == 7) return;
        status_ = status;
        for (int32_t i = 0; frames != nullptr && i < count; ++i)
            files_.emplace_back(static_cast<const char*>(frames) + static_cast<size_t>(i) * kSlotBytes);
        completion.finish();
    }

    Completion completion;
    int32_t status_ = 0;
    std::vector<std::string> files_;
};

}  // namespace

std::string framesJson(const FramesRequest& request) {
    const std::string& media = request.media;
    const std::vector<int64_t>& times = request.times;
    std::string error;
    const auto clip = ZOR::ZorRef<ZOR::IDmClip>::adopt(ZOR::createMediaClip(media.c_str(), -1, request.stream, &error));
    if (clip.get() == nullptr) throw Failure(error);
    auto* feature = static_cast<ZOR::IDmVideoFeature*>(clip.get()->queryInterface("IDmVideoFeature"));
    if (feature == nullptr)
        throw Failure(!error.empty() ? error
                                     : media + ": no video stream" +
                                           (request.stream >= 0 ? " at index " + std::to_string(request.stream) : ""));

    // The folder the frame task writes into: named after the canonical path
    // the clip keeps.
    auto* source = static_cast<ZOR::IDmMediaSource*>(clip.get()->queryInterface("IDmMediaSource"));
    const std::string store = source != nullptr ? ZOR::frameStoreFolder(source->mediaPath()) : std::string();
    if (store.empty()) throw Failure(media + ": cannot find its folder in the frame store");
    ZOR::removeAbandonedTemporaries(store);
    requireWritableFolder(store, "the frame store");

    FramesResult result;
    const auto wrapper = ZOR::ZorRef<ZOR::IBsVideoFrameExtractWrapper>::adopt(createBsVideoFrameExtractWrapper());
    wrapper.get()->addCallBack(&result);
    int64_t token = -1;
    if (wrapper.get()->queryVideoFrame(clip.get(), request.width, request.height, times.data(),
                                       static_cast<uint32_t>(times.size()), 0, &token) != 0) {
        wrapper.get()->removeCallBack(&result);
        throw Failure(media + ": the frame request was not accepted");
    }
    Progress progress("frames");
    const bool ended = result.completion.wait(request.timeout, progress);
    wrapper.get()->removeCallBack(&result);
    if (!ended)
        throw Failure(media + ": none of the " + std::to_string(times.size()) + " frames within " +
                      std::to_string(request.timeout.count()) + " s");
    if (result.status_ == 3) {
        std::string cause;
        if (ZOR::mediaFailure(media.c_str(), ZOR::DmTrackVideo, &cause))
            throw Failure(media + ": the video could not be decoded: " + cause);
        throw Failure(media + ": the video could not be decoded (see --log error)");
    }
    if (result.status_ == 4) throw Failure(media + ": the frame request was cancelled");

    // The presentation times of the frames shown, from the same store.
    std::vector<char> slots(times.size() * kSlotBytes + 1, '\0');
    std::vector<int64_t> shown(times.size() + 1, -1);
    int32_t filled = 0;
    feature->prepareFrames(request.width, request.height, 25, 1);
    feature->fillFrames(times.data(), static_cast<int32_t>(times.size()), slots.data(), shown.data(), &filled);

    // A picture that could not be written is not in the store: no file.
    std::string missing;
    for (size_t i = 0; i < times.size(); ++i) {
        if (i < result.files_.size() && !result.files_[i].empty()) continue;
        missing += missing.empty() ? " at " : ",";
        missing += std::to_string(times[i]);
    }
    if (!missing.empty()) {
        if (const int32_t cause = writeProblemIn(store); cause != 0) failToWrite(store, "the frame store", cause);
        throw Failure(store + ": the frame store has no picture of " + media + missing + " (see --log warning)");
    }

    JsonWriter json;
    json.beginObject().key("frames").beginArray();
    for (size_t i = 0; i < times.size(); ++i) {
        json.beginObject()
            .key("time")
            .value(times[i])
            .key("file")
            .value(i < result.files_.size() ? result.files_[i] : std::string())
            .key("shown")
            .value(shown[i])
            .endObject();
    }
    json.endArray().endObject();
    return json.text();
}

int runFrames(int argc, char** argv) {
    Arguments arguments(argc, argv, 2, commandSpec("frames"));
    if (arguments.positional().size() != 1) throw UsageError("frames needs one MEDIA file");
    FramesRequest request;
    request.media = arguments.positional()[0];
    request.stream = static_cast<int32_t>(arguments.integer("stream", limits::stream, -1));
    request.times = arguments.times("times");
    if (!arguments.has("size")) throw UsageError("--size is required");
    std::tie(request.width, request.height) = arguments.size("size", {0, 0});
    request.timeout = commandTimeout(arguments);
    setupCommandLogging(arguments);
    printJson(namingOutOfMemory(request.media, [&] { return framesJson(request); }));
    return 0;
}

}  // namespace miravel
