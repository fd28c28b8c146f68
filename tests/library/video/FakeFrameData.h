// The picture data objects the video task reports, as the video thumbnail
// builder tests script them.
#pragma once

#include <cstdint>
#include <vector>

#include "BackgroundTaskManager/BackgroundTaskManager.h"
#include "Common/ZorInternalComUtility.h"
#include "FakeDataModel.h"

namespace ZOR::test {

// One decoded picture as the video task reports it: width x height RGBA
// pixels, every pixel (value, value + 1, value + 2, 255).
class FakeFrameData final : public RefCnt<void>, public virtual IBsVideoFrameData {
public:
    ZOR_IMPLEMENT_REFCNT

    FakeFrameData(int64_t requested, int32_t pictureWidth, int32_t pictureHeight, unsigned char value)
        : requested_(requested),
          width_(pictureWidth),
          height_(pictureHeight),
          pixels_(static_cast<size_t>(pictureWidth) * static_cast<size_t>(pictureHeight) * 4) {
        for (size_t i = 0; i < pixels_.size(); i += 4) {
            pixels_[i] = value;
            pixels_[i + 1] = static_cast<unsigned char>(value + 1);
            pixels_[i + 2] = static_cast<unsigned char>(value + 2);
            pixels_[i + 3] = 255;
        }
    }
    void* queryInterface(const char* name) override {
        return zorQueryInterface(name, "IBsVideoFrameData", static_cast<IBsVideoFrameData*>(this));
    }
    int64_t requestedTime() override { return requested_; }
    int64_t shownTime() override { return requested_; }
    int32_t width() override { return width_; }
    int32_t height() override { return height_; }
    int64_t byteSize() override { return static_cast<int64_t>(pixels_.size()); }
    const unsigned char* bytes() override { return pixels_.data(); }

    // What the report carries.
    IDmBaseObj* asData() { return static_cast<IDmBaseObj*>(static_cast<IBsVideoFrameData*>(this)); }

private:
    const int64_t requested_;
    const int32_t width_;
    const int32_t height_;
    std::vector<unsigned char> pixels_;
};

inline ZorRef<FakeFrameData> newFrameData(int64_t requested, int32_t width, int32_t height, unsigned char value) {
    return makeRef<FakeFrameData>(requested, width, height, value);
}

// The first pixel of a FakeFrameData of value v.
inline std::vector<unsigned char> framePixel(unsigned char value) {
    return {value, static_cast<unsigned char>(value + 1), static_cast<unsigned char>(value + 2), 255};
}

}  // namespace ZOR::test
