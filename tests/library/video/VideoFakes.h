// What the video thumbnail builder tests share: a video clip with a scripted
// frame store and attached items, style data objects, frame data objects as
// the video task reports them, a timeline that says whether it uses a media,
// and an owner that records what it is told.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Adapter/Adapter.h"
#include "BsDataStructure/BsDataStructure.h"
#include "BackgroundTaskManager/BackgroundTaskManager.h"
#include "Common/ZorInternalComUtility.h"
#include "DataModel/DataModel.h"
#include "Miravel/IBsClipThumbnailCallbacks.h"

namespace ZOR::test {

inline bool isName(const char* name, const char* expected) {
    return name != nullptr && std::strcmp(name, expected) == 0;
}

// The text data of a style item. It answers only the interface names it is
// given (e.g. "IImageStylizesData"); text(2) is the style identifier, any
// other argument a text that must not be used.
class FakeStyleData final : public RefCnt<void>, public virtual IDmStyleData {
public:
    ZOR_IMPLEMENT_REFCNT

    FakeStyleData(std::vector<std::string> names, const char* identifier)
        : names_(std::move(names)), hasIdentifier_(identifier != nullptr),
          identifier_(identifier != nullptr ? identifier : "") {}

    void* queryInterface(const char* name) override {
        for (const std::string& answered : names_)
            if (isName(name, answered.c_str())) return static_cast<IDmStyleData*>(this);
        if (isName(name, "IDmBaseObj")) return static_cast<IDmBaseObj*>(static_cast<IDmStyleData*>(this));
        return nullptr;
    }
    int32_t styleKind() override { return 1; }
    const char* text(int32_t which) override {
        if (which != 2) return "not-the-identifier";
        return hasIdentifier_ ? identifier_.c_str() : nullptr;
    }

private:
    const std::vector<std::string> names_;
    const bool hasIdentifier_;
    const std::string identifier_;
};

// A data object that answers "IImageStylizesData" with one style object and
// "IAITemplateGenerateData" with another; holds a reference on each.
class FakeTwoFacedData final : public RefCnt<void>, public virtual IDmBaseObj {
public:
    ZOR_IMPLEMENT_REFCNT

    FakeTwoFacedData(FakeStyleData* stylize, FakeStyleData* templateData) : stylize_(stylize), template_(templateData) {
        stylize_->AddRef();
        template_->AddRef();
    }
    ~FakeTwoFacedData() override {
        stylize_->Release();
        template_->Release();
    }
    void* queryInterface(const char* name) override {
        if (isName(name, "IImageStylizesData")) return static_cast<IDmStyleData*>(stylize_);
        if (isName(name, "IAITemplateGenerateData")) return static_cast<IDmStyleData*>(template_);
        if (isName(name, "IDmBaseObj")) return static_cast<IDmBaseObj*>(this);
        return nullptr;
    }

private:
    FakeStyleData* stylize_;
    FakeStyleData* template_;
};

// An item attached to a clip; holds a reference on each of its data objects.
class FakeAttachedItem final : public RefCnt<void>, public virtual IDmAttachedItem {
public:
    ZOR_IMPLEMENT_REFCNT

    FakeAttachedItem(bool applied, bool visualStyle, std::vector<IDmBaseObj*> objects)
        : applied_(applied), visualStyle_(visualStyle), data_(std::move(objects)) {
        for (IDmBaseObj* object : data_) object->AddRef();
    }
    ~FakeAttachedItem() override {
        for (IDmBaseObj* object : data_) object->Release();
    }
    void* queryInterface(const char* name) override {
        return zorQueryInterface(name, "IDmAttachedItem", static_cast<IDmAttachedItem*>(this));
    }
    bool isApplied() override { return applied_; }
    bool isVisualStyle() override { return visualStyle_; }
    int32_t dataCount() override { return static_cast<int32_t>(data_.size()); }
    IDmBaseObj* data(int32_t index) override {
        return index >= 0 && index < dataCount() ? data_[static_cast<size_t>(index)] : nullptr;
    }

private:
    const bool applied_;
    const bool visualStyle_;
    const std::vector<IDmBaseObj*> data_;  // one reference each
};

// The attached items of a clip, in order; one reference on each. Filled
// before it is shared.
class FakeAttachedItemList final : public RefCnt<void>, public virtual IDmAttachedItemList {
public:
    ZOR_IMPLEMENT_REFCNT

