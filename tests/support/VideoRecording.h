// What a test hears from the video clip thumbnail callbacks: the deliveries,
// and an owner that records them and the changed clips and lets the test wait
// for frames.
#pragma once

#include <algorithm>
#include <cstdint>
#include <set>
#include <thread>
#include <utility>
#include <vector>

#include "BsDataStructure/BsDataStructure.h"
#include "CallRecorder.h"
#include "Miravel/IBsClipThumbnailCallbacks.h"

namespace ZOR::test {

// One onVideoThumbnailData call: the lists copied, what was read of the
// pictures while the call lasted, the calling thread.
struct VideoDelivery {
    IDmClip* clip = nullptr;
    int32_t width = 0;
    int32_t height = 0;
    int32_t count = 0;
    int32_t bytesPerPicture = 0;
    std::vector<int64_t> frames;
    std::vector<unsigned char*> pictures;                 // as handed over
    std::vector<std::vector<unsigned char>> firstPixels;  // 4 bytes each; empty when not read
    std::vector<std::vector<unsigned char>> copies;       // every byte of each picture, when kept
    std::thread::id thread;
};

// An owner that records every delivery and changed clip.
class RecordingVideoOwner : public IBsVideoClipThumbnailCallback {
public:
    // What is read of each picture during the call: nothing (only the
    // pointers are kept), its first pixel (the pictures may be any size), or
    // all of it.
    enum class Pixels { None, First, All };
    explicit RecordingVideoOwner(Pixels read = Pixels::First) : read_(read) {}

    int32_t onVideoThumbnailNotice(void*) override { return 0; }
    int32_t onVideoThumbnailChanged(IDmClip* clip) override {
        changed_.record(clip);
        return 0;
    }
    int32_t onVideoThumbnailData(IDmClip* clip, int32_t width, int32_t height, IZORLonglongList* frames,
                                 IZORPByteList* pictures, int32_t count, int32_t bytesPerPicture) override {
        VideoDelivery delivery;
        delivery.clip = clip;
        delivery.width = width;
        delivery.height = height;
        delivery.count = count;
        delivery.bytesPerPicture = bytesPerPicture;
        delivery.thread = std::this_thread::get_id();
        const int32_t listed = frames != nullptr ? frames->count() : 0;
        for (int32_t i = 0; i < listed; ++i) delivery.frames.push_back(frames->get(i));
        const int32_t pictured = pictures != nullptr ? pictures->count() : 0;
        for (int32_t i = 0; i < pictured; ++i) {
            unsigned char* picture = pictures->get(i);
            delivery.pictures.push_back(picture);
            if (read_ != Pixels::None && picture != nullptr)
                delivery.firstPixels.emplace_back(picture, picture + 4);
            else
                delivery.firstPixels.emplace_back();
            if (read_ == Pixels::All && picture != nullptr)
                delivery.copies.emplace_back(picture, picture + bytesPerPicture);
        }
        deliveries_.record(std::move(delivery));
        return 0;
    }

    std::vector<VideoDelivery> deliveries() const { return deliveries_.snapshot(); }
    // The deliveries that carry at least one picture.
    std::vector<VideoDelivery> pictureDeliveries() const {
        std::vector<VideoDelivery> found;
        for (VideoDelivery& delivery : deliveries())
            if (!delivery.frames.empty()) found.push_back(std::move(delivery));
        return found;
    }
    std::vector<IDmClip*> changed() const { return changed_.snapshot(); }
    void clear() {
        deliveries_.clear();
        changed_.clear();
    }
    // Waits until every one of times was delivered (for clip, unless null)
    // since the last clear().
    bool waitForFrames(const std::vector<int64_t>& times, IDmClip* clip = nullptr) const {
        return deliveries_.waitFor([&](const std::vector<VideoDelivery>& deliveries) {
            std::set<int64_t> seen;
            for (const VideoDelivery& delivery : deliveries)
                if (clip == nullptr || delivery.clip == clip)
                    seen.insert(delivery.frames.begin(), delivery.frames.end());
            return std::all_of(times.begin(), times.end(), [&](int64_t time) { return seen.count(time) > 0; });
        });
    }

private:
    const Pixels read_;
    CallRecorder<VideoDelivery> deliveries_;
    CallRecorder<IDmClip*> changed_;
};

}  // namespace ZOR::test
