// miravel media MEDIA --root DIR [--count N] [--box WxH] [--position P] [--seek exact|keyframe]
//
// The media thumbnail manager over one media file: N pictures (--count,
// default 100) spread evenly over the media's duration, picture i showing the
// time i / N x duration, each fitted into the box (--box, default 320x180)
// and kept as a PNG file under DIR/media_thumbnail. The item is queued with
// getFrame at position P (0..1 of the media, default 0) and the command waits
// until the manager's worker has gone through all N pictures, coarse to
// fine. It prints {"root", "count", "files": [{"index", "file"}, ...]}: the
// files the manager announced, in the order it announced them. Pictures
// already on disk from an earlier run with the same DIR and box are neither
// rendered again nor announced, so they are not listed (a second run over the
// same DIR lists none). --seek keyframe shows the keyframe at or before each
// time instead of the exact frame there; --timeout SECONDS (default 600)
// bounds the wait.
//
// DIR belongs to one media item: the manager names its files by index and
// box only. DIR/media_thumbnail is checked before the item is queued (made
// when missing, a file written and removed, temporaries of writers that died
// removed); pictures missing at the end are explained by the failed writes
// there when there were any.
//
// Knowing when the item is complete. The manager has no "done" signal, and
// getFrame never waits: when it meets the manager's lock taken it queues
// nothing. The command uses the manager's task filter, which the worker asks
// before each step of the item at the head of its queue (newest first):
//   1. An end marker is queued first: an item of no file, whose steps the
//      filter refuses, so the worker never renders it. It is queued again
//      until the filter has seen it.
//   2. Then the media item, which goes in front of the marker. A filter call
//      for the marker that began after getFrame returned saw the queue as
//      getFrame left it, so two such calls without one for the item mean
//      the item was not queued, and it is queued again.
//   3. The worker leaves the item for the marker only once the item is
//      complete and out of the queue: the filter's next call for the marker
//      says so, after every announcement of the item. Pictures the adapter
//      could not make are then found missing on disk.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "Adapter/Adapter.h"
#include "Cli.h"
#include "Commands.h"
#include "Common/ZorInternalComUtility.h"
#include "Usage.h"
#include "DataModel/DataModel.h"
#include "DataModel/DmMedia.h"
#include "Json.h"
#include "Miravel/Miravel.h"
#include "ZorUtils/ZorUtils.h"

namespace miravel {
namespace {

constexpr size_t kPathBytes = sizeof(ZOR::MediaThumbRequest::mediaPath);
// The paths the limits take fit the request, the root with room for the
// folder and file names the manager adds.
static_assert(limits::mediaPath.max == kPathBytes - 1);
static_assert(limits::rootPath.max == kPathBytes - 65);
// How long the marker may go unseen before it is queued again: the worker
// looks at its queue every few milliseconds.
constexpr std::chrono::milliseconds kMarkerPatience{200};

// What the manager's worker reports about one item: the files it announced
// and the steps the task filter was asked about.
class ItemWatch final : public ZOR::IBsThumbManagerCallback {
public:
    // On the worker, with the manager's mutex held.
    void onThumbnail(const ZOR::MediaThumbRequest* /*request*/, int32_t frameIndex, const char* pngPath) override {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            files_.emplace_back(frameIndex, pngPath != nullptr ? pngPath : "");
        }
        changed_.notify_all();
    }

    // On the worker, before each step of the head item: whether to run it.
    // The first item the filter meets is the marker.
    bool step(ZOR::_ThumbTask* task) {
        bool run = false;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (marker_ == nullptr) marker_ = task;
            if (task == marker_) {
                ++markerSteps_;
                if (itemSeen_) done_ = true;
            } else {
                itemSeen_ = true;
                run = true;
            }
        }
        changed_.notify_all();
        return run;
    }

    bool itemSeen() {
        std::lock_guard<std::mutex> lock(mutex_);
        return itemSeen_;
    }
    int64_t markerSteps() {
        std::lock_guard<std::mutex> lock(mutex_);
        return markerSteps_;
    }
    std::vector<std::pair<int32_t, std::string>> files() {
        std::lock_guard<std::mutex> lock(mutex_);
        return files_;
    }

