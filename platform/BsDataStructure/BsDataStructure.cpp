#include "BsDataStructure/BsDataStructure.h"

#include <vector>

#include "Common/ZorInternalComUtility.h"

namespace ZOR {
namespace {

// One list class per element type; Interface is the list's public face and
// Name the name it answers in its query by name.
template <class Interface, class Value, const char* Name>
class ZorList final : public RefCnt<void>, public Interface {
public:
    ZOR_IMPLEMENT_REFCNT

    void* queryInterface(const char* name) override {
        return zorQueryInterface(name, Name, static_cast<Interface*>(this));
    }
    int32_t count() override { return static_cast<int32_t>(values_.size()); }
    Value get(int32_t index) override {
        if (index < 0 || static_cast<size_t>(index) >= values_.size()) return Value{};
        return values_[static_cast<size_t>(index)];
    }
    int32_t append(Value value) override {
        values_.push_back(value);
        return static_cast<int32_t>(values_.size());
    }

private:
    std::vector<Value> values_;
};

constexpr char kLonglongListName[] = "IZORLonglongList";
constexpr char kPByteListName[] = "IZORPByteList";
constexpr char kIntListName[] = "IZORIntList";

using LonglongList = ZorList<IZORLonglongList, int64_t, kLonglongListName>;
using PByteList = ZorList<IZORPByteList, unsigned char*, kPByteListName>;
using IntList = ZorList<IZORIntList, int32_t, kIntListName>;

}  // namespace
}  // namespace ZOR

extern "C" {
ZOR::IZORLonglongList* createZORLonglongList() {
    return ZOR::zorCreateObject<ZOR::LonglongList, ZOR::IZORLonglongList>();
}
ZOR::IZORPByteList* createZORPByteList() { return ZOR::zorCreateObject<ZOR::PByteList, ZOR::IZORPByteList>(); }
ZOR::IZORIntList* createZORIntList() { return ZOR::zorCreateObject<ZOR::IntList, ZOR::IZORIntList>(); }
}
