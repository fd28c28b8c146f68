// What the media thumbnail manager's tests share: a manager held for one
// test, a callback that keeps every file announced, a task filter that
// records the worker's steps (and can hold tasks back), the rendering order
// worked out independently, and videos made by the ffmpeg command.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "BsThumbManager.h"
#include "CallRecorder.h"
#include "Common/ZorInternalComUtility.h"
#include "MediaTestSupport.h"
#include "Miravel/IBsThumbManager.h"
#include "Timeouts.h"
#include "ZorUtils/ZorUtils.h"

namespace ZOR::test {

constexpr int64_t kSecond = 10'000'000;  // cns

struct Rgb {
    int r = 0;
    int g = 0;
    int b = 0;
};

inline std::string hexOf(const Rgb& colour) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%02X%02X%02X", colour.r, colour.g, colour.b);
    return text;
}

// Distinct colours, every channel at 0, 85, 170 or 255: any two differ by 85
// in some channel, far more than the encoding moves a flat picture.
inline std::vector<Rgb> palette(int count) {
    static const int kLevels[] = {0, 85, 170, 255};
    std::vector<Rgb> colours;
    for (int k = 0; k < count && k < 64; ++k)
        colours.push_back({kLevels[(k / 16) % 4], kLevels[(k / 4) % 4], kLevels[k % 4]});
    return colours;
}

// A video of one second per colour at 25 frames per second, a keyframe every
// gopFrames frames and nowhere else.
inline bool makeColourVideo(const std::string& path, const std::vector<Rgb>& colours, int width, int height,
                            int gopFrames) {
    MediaTest::ColourVideo video;
    for (const Rgb& colour : colours) video.colours.push_back(hexOf(colour));
    video.width = width;
    video.height = height;
    video.encoding = std::string(MediaTest::kH264) + " -preset veryfast -crf 12 -g " + std::to_string(gopFrames) +
                     " -keyint_min " + std::to_string(gopFrames) + " -sc_threshold 0";
    return MediaTest::ffmpeg(MediaTest::colourVideoArguments(path, video));
}

// The rendering order of count frames by its rule: 0, count - 1, then pass
// by pass the midpoint (rounded down) of every gap still open, the right-most
// gap first.
inline std::vector<int32_t> expectedOrder(int32_t count) {
    std::vector<int32_t> order;
    if (count < 1) return order;
    order.push_back(0);
    if (count == 1) return order;
    order.push_back(count - 1);
    std::vector<std::pair<int32_t, int32_t>> gaps{{0, count - 1}};  // left to right
    while (!gaps.empty()) {
        std::vector<std::pair<int32_t, int32_t>> next;
        std::vector<int32_t> middles;  // left to right
        for (const auto& [left, right] : gaps) {
            if (right - left < 2) continue;
            const int32_t middle = (left + right) / 2;
            middles.push_back(middle);
            next.emplace_back(left, middle);
            next.emplace_back(middle, right);
        }
        order.insert(order.end(), middles.rbegin(), middles.rend());
        gaps = std::move(next);
    }
    return order;
}

inline MediaThumbRequest makeRequest(const std::string& mediaPath, const std::string& rootDir, int64_t startTime,
                                     int64_t endTime, int64_t duration, uint64_t mediaObject = 0) {
    MediaThumbRequest request;
    std::memset(&request, 0, sizeof request);
    zor_strcpy(request.mediaPath, sizeof request.mediaPath, mediaPath.c_str());
    zor_strcpy(request.rootDir, sizeof request.rootDir, rootDir.c_str());
    request.mediaObject = mediaObject;
    request.startTime = startTime;
    request.endTime = endTime;
    request.duration = duration;
    return request;
}

// "<root>/media_thumbnail/<index>_<width>_<height>.png", or "<index>.png"
// for a box below 1.
inline std::string thumbFile(const std::string& rootDir, int64_t index, int width, int height) {
    std::string name = std::to_string(index);
    if (width >= 1 && height >= 1) {
        name += '_';
        name += std::to_string(width);
        name += '_';
        name += std::to_string(height);
    }
    name += ".png";
    return (std::filesystem::path(rootDir) / "media_thumbnail" / name).string();
}