    // Waits until ready() holds (checked under the lock), or until until;
    // the bar shows the pictures done meanwhile. False at until.
    template <class Ready>
    bool waitUntil(std::chrono::steady_clock::time_point until, Ready ready, Progress& progress, size_t before,
                   size_t count) {
        return waitWithProgress(
            until, progress,
            [&] {
                bool met = false;
                size_t done = before;
                {
                    std::lock_guard<std::mutex> lock(mutex_);
                    met = ready();
                    done += files_.size();
                }
                // Not under the lock: the worker need not wait for stderr.
                progress.update(static_cast<double>(done) / static_cast<double>(count));
                return met;
            },
            [&](std::chrono::steady_clock::time_point slice) {
                std::unique_lock<std::mutex> lock(mutex_);
                changed_.wait_until(lock, slice, [&] { return ready(); });
            });
    }

    // For the predicates of waitUntil (called with the lock held).
    bool itemSeenLocked() const { return itemSeen_; }
    bool doneLocked() const { return done_; }
    bool markerSeenLocked() const { return marker_ != nullptr; }
    int64_t markerStepsLocked() const { return markerSteps_; }

private:
    std::mutex mutex_;  // after the manager's mutex: guards the fields below
    std::condition_variable changed_;
    std::vector<std::pair<int32_t, std::string>> files_;
    ZOR::_ThumbTask* marker_ = nullptr;  // compared, never read
    int64_t markerSteps_ = 0;
    bool itemSeen_ = false;
    bool done_ = false;
};

// The task filter is a plain function: it finds the watch of its manager here.
std::mutex watchesMutex;
std::map<ZOR::IBsThumbManager*, ItemWatch*> watches;

bool filterStep(ZOR::IBsThumbManager* manager, ZOR::_ThumbTask* task, int32_t /*framesPerStep*/) {
    std::lock_guard<std::mutex> lock(watchesMutex);
    auto found = watches.find(manager);
    return found != watches.end() && found->second->step(task);
}

// Registers a watch with a manager as its callback and task filter; the
// destructor stops the worker first, so that nothing reports afterwards.
class WatchRegistration {
public:
    WatchRegistration(ZOR::IBsThumbManager* manager, ItemWatch* watch) : manager_(manager), watch_(watch) {
        {
            std::lock_guard<std::mutex> lock(watchesMutex);
            watches[manager_] = watch_;
        }
        manager_->addCallback(watch_);
        manager_->setTaskFilter(&filterStep);
    }
    ~WatchRegistration() {
        manager_->stopWorker();
        manager_->setTaskFilter(nullptr);
        manager_->removeCallback(watch_);
        std::lock_guard<std::mutex> lock(watchesMutex);
        watches.erase(manager_);
    }
    WatchRegistration(const WatchRegistration&) = delete;
    WatchRegistration& operator=(const WatchRegistration&) = delete;

private:
    ZOR::IBsThumbManager* manager_;
    ItemWatch* watch_;
};

std::string quoted(const std::string& media) {
    std::string text = "'";
    text += media;
    text += "'";
    return text;
}

// The media's duration in cns. Failure naming the file and the cause when it
// cannot be read, has no pictures or no duration: the manager would then
// make no file at all.
int64_t pictureDuration(const std::string& media) {
    ZOR::IDmFactory* factory = ZOR::getDmFactoryInstance();
    const auto info =
        ZOR::ZorRef<ZOR::IDmMediaInfo>::adopt(factory != nullptr ? factory->createMediaInfo(media.c_str()) : nullptr);
    if (info.get() == nullptr) {
        // The media information says only that it failed; the clip says why.
        std::string error;
        const auto probe = ZOR::ZorRef<ZOR::IDmClip>::adopt(ZOR::createMediaClip(media.c_str(), -1, -1, &error));
        throw Failure(!error.empty() ? error : quoted(media) + ": cannot read the media");
    }
    ZOR::ZorProperty width;
    ZOR::ZorProperty height;
    if (info.get()->getProperty(ZOR::mediaInfoKey::width, &width) != 0 ||
        info.get()->getProperty(ZOR::mediaInfoKey::height, &height) != 0 || width.intValue < 1 || height.intValue < 1)
        throw Failure(quoted(media) + ": no video stream");
    ZOR::ZorProperty duration;
    if (info.get()->getProperty(ZOR::mediaInfoKey::duration, &duration) != 0 || duration.intValue < 1)
        throw Failure(quoted(media) + ": the media has no duration");
    return duration.intValue;
}

