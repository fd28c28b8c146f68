// Faults injected where files are written whole: the write fails as a disk
// would, the caller gets the errno, nothing is left behind, and the next
// write works.
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "TempFolder.h"
#include "ZorUtils/ZorUtils.h"
#include "WriteFaults.h"

namespace {

using ZOR::test::TempFolder;

class WriteFaultTest : public ::testing::TestWithParam<int> {
protected:
    void TearDown() override { ZOR::injectWriteFault(0, 0); }
    TempFolder folder_;
};

TEST_P(WriteFaultTest, AFileWrittenWholeFailsWithTheFaultAndLeavesNothing) {
    const int error = GetParam();
    const std::string path = folder_.file("data.bin");
    const std::string bytes(100000, 'x');
    ZOR::injectWriteFault(error, 1);
    EXPECT_EQ(ZOR::writeFileAtomically(path.c_str(), bytes.data(), bytes.size()), error);
    EXPECT_TRUE(TempFolder::entries(folder_.path()).empty());
    std::string failed;
    EXPECT_EQ(ZOR::lastWriteFailure(ZOR::Path(folder_.path().string()), &failed), error);
    EXPECT_EQ(failed, path);
    // The fault fired once: the next write works.
    EXPECT_EQ(ZOR::writeFileAtomically(path.c_str(), bytes.data(), bytes.size()), 0);
    EXPECT_EQ(TempFolder::entries(folder_.path()), (std::set<std::string>{"data.bin"}));
}

TEST_P(WriteFaultTest, APictureWrittenWholeFailsWithTheFaultAndLeavesNothing) {
    const int error = GetParam();
    const std::string path = folder_.file("picture.png");
    const std::vector<unsigned char> pixels(64 * 32 * 4, 200);
    ZOR::injectWriteFault(error, 1);
    EXPECT_NE(ZOR::dumpPNG(64, 32, pixels.data(), path.c_str(), -1), 0);
    EXPECT_TRUE(TempFolder::entries(folder_.path()).empty());
    EXPECT_EQ(ZOR::lastWriteFailure(ZOR::Path(folder_.path().string()), nullptr), error);
    ASSERT_EQ(ZOR::dumpPNG(64, 32, pixels.data(), path.c_str(), -1), 0);
    unsigned char* read = nullptr;
    int width = 0;
    int height = 0;
    ASSERT_EQ(ZOR::loadPNG(path.c_str(), &read, &width, &height), 0);
    EXPECT_EQ(width, 64);
    EXPECT_EQ(height, 32);
    ZOR::freeImageBuffer(read);
}

TEST_P(WriteFaultTest, TheFaultHitsTheNthWriteOnly) {
    const int error = GetParam();
    ZOR::injectWriteFault(error, 3);
    const std::string data = "abc";
    std::vector<int> results;
    for (int i = 0; i < 5; ++i) {
        std::string name = "f";  // appended: GCC 12 warns wrongly about "f" + text
        name += std::to_string(i);
        results.push_back(ZOR::writeFileAtomically(folder_.file(name).c_str(), data.data(), data.size()));
    }
    EXPECT_EQ(results, (std::vector<int>{0, 0, error, 0, 0}));
    EXPECT_EQ(TempFolder::entries(folder_.path()), (std::set<std::string>{"f0", "f1", "f3", "f4"}));
}

INSTANTIATE_TEST_SUITE_P(EachFault, WriteFaultTest, ZOR::test::eachWriteFault(), ZOR::test::writeFaultName);

TEST(WriteFault, ACancelledFaultNeverFires) {
    TempFolder folder;
    ZOR::injectWriteFault(ENOSPC, 1);
    ZOR::injectWriteFault(0, 0);
    const std::string data = "abc";
    EXPECT_EQ(ZOR::writeFileAtomically(folder.file("f").c_str(), data.data(), data.size()), 0);
}

TEST(WriteFault, WritesAreCounted) {
    TempFolder folder;
    const int64_t before = ZOR::writesSeen();
    const std::string data = "abc";
    ASSERT_EQ(ZOR::writeFileAtomically(folder.file("f").c_str(), data.data(), data.size()), 0);
    ASSERT_EQ(ZOR::writeFileAtomically(folder.file("g").c_str(), data.data(), data.size()), 0);
    EXPECT_EQ(ZOR::writesSeen(), before + 2);
}

}  // namespace
