// The data model's factory: clip lists and media information of files.
#include <cstring>
#include <mutex>
#include <vector>

#include "DataModel/DmKeyTexts.h"
#include "Common/ZorInternalComUtility.h"
#include "DataModel/DataModel.h"
#include "DmMediaProbe.h"

ZOR_LOG_SOURCE("platform/DataModel/DmFactory")

namespace ZOR {

namespace {

bool is(const char* name, const char* text) { return name != nullptr && std::strcmp(name, text) == 0; }

// A list of clips holding one reference on each. Thread-safe.
class DmClipList final : public RefCnt<void>, public virtual IDmClipList {
public:
    ZOR_IMPLEMENT_REFCNT
    ~DmClipList() override {
        for (IDmClip* clip : clips_) clip->Release();
    }
    void* queryInterface(const char* name) override {
        if (is(name, "RefCnt")) return static_cast<RefCnt<void>*>(this);
        return zorQueryInterface(name, "IDmClipList", static_cast<IDmClipList*>(this));
    }
    int32_t count() override {
        std::lock_guard<std::mutex> guard(lock_);
        return static_cast<int32_t>(clips_.size());
    }
    IDmClip* get(int32_t index) override {
        std::lock_guard<std::mutex> guard(lock_);
        return index >= 0 && static_cast<size_t>(index) < clips_.size() ? clips_[static_cast<size_t>(index)] : nullptr;
    }
    int32_t append(IDmClip* clip) override {
        if (clip == nullptr) return kResultFailure;
        clip->AddRef();
        std::lock_guard<std::mutex> guard(lock_);
        clips_.push_back(clip);
        return 0;
    }

private:
    std::mutex lock_;  // leaf
    std::vector<IDmClip*> clips_;
};

// What a file holds, probed once: its picture size (turned upright), its
// video stream and its duration.
class DmMediaInfo final : public RefCnt<void>, public virtual IDmMediaInfo {
public:
    ZOR_IMPLEMENT_REFCNT
    explicit DmMediaInfo(DmMediaProbe probe) : probe_(std::move(probe)) {}
    void* queryInterface(const char* name) override {
        if (is(name, "RefCnt")) return static_cast<RefCnt<void>*>(this);
        return zorQueryInterface(name, "IDmMediaInfo", static_cast<IDmMediaInfo*>(this));
    }
    int32_t getProperty(const char* key, ZorProperty* value) override {
        if (key == nullptr || value == nullptr) return kResultFailure;
        const bool video = probe_.videoStream >= 0;
        if (is(key, keytext::kMediaInfoWidth)) {
            *value = intProperty(video ? probe_.displayWidth() : 0);
        } else if (is(key, keytext::kMediaInfoHeight)) {
            *value = intProperty(video ? probe_.displayHeight() : 0);
        } else if (is(key, keytext::kMediaInfoVideoStreamId)) {
            *value = intProperty(probe_.videoStream);
        } else if (is(key, keytext::kMediaInfoDuration)) {
            int64_t duration = probe_.containerDuration;
            if (video && probe_.videoDuration > 0)
                duration = probe_.videoDuration;
            else if (probe_.audioStream >= 0 && probe_.audioDuration > 0)
                duration = probe_.audioDuration;
            *value = intProperty(duration);
        } else {
            return kResultFailure;
        }
        return 0;
    }

private:
    const DmMediaProbe probe_;
};

class DmFactory final : public IDmFactory {
public:
    IDmMediaInfo* createMediaInfo(const char* path) override {
        if (path == nullptr || path[0] == '\0') return nullptr;
        DmMediaProbe probe = probeMedia(path, -1, -1);
        if (!probe.opened) {
            ZOR_LOG(IBsLogger::Warning, "ZOR::DmFactory::createMediaInfo", "%s", probe.problem.c_str());
            return nullptr;
        }
        auto* info = new DmMediaInfo(std::move(probe));
        info->AddRef();
        return info;
    }
    IDmClipList* createIDmClipList() override {
        auto* list = new DmClipList();
        list->AddRef();
        return list;
    }
};

}  // namespace

IDmFactory* getDmFactoryInstance() {
    static DmFactory factory;  // stateless: safe to use at any time
    return &factory;
}

}  // namespace ZOR