    ~FakeAttachedItemList() override {
        for (FakeAttachedItem* item : items_) item->Release();
    }
    void* queryInterface(const char* name) override {
        return zorQueryInterface(name, "IDmAttachedItemList", static_cast<IDmAttachedItemList*>(this));
    }
    int32_t count() override { return static_cast<int32_t>(items_.size()); }
    IDmAttachedItem* get(int32_t index) override {
        return index >= 0 && index < count() ? items_[static_cast<size_t>(index)] : nullptr;
    }
    // Adds an item whose data objects are data (each gets a reference).
    void add(bool applied, bool visualStyle, std::vector<IDmBaseObj*> objects) {
        auto* item = new FakeAttachedItem(applied, visualStyle, std::move(objects));
        item->AddRef();
        items_.push_back(item);
    }

private:
    std::vector<FakeAttachedItem*> items_;  // one reference each
};

// A style data object answering the given names, with one reference owned by
// the caller.
inline FakeStyleData* newStyleData(std::vector<std::string> names, const char* identifier) {
    auto* data = new FakeStyleData(std::move(names), identifier);
    data->AddRef();
    return data;
}

// One call of thumbnailFiles.
struct ThumbnailFilesCall {
    std::vector<int64_t> frames;
};

// A video clip of a media with a scripted frame store: thumbnailFiles gives
// the file set for a frame and lists every other frame as missing.
// Thread-safe.
class FakeStoreVideoClip final : public RefCnt<void>, public virtual IDmClip, public virtual IDmVideoFeature {
public:
    ZOR_IMPLEMENT_REFCNT

    explicit FakeStoreVideoClip(std::string media, int32_t stream = 0)
        : mediaId_(std::move(media)), streamId_(stream) {}
    ~FakeStoreVideoClip() override {
        if (items_ != nullptr) items_->Release();
    }

    void* queryInterface(const char* name) override {
        if (isName(name, "IDmClip")) return static_cast<IDmClip*>(this);
        if (isName(name, "IDmVideoFeature")) return static_cast<IDmVideoFeature*>(this);
        if (isName(name, "IDmBaseObj")) return static_cast<IDmBaseObj*>(static_cast<IDmClip*>(this));
        return nullptr;
    }

    // IDmClip
    int32_t clipType() override { return DmTrackVideo; }
    IDmTimeline* timeline() override { return nullptr; }
    IDmTrack* track() override { return nullptr; }
    const char* clipId() override { return "video-clip"; }
    int32_t mediaId(char* buffer, int32_t size) override {
        zor_strcpy(buffer, static_cast<size_t>(size), mediaId_.c_str());
        return 0;
    }
    const char* name() override { return "video-clip"; }
    IDmEffect* effect(int32_t) override { return nullptr; }
    IDmBaseObj* feature(int32_t, int32_t) override { return nullptr; }
    IDmAttachedItemList* attachedItems() override { return items_; }

    // IDmVideoFeature
    int32_t videoStreamIndex() override { return streamId_; }
    int32_t frameRate(int64_t* num, int64_t* den) override {
        *num = 25;
        *den = 1;
        return 0;
    }
    int32_t videoSize(int32_t* width, int32_t* height) override {
        *width = 64;
        *height = 36;
        return 0;
    }
    int32_t getProperty(const char* key, ZorProperty* value) override {
        if (key == nullptr || value == nullptr || std::strcmp(key, videoKey::streamId) != 0) return 1001;
        value->kind = ZorProperty::Int;
        value->intValue = streamId_;
        return 0;
    }
    int32_t prepareFrames(int32_t, int32_t, int64_t, int64_t) override { return 0; }
    int32_t fillFrames(const int64_t*, int32_t, void*, int64_t*, int32_t* filled) override {
        if (filled != nullptr) *filled = 0;
        return 1001;
    }
    int32_t prepareThumbnailSize(int32_t width, int32_t height, char* text, int32_t textSize) override {
        std::lock_guard<std::mutex> lock(mutex_);
        prepared_.push_back({width, height});
        if (text != nullptr && textSize > 0) zor_strcpy(text, static_cast<size_t>(textSize), "prepared");
        return prepareResult_;
    }
    int32_t thumbnailFiles(const int64_t* frames, int32_t count, char* slots, int64_t* missing,
                           int32_t* missingCount) override {
        std::lock_guard<std::mutex> lock(mutex_);
        filesCalls_.push_back({std::vector<int64_t>(frames, frames + count)});
        int32_t missed = 0;
        for (int32_t i = 0; i < count; ++i) {
            char* slot = slots + static_cast<size_t>(i) * 1024;
            slot[0] = '\0';
            auto found = files_.find(frames[i]);
            if (found != files_.end())
                zor_strcpy(slot, 1024, found->second.c_str());
            else
                missing[missed++] = frames[i];
        }
        *missingCount = missed;
        return 0;
    }

    // Scripting, before or while the clip is shared.
    void setFile(int64_t frame, const std::string& path) {
        std::lock_guard<std::mutex> lock(mutex_);
        files_[frame] = path;
    }
    void setPrepareResult(int32_t result) {
        std::lock_guard<std::mutex> lock(mutex_);
        prepareResult_ = result;
    }
    // Takes over the list's reference; set before the clip is shared.
    void setAttachedItems(FakeAttachedItemList* items) {
        if (items_ != nullptr) items_->Release();
        items_ = items;
    }
    std::vector<ThumbnailFilesCall> filesCalls() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return filesCalls_;
    }
    std::vector<std::pair<int32_t, int32_t>> prepared() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return prepared_;
    }
    IDmClip* asClip() { return static_cast<IDmClip*>(this); }
    int32_t references() { return RefCnt<void>::refCount(); }

