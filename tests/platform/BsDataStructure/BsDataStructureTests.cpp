#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

#include "BsDataStructure/BsDataStructure.h"
#include "Common/ZorInternalComUtility.h"

namespace ZOR::test {
namespace {

TEST(BsDataStructure, LonglongListAppendsCountsAndGetsByIndex) {
    IZORLonglongList* list = createZORLonglongList();
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(list->refCount(), 1);
    EXPECT_EQ(list->count(), 0);
    EXPECT_EQ(list->append(std::numeric_limits<int64_t>::min()), 1);
    EXPECT_EQ(list->append(-5), 2);
    EXPECT_EQ(list->append(std::numeric_limits<int64_t>::max()), 3);
    EXPECT_EQ(list->count(), 3);
    EXPECT_EQ(list->get(0), std::numeric_limits<int64_t>::min());
    EXPECT_EQ(list->get(1), -5);
    EXPECT_EQ(list->get(2), std::numeric_limits<int64_t>::max());
    EXPECT_EQ(list->Release(), 0);
}

TEST(BsDataStructure, OutOfRangeGetGivesZeroOrNull) {
    const auto longs = ZorRef<IZORLonglongList>::adopt(createZORLonglongList());
    const auto bytes = ZorRef<IZORPByteList>::adopt(createZORPByteList());
    const auto ints = ZorRef<IZORIntList>::adopt(createZORIntList());
    longs->append(9);
    EXPECT_EQ(longs->get(-1), 0);
    EXPECT_EQ(longs->get(1), 0);
    EXPECT_EQ(bytes->get(0), nullptr);
    EXPECT_EQ(ints->get(3), 0);
}

TEST(BsDataStructure, PByteListKeepsPointersInOrderWithoutOwningThem) {
    unsigned char first[4] = {1, 2, 3, 4};
    unsigned char second[4] = {5, 6, 7, 8};
    IZORPByteList* list = createZORPByteList();
    list->append(first);
    list->append(nullptr);
    list->append(second);
    EXPECT_EQ(list->count(), 3);
    EXPECT_EQ(list->get(0), first);
    EXPECT_EQ(list->get(1), nullptr);
    EXPECT_EQ(list->get(2), second);
    EXPECT_EQ(list->Release(), 0);
    EXPECT_EQ(first[0], 1);  // untouched
}

TEST(BsDataStructure, IntListHoldsFlagBits) {
    const auto list = ZorRef<IZORIntList>::adopt(createZORIntList());
    list->append(0x50);
    list->append(-1);
    EXPECT_EQ(list->count(), 2);
    EXPECT_EQ(list->get(0), 0x50);
    EXPECT_EQ(list->get(1), -1);
}

TEST(BsDataStructure, ListsAreReferenceCountedAndAnswerTheirNames) {
    IZORIntList* list = createZORIntList();
    EXPECT_EQ(list->AddRef(), 2);
    EXPECT_EQ(list->queryInterface("IZORIntList"), static_cast<void*>(list));
    EXPECT_EQ(list->queryInterface("IDmBaseObj"), static_cast<void*>(list));
    EXPECT_EQ(list->queryInterface("IZORLonglongList"), nullptr);
    EXPECT_EQ(list->Release(), 1);
    EXPECT_EQ(list->Release(), 0);

    const auto longs = ZorRef<IZORLonglongList>::adopt(createZORLonglongList());
    EXPECT_EQ(longs->queryInterface("IZORLonglongList"), static_cast<void*>(longs.get()));
    const auto bytes = ZorRef<IZORPByteList>::adopt(createZORPByteList());
    EXPECT_EQ(bytes->queryInterface("IZORPByteList"), static_cast<void*>(bytes.get()));
}

}  // namespace
}  // namespace ZOR::test
