#include <cstring>

#include <gtest/gtest.h>

#include "ZorUtils/ZorUtils.h"

namespace {

struct Fit {
    bool ok;
    int width;
    int height;
};

Fit fit(int width, int height, int boxWidth, int boxHeight) {
    Fit result{false, -7, -7};
    result.ok = ZOR::adjust(width, height, boxWidth, boxHeight, &result.width, &result.height);
    return result;
}

// width x height fits into boxWidth x boxHeight as fitWidth x fitHeight.
void expectFit(int width, int height, int boxWidth, int boxHeight, int fitWidth, int fitHeight) {
    const Fit r = fit(width, height, boxWidth, boxHeight);
    EXPECT_TRUE(r.ok);
    EXPECT_EQ(r.width, fitWidth);
    EXPECT_EQ(r.height, fitHeight);
}

}  // namespace

TEST(ZorAdjust, LandscapeIntoSameAspectBoxFillsTheBox) { expectFit(1920, 1080, 320, 180, 320, 180); }

TEST(ZorAdjust, PortraitIsBoundByHeightAndRoundsWidthDown) { expectFit(1080, 1920, 320, 180, 101, 180); }

TEST(ZorAdjust, SmallPictureIsScaledUp) { expectFit(100, 50, 320, 180, 320, 160); }

TEST(ZorAdjust, VeryNarrowPictureKeepsAtLeastOnePixel) {
    expectFit(1, 1000, 320, 180, 1, 180);
    expectFit(100000, 1, 320, 180, 320, 1);
}

TEST(ZorAdjust, LargeSizesDoNotOverflow) {
    expectFit(2'000'000'000, 1'000'000'000, 2'000'000'000, 2'000'000'000, 2'000'000'000, 1'000'000'000);
}

TEST(ZorAdjust, ZeroOrNegativeSizesFailWithZeroOutput) {
    const int bad[][4] = {{0, 1080, 320, 180},     {1920, 0, 320, 180},     {1920, 1080, 0, 180},
                          {1920, 1080, 320, 0},    {-1920, 1080, 320, 180}, {1920, -1, 320, 180},
                          {1920, 1080, -320, 180}, {1920, 1080, 320, -180}};
    for (const auto& args : bad) {
        const Fit r = fit(args[0], args[1], args[2], args[3]);
        EXPECT_FALSE(r.ok) << args[0] << "x" << args[1] << " into " << args[2] << "x" << args[3];
        EXPECT_EQ(r.width, 0);
        EXPECT_EQ(r.height, 0);
    }
}

TEST(ZorAdjust, NullOutputFailsAndClearsTheOther) {
    int width = -7;
    int height = -7;
    EXPECT_FALSE(ZOR::adjust(1920, 1080, 320, 180, &width, nullptr));
    EXPECT_EQ(width, 0);
    EXPECT_FALSE(ZOR::adjust(1920, 1080, 320, 180, nullptr, &height));
    EXPECT_EQ(height, 0);
}

TEST(ZorStrcpy, TruncatesAndKeepsTerminator) {
    char dst[5];
    std::memset(dst, 'x', sizeof dst);
    EXPECT_EQ(ZOR::zor_strcpy(dst, sizeof dst, "abcdefgh"), dst);
    EXPECT_STREQ(dst, "abcd");
}

TEST(ZorStrcpy, ExactFitCopiesEverything) {
    char dst[6];
    std::memset(dst, 'x', sizeof dst);
    EXPECT_EQ(ZOR::zor_strcpy(dst, sizeof dst, "hello"), dst);
    EXPECT_STREQ(dst, "hello");
}

TEST(ZorStrcpy, SizeOneGivesEmptyString) {
    char dst[4] = {'x', 'y', 'z', 'w'};
    EXPECT_EQ(ZOR::zor_strcpy(dst, 1, "abc"), dst);
    EXPECT_EQ(dst[0], '\0');
    EXPECT_EQ(dst[1], 'y');
}

TEST(ZorStrcpy, NullSourceCopiesEmptyString) {
    char dst[4] = {'x', 'y', 'z', '\0'};
    EXPECT_EQ(ZOR::zor_strcpy(dst, sizeof dst, nullptr), dst);
    EXPECT_STREQ(dst, "");
}

TEST(ZorStrcpy, NullDestinationOrZeroSizeWritesNothing) {
    EXPECT_EQ(ZOR::zor_strcpy(nullptr, 8, "abc"), nullptr);
    char dst[4] = {'x', 'y', 'z', '\0'};
    EXPECT_EQ(ZOR::zor_strcpy(dst, 0, "abc"), dst);
    EXPECT_STREQ(dst, "xyz");
}