private:
    const std::string mediaId_;
    const int32_t streamId_;
    FakeAttachedItemList* items_ = nullptr;  // one reference; null: no list
    mutable std::mutex mutex_;               // leaf: guards the fields below
    std::map<int64_t, std::string> files_;
    int32_t prepareResult_ = 0;
    std::vector<ThumbnailFilesCall> filesCalls_;
    std::vector<std::pair<int32_t, int32_t>> prepared_;
};

// One decoded picture as the video task reports it: width x height RGBA
// pixels, every pixel (value, value + 1, value + 2, 255).
class FakeFrameData final : public RefCnt<void>, public virtual IBsVideoFrameData {
public:
    ZOR_IMPLEMENT_REFCNT

    FakeFrameData(int64_t requested, int32_t pictureWidth, int32_t pictureHeight, unsigned char value)
        : requested_(requested), width_(pictureWidth), height_(pictureHeight),
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

// A frame data object with one reference owned by the caller.
inline FakeFrameData* newFrameData(int64_t requested, int32_t width, int32_t height, unsigned char value) {
    auto* data = new FakeFrameData(requested, width, height, value);
    data->AddRef();
    return data;
}

// A timeline that says whether it uses a media, and records what it was asked.
class FakeMediaTimeline final : public RefCnt<void>, public virtual IDmTimeline {
public:
    ZOR_IMPLEMENT_REFCNT

    explicit FakeMediaTimeline(bool uses) : uses_(uses) {}
    void* queryInterface(const char* name) override {
        return zorQueryInterface(name, "IDmTimeline", static_cast<IDmTimeline*>(this));
    }
    int32_t trackCount() override { return 0; }
    IDmTrack* track(int32_t) override { return nullptr; }
    int32_t clipCount(int32_t) override { return 0; }
    IDmClip* clip(int32_t, int32_t) override { return nullptr; }
    int64_t duration() override { return 0; }
    int32_t usesMedia(const char* mediaId) override {
        std::lock_guard<std::mutex> lock(mutex_);
        asked_.push_back(mediaId != nullptr ? mediaId : "");
        return uses_ ? 1 : 0;
    }
    std::vector<std::string> asked() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return asked_;
    }

private:
    const bool uses_;
    mutable std::mutex mutex_;  // leaf
    std::vector<std::string> asked_;
};

// One onVideoThumbnailData call: the lists copied, the first pixel of each
// picture (the pictures may be any size), the calling thread.
struct VideoDelivery {
    IDmClip* clip = nullptr;
    int32_t width = 0;
    int32_t height = 0;
    int32_t count = 0;
    int32_t bytesPerPicture = 0;
    std::vector<int64_t> frames;
    std::vector<unsigned char*> pictures;
    std::vector<std::vector<unsigned char>> firstPixels;
    std::thread::id thread;
};

// An owner that records every notice and delivery. readPixels false: the
// pictures are not touched (only their pointers are kept).
class RecordingVideoOwner final : public IBsVideoClipThumbnailCallback {
public:
    explicit RecordingVideoOwner(bool readPixels = true) : readPixels_(readPixels) {}

    int32_t onVideoThumbnailNotice(void*) override { return 0; }
    int32_t onVideoThumbnailChanged(IDmClip* clip) override {
        std::lock_guard<std::mutex> lock(mutex_);
        changed_.push_back(clip);
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
            if (readPixels_ && picture != nullptr)
                delivery.firstPixels.emplace_back(picture, picture + 4);
            else
                delivery.firstPixels.emplace_back();
        }
        std::lock_guard<std::mutex> lock(mutex_);
        deliveries_.push_back(std::move(delivery));
        return 0;
    }

    std::vector<VideoDelivery> deliveries() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return deliveries_;
    }
    // The deliveries that carry at least one picture.
    std::vector<VideoDelivery> pictureDeliveries() const {
        std::vector<VideoDelivery> found;
        for (VideoDelivery& delivery : deliveries())
            if (!delivery.frames.empty()) found.push_back(std::move(delivery));
        return found;
    }
    std::vector<IDmClip*> changed() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return changed_;
    }
    void clear() {
        std::lock_guard<std::mutex> lock(mutex_);
        deliveries_.clear();
        changed_.clear();
    }

private:
    const bool readPixels_;
    mutable std::mutex mutex_;  // leaf
    std::vector<VideoDelivery> deliveries_;
    std::vector<IDmClip*> changed_;
};

// The first pixel of a FakeFrameData of value v.
inline std::vector<unsigned char> framePixel(unsigned char value) {
    return {value, static_cast<unsigned char>(value + 1), static_cast<unsigned char>(value + 2), 255};
}

}  // namespace ZOR::test