void copyText(char (&field)[kPathBytes], const std::string& text) {
    std::memset(field, 0, kPathBytes);
    std::memcpy(field, text.data(), std::min(text.size(), kPathBytes - 1));
}

// The index of the picture getFrame looks up at position, as the manager
// works it out for an item over the media's whole duration.
int64_t indexAt(double position, int32_t count) {
    return static_cast<int64_t>(
        std::clamp(std::floor(position * static_cast<double>(count)), 0.0, static_cast<double>(count)));
}

std::string timeoutText(const MediaRequest& request, const std::string& what) {
    std::string text = quoted(request.media);
    text += ": ";
    text += what;
    text += " within ";
    text += std::to_string(request.timeout.count());
    text += " s";
    return text;
}

}  // namespace

std::string mediaJson(const MediaRequest& request) {
    const int64_t duration = pictureDuration(request.media);
    const int32_t count = request.count;
    const std::string cacheDir = ZOR::PathUtil::join(request.root, "media_thumbnail").str();
    ZOR::removeAbandonedTemporaries(cacheDir);
    requireWritableFolder(cacheDir, "the media thumbnails");
    // The manager's file of picture i: <i>_<box width>_<box height>.png.
    std::string suffix = "_";
    suffix += std::to_string(request.width);
    suffix += '_';
    suffix += std::to_string(request.height);
    suffix += ".png";
    const auto fileOf = [&](int64_t index) {
        return ZOR::PathUtil::join(cacheDir, std::to_string(index) + suffix).str();
    };
    std::vector<bool> onDisk(static_cast<size_t>(count));
    for (int32_t i = 0; i < count; ++i) onDisk[static_cast<size_t>(i)] = ZOR::PathUtil::exists(fileOf(i));
    const size_t before = static_cast<size_t>(std::count(onDisk.begin(), onDisk.end(), true));

    Progress progress("media");
    std::vector<std::pair<int32_t, std::string>> announced;
    if (before < static_cast<size_t>(count)) {
        const auto manager = ZOR::ZorRef<ZOR::IBsThumbManager>::adopt(createThumbManager());
        if (manager.get() == nullptr) throw Failure("the media thumbnail manager could not be created");
        manager.get()->setThumbCount(count);
        manager.get()->setThumbSize(request.width, request.height);
        manager.get()->setAdapterSeekMode(request.keyframe ? ZOR::ThumbSeekKeyframe : ZOR::ThumbSeekExact);
        ItemWatch watch;
        WatchRegistration registration(manager.get(), &watch);

        ZOR::MediaThumbRequest item{};
        copyText(item.mediaPath, request.media);
        copyText(item.rootDir, request.root);
        item.startTime = 0;
        item.endTime = duration;
        item.duration = duration;
        // The marker: no file, and a folder that is never made, so that
        // getFrame finds no picture of it and queues it.
        ZOR::MediaThumbRequest marker = item;
        copyText(marker.mediaPath, "miravel: end of the media thumbnail queue");
        copyText(marker.rootDir, ZOR::PathUtil::join(cacheDir, ".end-of-queue").str());

        // getFrame queues nothing when the picture at its position is on
        // disk: the item is then queued at its first picture missing.
        double position = request.position;
        const int64_t asked = indexAt(position, count);
        if (asked < count && onDisk[static_cast<size_t>(asked)]) {
            const auto first = std::find(onDisk.begin(), onDisk.end(), false);
            position = (static_cast<double>(first - onDisk.begin()) + 0.5) / static_cast<double>(count);
        }

        const auto deadline = std::chrono::steady_clock::now() + request.timeout;
        char found[kPathBytes] = {};
        progress.update(static_cast<double>(before) / static_cast<double>(count));
        manager.get()->getFrame(&marker, 0.0, found);
        for (;;) {
            const auto until = std::min(deadline, std::chrono::steady_clock::now() + kMarkerPatience);
            if (watch.waitUntil(
                    until, [&] { return watch.markerSeenLocked(); }, progress, before, count))
                break;
            if (std::chrono::steady_clock::now() >= deadline)
                throw Failure(timeoutText(request, "the media thumbnail manager did not start"));
            manager.get()->getFrame(&marker, 0.0, found);
        }
        for (;;) {
            manager.get()->getFrame(&item, position, found);
            const int64_t since = watch.markerSteps();
            if (!watch.waitUntil(
                    deadline, [&] { return watch.itemSeenLocked() || watch.markerStepsLocked() >= since + 2; },
                    progress, before, count))
                throw Failure(timeoutText(request, "the media thumbnail manager did not take the item"));
            if (watch.itemSeen()) break;
            // Not queued: getFrame met the manager's lock taken.
        }
        if (!watch.waitUntil(
                deadline, [&] { return watch.doneLocked(); }, progress, before, count)) {
            std::string what = "the media thumbnails were not complete (";
            what += std::to_string(before + watch.files().size());
            what += " of ";
            what += std::to_string(count);
            what += " pictures on disk)";
            throw Failure(timeoutText(request, what));
        }
        announced = watch.files();
    }
    progress.update(1.0);
    progress.finish();

    // Pictures the adapter could not make are missing.
    std::vector<int32_t> missing;
    for (int32_t i = 0; i < count; ++i)
        if (!ZOR::PathUtil::exists(fileOf(i))) missing.push_back(i);
    if (!missing.empty()) {
        // The manager announces a picture even when writing it failed.
        if (const int32_t error = writeProblemIn(cacheDir); error != 0)
            failToWrite(cacheDir,
                        "the media thumbnails (" + std::to_string(missing.size()) + " of " + std::to_string(count) +
                            " pictures missing)",
                        error);
        std::string message = quoted(request.media);
        std::string cause;
        if (static_cast<int32_t>(missing.size()) == count &&
            ZOR::mediaFailure(request.media.c_str(), ZOR::DmTrackVideo, &cause)) {
            message += ": no picture could be made: " + cause;
        } else if (static_cast<int32_t>(missing.size()) == count) {
            message += ": no picture could be made (see --log warning)";
        } else {
            message += ": no picture ";
            message += missing.size() == 1 ? "at index " : "at indexes ";
            for (size_t i = 0; i < missing.size() && i < 10; ++i) {
                if (i > 0) message += ", ";
                message += std::to_string(missing[i]);
            }
            if (missing.size() > 10) message += ", ...";
            message += " of ";
            message += std::to_string(count);
            message += " (see --log warning)";
        }
        throw Failure(message);
    }

    JsonWriter json;
    json.beginObject().key("root").value(request.root).key("count").value(count).key("files").beginArray();
    for (const auto& [index, file] : announced)
        json.beginObject().key("index").value(index).key("file").value(file).endObject();
    json.endArray().endObject();
    return json.text();
}

