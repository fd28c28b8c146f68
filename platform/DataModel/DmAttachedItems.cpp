#include "DmAttachedItems.h"

#include <cstring>

#include "Common/ZorInternalComUtility.h"

namespace ZOR {

namespace {

bool is(const char* name, const char* text) { return name != nullptr && std::strcmp(name, text) == 0; }

enum StyleKind : int32_t { ImageStylize = 1, AiTemplate = 2 };

class DmStyleData final : public RefCnt<void>, public virtual IDmStyleData {
public:
    ZOR_IMPLEMENT_REFCNT
    DmStyleData(int32_t kind, std::string identifier) : kind_(kind), identifier_(std::move(identifier)) {}
    void* queryInterface(const char* name) override {
        if (is(name, kind_ == ImageStylize ? "IImageStylizesData" : "IAITemplateGenerateData"))
            return static_cast<IDmStyleData*>(this);
        if (is(name, "IDmBaseObj")) return static_cast<IDmBaseObj*>(this);
        if (is(name, "RefCnt")) return static_cast<RefCnt<void>*>(this);
        return zorQueryInterface(name, "IDmStyleData", static_cast<IDmStyleData*>(this));
    }
    int32_t styleKind() override { return kind_; }
    // 1: the kind's name; 2: the style's identifier.
    const char* text(int32_t which) override {
        if (which == 2) return identifier_.c_str();
        if (which == 1) return kind_ == ImageStylize ? "image stylize" : "AI template";
        return "";
    }

private:
    const int32_t kind_;
    const std::string identifier_;
};

class DmStyleItem final : public RefCnt<void>, public virtual IDmAttachedItem {
public:
    ZOR_IMPLEMENT_REFCNT
    explicit DmStyleItem(DmStyleData* data) : data_(data) { data_->AddRef(); }
    ~DmStyleItem() override { data_->Release(); }
    void* queryInterface(const char* name) override {
        if (is(name, "RefCnt")) return static_cast<RefCnt<void>*>(this);
        return zorQueryInterface(name, "IDmAttachedItem", static_cast<IDmAttachedItem*>(this));
    }
    bool isApplied() override { return true; }
    bool isVisualStyle() override { return true; }
    int32_t dataCount() override { return 1; }
    IDmBaseObj* data(int32_t index) override {
        return index == 0 ? static_cast<IDmBaseObj*>(static_cast<IDmStyleData*>(data_)) : nullptr;
    }

private:
    DmStyleData* data_;  // one reference
};

class DmItemList final : public RefCnt<void>, public virtual IDmAttachedItemList {
public:
    ZOR_IMPLEMENT_REFCNT
    ~DmItemList() override {
        for (IDmAttachedItem* item : items_) item->Release();
    }
    void* queryInterface(const char* name) override {
        if (is(name, "RefCnt")) return static_cast<RefCnt<void>*>(this);
        return zorQueryInterface(name, "IDmAttachedItemList", static_cast<IDmAttachedItemList*>(this));
    }
    int32_t count() override { return static_cast<int32_t>(items_.size()); }
    IDmAttachedItem* get(int32_t index) override {
        return index >= 0 && index < count() ? items_[static_cast<size_t>(index)] : nullptr;
    }
    void add(int32_t kind, const std::string& identifier) {
        auto* data = new DmStyleData(kind, identifier);
        data->AddRef();
        auto* item = new DmStyleItem(data);
        item->AddRef();
        data->Release();
        items_.push_back(item);
    }

private:
    std::vector<IDmAttachedItem*> items_;  // one reference each; fixed after creation
};

}  // namespace

IDmAttachedItemList* createStyleItemList(const std::string& imageStyleId, const std::string& templateStyleId) {
    auto* list = new DmItemList();
    list->AddRef();
    if (!imageStyleId.empty()) list->add(ImageStylize, imageStyleId);
    if (!templateStyleId.empty()) list->add(AiTemplate, templateStyleId);
    return list;
}

}  // namespace ZOR