// The key the probe and the tests name a media item by.
inline std::string mediaKey(const MediaThumbRequest& request) {
    if (request.mediaObject != 0) return "object:" + std::to_string(request.mediaObject);
    return std::string(request.mediaPath, strnlen(request.mediaPath, sizeof request.mediaPath));
}

// The picture of a PNG file.
struct Picture {
    int32_t status = -1;
    int width = 0;
    int height = 0;
    std::vector<unsigned char> rgba;

    Rgb at(int x, int y) const {
        const size_t offset = (static_cast<size_t>(y) * static_cast<size_t>(width) + static_cast<size_t>(x)) * 4;
        return {rgba[offset], rgba[offset + 1], rgba[offset + 2]};
    }
    Rgb centre() const { return at(width / 2, height / 2); }
};

inline Picture readPicture(const std::string& path) {
    Picture picture;
    unsigned char* buffer = nullptr;
    picture.status = loadPNG(path.c_str(), &buffer, &picture.width, &picture.height);
    if (picture.status == 0 && buffer != nullptr) {
        picture.rgba.assign(buffer,
                            buffer + static_cast<size_t>(picture.width) * static_cast<size_t>(picture.height) * 4);
    }
    freeImageBuffer(buffer);
    return picture;
}

inline void expectColour(const Rgb& actual, const Rgb& expected, const std::string& what) {
    EXPECT_NEAR(actual.r, expected.r, 30) << what;
    EXPECT_NEAR(actual.g, expected.g, 30) << what;
    EXPECT_NEAR(actual.b, expected.b, 30) << what;
}

// One file announced by the manager.
struct Notice {
    MediaThumbRequest request;                   // a copy
    const MediaThumbRequest* pointer = nullptr;  // as given
    int32_t index = -1;
    std::string path;
    bool existed = false;  // whether the file was on disk when announced
    std::thread::id thread;
};

// Keeps every notice; tests wait for them.
class Recorder final : public IBsThumbManagerCallback {
public:
    void onThumbnail(const MediaThumbRequest* request, int32_t frameIndex, const char* pngPath) override {
        Notice notice;
        if (request != nullptr) notice.request = *request;
        notice.pointer = request;
        notice.index = frameIndex;
        notice.path = pngPath != nullptr ? pngPath : "";
        std::error_code ec;
        notice.existed = std::filesystem::is_regular_file(notice.path, ec);
        notice.thread = std::this_thread::get_id();
        notices_.record(std::move(notice));
    }

    bool waitForCount(size_t count, std::chrono::milliseconds timeout = kGenerous) {
        return notices_.waitForCount(count, timeout);
    }
    std::vector<Notice> notices() const { return notices_.snapshot(); }
    std::vector<int32_t> indices() const {
        std::vector<int32_t> found;
        for (const Notice& notice : notices()) found.push_back(notice.index);
        return found;
    }

private:
    CallRecorder<Notice> notices_;
};

// The task filter: records which media item each step of the worker was for
// and when, and holds back the items it is told to (a held item stays queued
// and is asked about at every step). A filter is a plain function, so one
// probe at a time is installed process-wide.
class FilterProbe {
public:
    struct Call {
        std::string key;
        std::chrono::steady_clock::time_point when;
    };

    FilterProbe() { current().store(this); }
    ~FilterProbe() { current().store(nullptr); }
    FilterProbe(const FilterProbe&) = delete;
    FilterProbe& operator=(const FilterProbe&) = delete;

    static bool filter(IBsThumbManager* /*manager*/, _ThumbTask* task, int32_t /*framesPerStep*/) {
        FilterProbe* probe = current().load();
        if (probe == nullptr || task == nullptr) return true;
        return probe->record(mediaKey(task->request));
    }