int runMedia(int argc, char** argv) {
    Arguments arguments(argc, argv, 2, commandSpec("media"));
    if (arguments.positional().size() != 1) throw UsageError("media needs one MEDIA file");
    MediaRequest request;
    request.media = arguments.positional()[0];
    const auto length = [](const std::string& path) { return static_cast<int64_t>(path.size()); };
    if (length(request.media) < limits::mediaPath.min || length(request.media) > limits::mediaPath.max)
        throw UsageError("MEDIA needs a path " + rangeText(limits::mediaPath) + ", not one of " +
                         std::to_string(request.media.size()));
    request.root = arguments.required("root");
    if (length(request.root) < limits::rootPath.min || length(request.root) > limits::rootPath.max)
        throw UsageError("--root needs a path " + rangeText(limits::rootPath) + ", not one of " +
                         std::to_string(request.root.size()));
    request.count = static_cast<int32_t>(arguments.integer("count", limits::count, 100));
    std::tie(request.width, request.height) = arguments.size("box", {320, 180});
    request.position = arguments.number("position", limits::position, 0.0);
    const std::string seek = arguments.text("seek").value_or("exact");
    if (seek != "exact" && seek != "keyframe") throw UsageError("--seek needs exact or keyframe, not '" + seek + "'");
    request.keyframe = seek == "keyframe";
    request.timeout = commandTimeout(arguments);
    setupCommandLogging(arguments);
    printJson(namingOutOfMemory(request.media, [&] { return mediaJson(request); }));
    return 0;
}

}  // namespace miravel