    void hold(const std::string& key) {
        std::lock_guard<std::mutex> lock(mutex_);
        held_.insert(key);
    }
    void release(const std::string& key) {
        std::lock_guard<std::mutex> lock(mutex_);
        held_.erase(key);
        allowance_.erase(key);
    }
    // Lets count more steps of key pass, then holds it.
    void holdAfter(const std::string& key, size_t count) {
        std::lock_guard<std::mutex> lock(mutex_);
        allowance_[key] = count;
    }
    void holdAll(bool hold) {
        std::lock_guard<std::mutex> lock(mutex_);
        holdAll_ = hold;
    }

    std::vector<Call> calls() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return calls_;
    }
    size_t stepCount() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return calls_.size();
    }
    size_t countFor(const std::string& key) const {
        std::lock_guard<std::mutex> lock(mutex_);
        return static_cast<size_t>(
            std::count_if(calls_.begin(), calls_.end(), [&](const Call& call) { return call.key == key; }));
    }
    bool seen(const std::string& key) const { return countFor(key) > 0; }

    // Waits until the worker has stepped count times for key.
    bool waitForSteps(const std::string& key, size_t count) {
        std::unique_lock<std::mutex> lock(mutex_);
        return signal_.wait_for(lock, kGenerous, [&] {
            return static_cast<size_t>(std::count_if(calls_.begin(), calls_.end(),
                                                     [&](const Call& call) { return call.key == key; })) >= count;
        });
    }
    // Waits until pred(calls) holds; re-checked at every step of the worker.
    bool waitForCalls(const std::function<bool(const std::vector<Call>&)>& pred) {
        std::unique_lock<std::mutex> lock(mutex_);
        return signal_.wait_for(lock, kGenerous, [&] { return pred(calls_); });
    }
    // Waits until the worker steps for later after it has stepped for every
    // one of earlier (counting the steps from step number from on): with
    // later queued before them (behind them), every one of earlier has left
    // the queue by then.
    bool waitForStepAfter(const std::vector<std::string>& earlier, const std::string& later, size_t from = 0) {
        std::unique_lock<std::mutex> lock(mutex_);
        return signal_.wait_for(lock, kGenerous, [&] {
            size_t lastEarlier = from;
            for (const std::string& key : earlier) {
                bool found = false;
                for (size_t i = calls_.size(); i-- > from;)
                    if (calls_[i].key == key) {
                        lastEarlier = std::max(lastEarlier, i + 1);
                        found = true;
                        break;
                    }
                if (!found) return false;
            }
            for (size_t i = lastEarlier; i < calls_.size(); ++i)
                if (calls_[i].key == later) return true;
            return false;
        });
    }

private:
    static std::atomic<FilterProbe*>& current() {
        static std::atomic<FilterProbe*> probe{nullptr};
        return probe;
    }
    bool record(const std::string& key) {
        std::lock_guard<std::mutex> lock(mutex_);
        calls_.push_back({key, std::chrono::steady_clock::now()});
        signal_.notify_all();
        if (holdAll_ || held_.count(key) > 0) return false;
        auto allowed = allowance_.find(key);
        if (allowed == allowance_.end()) return true;
        if (allowed->second == 0) return false;
        --allowed->second;
        return true;
    }

    mutable std::mutex mutex_;  // leaf
    std::condition_variable signal_;
    std::vector<Call> calls_;
    std::set<std::string> held_;
    std::map<std::string, size_t> allowance_;
    bool holdAll_ = false;
};

// One manager (one reference) for a test.
class ManagerHolder {
public:
    ManagerHolder()
        : manager_(ZorRef<IBsThumbManager>::adopt(createThumbManager())),
          impl_(dynamic_cast<BsThumbManager*>(manager_.get())) {}
    ManagerHolder(const ManagerHolder&) = delete;
    ManagerHolder& operator=(const ManagerHolder&) = delete;

    IBsThumbManager* operator->() const { return manager_.get(); }
    IBsThumbManager* get() const { return manager_.get(); }
    BsThumbManager* impl() const { return impl_; }
    // Hands the reference over (for a test that releases it itself).
    ZorRef<IBsThumbManager> take() {
        impl_ = nullptr;
        return std::move(manager_);
    }
    void reset() {
        impl_ = nullptr;
        manager_.reset();
    }

    // The keys of the queued media items, head first.
    std::vector<std::string> queued() const {
        std::vector<std::string> keys;
        for (const auto& task : impl_->queuedTasks()) keys.push_back(mediaKey(task->request));
        return keys;
    }

private:
    ZorRef<IBsThumbManager> manager_;
    BsThumbManager* impl_;
};

// Asks for a picture until the manager has taken the item up (queued, or
// already stepped on): a request made while the worker holds the manager's
// lock is not queued. The result of the first request.
inline int32_t requestUntilTaken(ManagerHolder& manager, const FilterProbe& probe, const MediaThumbRequest& request,
                                 double position, char* outPath) {
    const std::string key = mediaKey(request);
    const size_t stepsBefore = probe.countFor(key);
    int32_t first = -1;
    for (int attempt = 0; attempt < 1000; ++attempt) {
        const int32_t result = manager->getFrame(&request, position, outPath);
        if (attempt == 0) first = result;
        const std::vector<std::string> queued = manager.queued();
        if (!queued.empty() && queued.front() == key) return first;
        if (probe.countFor(key) > stepsBefore && std::find(queued.begin(), queued.end(), key) == queued.end())
            return first;
    }
    ADD_FAILURE() << "the manager never took " << key << " up";
    return first;
}

// Regular files under a folder whose name holds text.
inline std::vector<std::string> filesNamed(const std::filesystem::path& folder, const std::string& text) {
    std::vector<std::string> found;
    for (const std::string& file : MediaTest::filesUnder(folder))
        if (std::filesystem::path(file).filename().string().find(text) != std::string::npos) found.push_back(file);
    return found;
}

// The four colours of the small test video, one second each.
inline const std::vector<Rgb>& fourColours() {
    static const std::vector<Rgb> colours{{255, 0, 0}, {0, 255, 0}, {0, 0, 255}, {255, 255, 0}};
    return colours;
}

// A manager on the real adapter with the probe as its task filter, the
// recorder as its callback and a 1 ms pause between steps; a fresh folder.
class ThumbManagerFixture : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(manager_.get(), nullptr);
        ASSERT_NE(manager_.impl(), nullptr);
        root_ = folder_.file("root");
        manager_->setTaskFilter(&FilterProbe::filter);
        manager_->setWorkerSleep(1);
        ASSERT_EQ(manager_->addCallback(&recorder_), 0);
    }

    std::string cacheDir() const { return (std::filesystem::path(root_) / "media_thumbnail").string(); }

    // A 4-second 160x90 video: red, green, blue, yellow; a keyframe every 2 s.
    std::string smallVideo() {
        const std::string path = folder_.file("four.mp4");
        if (!std::filesystem::exists(path)) {
            EXPECT_TRUE(makeColourVideo(path, fourColours(), 160, 90, 50));
        }
        return path;
    }

    // A media item that the probe holds back, queued with its own root. Queued
    // before the item under test it sits behind it, and its first step after
    // that item's steps tells that the item has left the queue.
    MediaThumbRequest sentinel() const {
        return makeRequest(folder_.file("sentinel.mp4"), folder_.file("sentinel-root"), 0, 4 * kSecond, 4 * kSecond);
    }
    void queueSentinel() {
        const MediaThumbRequest request = sentinel();
        probe_.hold(mediaKey(request));
        char out[1024] = {};
        requestUntilTaken(manager_, probe_, request, 0.5, out);
    }
    // Waits until every one of items has left the queue (behind which the
    // sentinel was queued), counting the worker's steps from step from on.
    bool waitUntilDone(const std::vector<std::string>& items, size_t from = 0) {
        return probe_.waitForStepAfter(items, mediaKey(sentinel()), from);
    }

    static void createFile(const std::string& path, const std::string& text) {
        std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        MediaTest::writeText(path, text);
    }
    static std::string readText(const std::string& path) {
        const std::vector<char> bytes = MediaTest::readBytes(path);
        return std::string(bytes.begin(), bytes.end());
    }

    TempFolder folder_;
    FilterProbe probe_;
    Recorder recorder_;
    std::string root_;
    ManagerHolder manager_;  // declared last: gone before what it uses
};

}  // namespace ZOR::test
