// The wave store: levels that outlive the wave manager that decoded them,
// keyed by the media's content, refused when damaged, within the cache budget.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "CapturingLogger.h"
#include "Adapter/Adapter.h"
#include "DataModel/DataModel.h"
#include "DataModel/DmCache.h"
#include "DataModel/DmMedia.h"
#include "DataModel/DmMediaInternal.h"
#include "DataModel/DmWavePeaks.h"
#include "DmWaveStoreFile.h"
#include "MediaTestSupport.h"
#include "ZorUtils/ZorUtils.h"
#include "Common/ZorInternalComUtility.h"

namespace ZOR::test {
namespace {

namespace fs = std::filesystem;
using MediaTest::ffmpeg;
using ZOR::test::TempFolder;

constexpr int32_t kValues = 40;

std::vector<char> readAll(const std::string& path) { return MediaTest::readBytes(path); }

void writeAll(const std::string& path, const std::vector<char>& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

DmWaveStoreData sampleData(int32_t frames, uint32_t channels) {
    DmWaveStoreData data;
    data.fingerprint = {1234, 0x1111, 0x2222};
    data.stream = 1;
    data.channels = channels;
    data.frames = frames;
    data.endFrame = frames;
    data.hasOrigin = true;
    data.originPts = -1024;
    data.originRate = 48000;
    data.held.assign((static_cast<size_t>(frames) + 7) / 8, 0);
    for (int32_t f = 0; f < frames; f += 2)
        data.held[static_cast<size_t>(f) / 8] |= static_cast<uint8_t>(1u << (f % 8));
    data.levels.resize(static_cast<size_t>(channels) * static_cast<size_t>(frames) * kValues);
    for (size_t i = 0; i < data.levels.size(); ++i) data.levels[i] = static_cast<uint16_t>((i * 7919) % 65536);
    return data;
}

class WaveStoreTest : public ::testing::Test {
protected:
    void SetUp() override {
        setWaveStoreSwitch(1);
        setWaveStoreRoot(folder_.file("cache/waves").c_str());
        setFrameStoreRoot(folder_.file("cache/frames").c_str());
    }
    void TearDown() override {
        setWaveStoreSwitch(-1);
        setWaveStoreRoot(nullptr);
        setFrameStoreRoot(nullptr);
        ::unsetenv("MIRAVEL_CACHE_BUDGET");
    }
    // A stereo 16-bit file of seconds whose channels have different levels.
    std::string stereoWav(const std::string& name, double seconds, double left = 0.25, double right = 0.5) {
        const std::string path = folder_.file(name);
        EXPECT_TRUE(ffmpeg("-f lavfi -i \"aevalsrc=exprs='" + std::to_string(left) + "*sin(2*PI*440*t)|" +
                           std::to_string(right) + "*sin(2*PI*660*t)':s=44100:d=" + std::to_string(seconds) +
                           "\" -c:a pcm_s16le '" + path + "'"));
        return path;
    }
    static ZorRef<IDmClip> clipOf(const std::string& path) {
        return ZorRef<IDmClip>::adopt(createMediaClip(path.c_str(), -1, -1, nullptr));
    }
    static IDmAudioWaveStore* storeOf(const ZorRef<IDmClip>& clip) {
        auto* source = static_cast<IDmMediaSource*>(clip.get()->queryInterface("IDmMediaSource"));
        return source != nullptr ? source->waveStore() : nullptr;
    }
    // Frame f of channel c holds (f + 1) x (c + 1) / 4096 in every window.
    static std::vector<float> pattern(int32_t first, int32_t count, int32_t channels) {
        std::vector<float> values;
        for (int32_t f = first; f < first + count; ++f)
            for (int32_t c = 0; c < channels; ++c)
                for (int32_t k = 0; k < kValues; ++k) values.push_back(static_cast<float>((f + 1) * (c + 1)) / 4096.0f);
        return values;
    }
    // Stores the pattern of frames [first, first + count) through a clip of
    // path that is then dropped: its manager goes, writing its store file.
    void keepFrames(const std::string& path, int32_t first, int32_t count) {
        const ZorRef<IDmClip> clip = clipOf(path);
        IDmAudioWaveStore* store = storeOf(clip);
        ASSERT_NE(store, nullptr);
        const std::vector<float> values = pattern(first, count, 2);
        ASSERT_EQ(store->storeChannelFrames(store->contentGeneration(), first, count, 2, values.data()), 0);
    }
    std::vector<std::string> storeFiles() const {
        std::vector<std::string> files;
        std::error_code ec;
        for (const auto& entry : fs::directory_iterator(folder_.file("cache/waves"), ec))
            if (entry.path().extension() == ".mwav") files.push_back(entry.path().string());
        return files;
    }

    TempFolder folder_;
};

TEST_F(WaveStoreTest, AStoreFileReadsBackWhatWasWrittenWithItsCoarseLevels) {
    const DmWaveStoreData data = sampleData(37, 3);
    const std::vector<char> bytes = writeWaveStore(data);
    DmWaveStoreView view;
    std::string why;
    ASSERT_TRUE(readWaveStoreView(bytes.data(), bytes.size(), &data.fingerprint, 1, &view, &why)) << why;
    EXPECT_EQ(view.data.fingerprint, data.fingerprint);
    EXPECT_EQ(view.data.stream, 1);
    EXPECT_EQ(view.data.channels, 3u);
    EXPECT_EQ(view.data.frames, 37);
    EXPECT_EQ(view.data.endFrame, 37);
    EXPECT_TRUE(view.data.hasOrigin);
    EXPECT_EQ(view.data.originPts, -1024);
    EXPECT_EQ(view.data.originRate, 48000);
    EXPECT_EQ(view.data.held, data.held);
    EXPECT_EQ(view.data.levels, data.levels);
    // The coarse levels: the largest of each 16 and 256 windows, per channel.
    const size_t windows = 37 * kValues;
    ASSERT_EQ(view.level16.size(), 3 * ((windows + 15) / 16));
    ASSERT_EQ(view.level256.size(), 3 * ((windows + 255) / 256));
    for (uint32_t c = 0; c < 3; ++c)
        for (size_t w = 0; w < windows; ++w) {
            EXPECT_GE(view.level16[c * ((windows + 15) / 16) + w / 16], data.level(c, static_cast<int64_t>(w)));
            EXPECT_GE(view.level256[c * ((windows + 255) / 256) + w / 256], data.level(c, static_cast<int64_t>(w)));
        }
    uint16_t first16 = 0;
    for (int64_t w = 0; w < 16; ++w) first16 = std::max(first16, data.level(2, w));
    EXPECT_EQ(view.level16[2 * ((windows + 15) / 16)], first16);
}

TEST_F(WaveStoreTest, ATruncatedStoreFileIsNeverServed) {
    const DmWaveStoreData data = sampleData(9, 2);
    const std::vector<char> bytes = writeWaveStore(data);
    for (size_t size : {size_t{0}, size_t{7}, size_t{91}, size_t{92}, size_t{93}, bytes.size() / 2, bytes.size() - 1}) {
        DmWaveStoreData read;
        std::string why;
        EXPECT_FALSE(readWaveStore(bytes.data(), size, &data.fingerprint, 1, &read, &why)) << size;
        EXPECT_FALSE(why.empty()) << size;
    }
    std::vector<char> longer = bytes;
    longer.push_back('x');
    DmWaveStoreData read;
    std::string why;
    EXPECT_FALSE(readWaveStore(longer.data(), longer.size(), &data.fingerprint, 1, &read, &why));
    EXPECT_EQ(why, "too long");
}

// Found by the wave store's fuzz target: a file of no frames is whole (a
// header and no payload), and reading its empty levels copied from nowhere.
TEST_F(WaveStoreTest, AStoreFileOfNoFramesReadsBackEmptyThroughEveryReader) {
    DmWaveStoreData data;
    data.channels = 1;
    data.frames = 0;
    const std::vector<char> bytes = writeWaveStore(data);
    ASSERT_EQ(bytes.size(), 92u);
    DmWaveStoreData read;
    std::string why;
    ASSERT_TRUE(readWaveStore(bytes.data(), bytes.size(), nullptr, -1, &read, &why)) << why;
    EXPECT_EQ(read.channels, 1u);
    EXPECT_EQ(read.frames, 0);
    EXPECT_TRUE(read.held.empty());
    EXPECT_TRUE(read.levels.empty());
    DmWaveStoreView view;
    ASSERT_TRUE(readWaveStoreView(bytes.data(), bytes.size(), nullptr, -1, &view, &why)) << why;
    EXPECT_TRUE(view.level16.empty());
    EXPECT_TRUE(view.level256.empty());
    DmWaveStoreLayout layout;
    ASSERT_TRUE(readWaveStoreLayout(bytes.data(), bytes.size(), nullptr, -1, &layout, &why)) << why;
    EXPECT_EQ(layout.data.frames, 0);
    EXPECT_FALSE(layout.isHeld(0));
}

TEST_F(WaveStoreTest, AFlippedByteAnywhereIsNeverServed) {
    const DmWaveStoreData data = sampleData(5, 2);
    const std::vector<char> bytes = writeWaveStore(data);
    for (size_t at = 0; at < bytes.size(); ++at) {
        std::vector<char> damaged = bytes;
        damaged[at] = static_cast<char>(damaged[at] ^ 0x10);
        DmWaveStoreData read;
        std::string why;
        EXPECT_FALSE(readWaveStore(damaged.data(), damaged.size(), &data.fingerprint, 1, &read, &why)) << "byte " << at;
    }
}

TEST_F(WaveStoreTest, AStoreFileOfAnotherVersionStreamOrContentIsNeverServed) {
    const DmWaveStoreData data = sampleData(5, 1);
    std::vector<char> bytes = writeWaveStore(data);
    DmWaveStoreData read;
    std::string why;
    EXPECT_FALSE(readWaveStore(bytes.data(), bytes.size(), &data.fingerprint, 2, &read, &why));
    EXPECT_EQ(why, "the levels of another stream");
    DmMediaFingerprint other = data.fingerprint;
    other.tail ^= 1;
    EXPECT_FALSE(readWaveStore(bytes.data(), bytes.size(), &other, 1, &read, &why));
    EXPECT_EQ(why, "the levels of other content");
    bytes[8] = 3;  // a later version
    EXPECT_FALSE(readWaveStore(bytes.data(), bytes.size(), &data.fingerprint, 1, &read, &why));
    EXPECT_EQ(why, "another version");
    const std::string foreign =
        "RIFF....WAVEfmt and more than ninety-two bytes of something else entirely, "
        "which is not a wave store at all";
    EXPECT_FALSE(readWaveStore(foreign.data(), foreign.size(), nullptr, 1, &read, &why));
    EXPECT_EQ(why, "not a wave store file");
}

TEST_F(WaveStoreTest, ASecondManagerServesEveryHeldFrameFromTheStorePerChannel) {
    const std::string path = stereoWav("tone.wav", 2.0);
    {
        const ZorRef<IDmClip> clip = clipOf(path);
        IDmAudioWaveStore* store = storeOf(clip);
        ASSERT_NE(store, nullptr);
        ASSERT_EQ(store->channelCount(), 2);
        const std::vector<float> values = pattern(0, 50, 2);
        ASSERT_EQ(store->storeChannelFrames(store->contentGeneration(), 0, 50, 2, values.data()), 0);
        store->setEndFrame(store->contentGeneration(), 50);
    }  // the last holder is gone: the manager writes its store file
    ASSERT_EQ(storeFiles().size(), 1u);

    const ZorRef<IDmClip> again = clipOf(path);
    IDmAudioWaveStore* store = storeOf(again);
    ASSERT_NE(store, nullptr);
    EXPECT_TRUE(store->missingRanges(0, 49).empty());
    EXPECT_EQ(store->endFrame(), 50);
    for (int32_t c = 0; c < 2; ++c) {
        std::vector<float> read(50 * kValues);
        ASSERT_EQ(store->readChannelWindows(c, 0, 50 * kValues, read.data()), 0);
        for (int32_t f = 0; f < 50; ++f)
            ASSERT_EQ(read[static_cast<size_t>(f * kValues)], static_cast<float>((f + 1) * (c + 1)) / 4096.0f)
                << "frame " << f << " channel " << c;
    }
    // The merged values are the larger channel's.
    auto* internal = static_cast<IDmClipInternal*>(again.get()->queryInterface("IDmClipInternal"));
    const auto manager =
        ZorRef<IDmAudioWaveMgrInternal>::adopt(acquireIDmAudioWaveMgrInternal(internal->waveManagerSource()));
    std::vector<float> frame(kValues);
    ASSERT_EQ(manager.get()->readFrame(7, 25, 1, frame.data(), kValues), 0);
    EXPECT_EQ(frame[0], 16.0f / 4096.0f);
}

TEST_F(WaveStoreTest, APartialStoreServesWhatItHoldsAndLeavesTheRestMissing) {
    const std::string path = stereoWav("tone.wav", 2.0);
    keepFrames(path, 10, 5);
    const ZorRef<IDmClip> again = clipOf(path);
    IDmAudioWaveStore* store = storeOf(again);
    const std::vector<std::pair<int32_t, int32_t>> missing = store->missingRanges(0, 30);
    ASSERT_EQ(missing.size(), 2u);
    EXPECT_EQ(missing[0], std::make_pair(0, 9));
    EXPECT_EQ(missing[1], std::make_pair(15, 30));
    // Frames stored later are merged into the same file.
    const std::vector<float> more = pattern(20, 2, 2);
    ASSERT_EQ(store->storeChannelFrames(store->contentGeneration(), 20, 2, 2, more.data()), 0);
    ASSERT_EQ(store->flush(), 0);
    DmWaveStoreData data;
    const std::vector<char> bytes = readAll(storeFiles().at(0));
    ASSERT_TRUE(readWaveStore(bytes.data(), bytes.size(), nullptr, -1, &data, nullptr));
    for (int32_t f = 0; f < 25; ++f) EXPECT_EQ(data.isHeld(f), (f >= 10 && f < 15) || f == 20 || f == 21) << f;
}

TEST_F(WaveStoreTest, ARenamedFileFindsItsLevels) {
    const std::string path = stereoWav("tone.wav", 1.0);
    keepFrames(path, 0, 3);
    fs::create_directories(folder_.file("moved"));
    const std::string moved = folder_.file("moved/renamed.wav");
    fs::rename(path, moved);
    const ZorRef<IDmClip> clip = clipOf(moved);
    EXPECT_TRUE(storeOf(clip)->missingRanges(0, 2).empty());
}

TEST_F(WaveStoreTest, SameSizeAndTimeButOtherContentFindsNoLevels) {
    const std::string path = stereoWav("tone.wav", 1.0);
    struct stat before {};
    ASSERT_EQ(::stat(path.c_str(), &before), 0);
    keepFrames(path, 0, 3);
    // The same size and modification time, other samples in the middle.
    const std::string other = stereoWav("other.wav", 1.0, 0.75, 0.125);
    const std::vector<char> otherBytes = readAll(other);
    ASSERT_EQ(otherBytes.size(), static_cast<size_t>(before.st_size));
    writeAll(path, otherBytes);
    const struct timespec times[2] = {before.st_atim, before.st_mtim};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    const ZorRef<IDmClip> clip = clipOf(path);
    EXPECT_EQ(storeOf(clip)->missingRanges(0, 2).size(), 1u);
}

TEST_F(WaveStoreTest, AFileReplacedInPlaceNeverGetsTheOldLevels) {
    const std::string path = stereoWav("tone.wav", 1.0);
    const ZorRef<IDmClip> clip = clipOf(path);
    IDmAudioWaveStore* store = storeOf(clip);
    const std::vector<float> values = pattern(0, 3, 2);
    ASSERT_EQ(store->storeChannelFrames(store->contentGeneration(), 0, 3, 2, values.data()), 0);
    ASSERT_EQ(store->flush(), 0);
    // Replaced while the manager lives: a new clip of the file adopts the
    // new content, and the store file of the old one does not name it.
    stereoWav("tone.wav", 1.5, 0.5, 0.5);
    const ZorRef<IDmClip> newer = clipOf(path);
    EXPECT_EQ(storeOf(newer)->missingRanges(0, 2).size(), 1u);
    std::vector<float> read(3 * kValues, -1.0f);
    ASSERT_EQ(storeOf(newer)->readChannelWindows(-1, 0, 3 * kValues, read.data()), 0);
    for (float value : read) ASSERT_EQ(value, 0.0f);
}

TEST_F(WaveStoreTest, ADamagedStoreFileIsIgnoredWithOneWarningAndWrittenAgain) {
    const std::string path = stereoWav("tone.wav", 1.0);
    keepFrames(path, 0, 3);
    const std::string file = storeFiles().at(0);
    std::vector<char> bytes = readAll(file);
    bytes[bytes.size() - 3] ^= 0x40;
    writeAll(file, bytes);

    ScopedCapture capture(IBsLogger::Warning);
    {
        const ZorRef<IDmClip> clip = clipOf(path);
        IDmAudioWaveStore* store = storeOf(clip);
        EXPECT_EQ(store->missingRanges(0, 2).size(), 1u);  // nothing served
        const std::vector<float> values = pattern(0, 1, 2);
        ASSERT_EQ(store->storeChannelFrames(store->contentGeneration(), 0, 1, 2, values.data()), 0);
    }
    int warnings = 0;
    for (const std::string& text : capture.sink().texts())
        if (text.find("is ignored (damaged levels); it is written again") != std::string::npos) ++warnings;
    EXPECT_EQ(warnings, 1);
    DmWaveStoreData data;
    const std::vector<char> rebuilt = readAll(file);
    std::string why;
    ASSERT_TRUE(readWaveStore(rebuilt.data(), rebuilt.size(), nullptr, -1, &data, &why)) << why;
    EXPECT_TRUE(data.isHeld(0));
    EXPECT_FALSE(data.isHeld(1));
}

TEST_F(WaveStoreTest, AnUnwritableRootKeepsTheLevelsInMemoryWithOneWarning) {
    // A regular file where the folder would be: no user can make it a folder.
    writeAll(folder_.file("blocked"), {'x'});
    setWaveStoreRoot(folder_.file("blocked/waves").c_str());
    const std::string path = stereoWav("tone.wav", 1.0);
    ScopedCapture capture(IBsLogger::Warning);
    const ZorRef<IDmClip> clip = clipOf(path);
    IDmAudioWaveStore* store = storeOf(clip);
    const std::vector<float> values = pattern(0, 3, 2);
    ASSERT_EQ(store->storeChannelFrames(store->contentGeneration(), 0, 3, 2, values.data()), 0);
    EXPECT_NE(store->flush(), 0);
    ASSERT_EQ(store->storeChannelFrames(store->contentGeneration(), 0, 3, 2, values.data()), 0);
    EXPECT_NE(store->flush(), 0);  // tried again, not said again
    EXPECT_TRUE(store->missingRanges(0, 2).empty());
    int warnings = 0;
    for (const std::string& text : capture.sink().texts())
        if (text.find("the wave store cannot make the folder of") != std::string::npos &&
            text.find("the levels stay in memory only") != std::string::npos)
            ++warnings;
    EXPECT_EQ(warnings, 1);
    EXPECT_EQ(MediaTest::filesUnder(folder_.path()).size(), 2u);  // the blocker and the media: nothing half-written
}

TEST_F(WaveStoreTest, AnInjectedWriteFaultKeepsTheLevelsInMemoryLeavesNothingAndTheNextFlushWrites) {
    for (const int error : {ENOSPC, EIO, EACCES}) {
        SCOPED_TRACE(error);
        const std::string path = stereoWav("tone" + std::to_string(error) + ".wav", 1.0 + error / 1000.0);
        ScopedCapture capture(IBsLogger::Warning);
        const ZorRef<IDmClip> clip = clipOf(path);
        IDmAudioWaveStore* store = storeOf(clip);
        const std::vector<float> values = pattern(0, 3, 2);
        ASSERT_EQ(store->storeChannelFrames(store->contentGeneration(), 0, 3, 2, values.data()), 0);
        injectWriteFault(error, 1);
        EXPECT_EQ(store->flush(), error);
        injectWriteFault(0, 0);
        EXPECT_TRUE(store->missingRanges(0, 2).empty());  // still served from memory
        int warnings = 0;
        for (const std::string& text : capture.sink().texts())
            if (text.find("the wave store cannot write") != std::string::npos &&
                text.find(writeErrorText(error)) != std::string::npos)
                ++warnings;
        EXPECT_EQ(warnings, 1);
        for (const std::string& name : TempFolder::entries(folder_.file("cache/waves"))) {
            EXPECT_EQ(name.find(".tmp-"), std::string::npos) << name;
            EXPECT_EQ(name.find(".mwav", name.size() - 5), std::string::npos) << name;  // only lock files
        }
        // The fault is gone: the next flush writes the levels.
        EXPECT_EQ(store->flush(), 0);
        ASSERT_EQ(storeFiles().size(), 1u);
        const std::vector<char> bytes = readAll(storeFiles().at(0));
        DmWaveStoreData data;
        ASSERT_TRUE(readWaveStore(bytes.data(), bytes.size(), nullptr, -1, &data, nullptr));
        EXPECT_TRUE(data.isHeld(2));
        std::filesystem::remove(storeFiles().at(0));
    }
}

TEST_F(WaveStoreTest, TheTemporaryOfAWriterThatDiedGoesAtTheFirstWrite) {
    // A store file's temporary left by a process that was killed.
    const pid_t child = ::fork();
    if (child == 0) ::_exit(0);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    std::filesystem::create_directories(folder_.file("cache/waves"));
    const std::string stale =
        folder_.file("cache/waves/x-s0.mwav.tmp-" + std::to_string(static_cast<long>(child)) + "-0");
    writeAll(stale, {'x'});
    keepFrames(stereoWav("tone.wav", 1.0), 0, 3);
    EXPECT_FALSE(std::filesystem::exists(stale));
    EXPECT_EQ(storeFiles().size(), 1u);
}

TEST_F(WaveStoreTest, ABudgetOfZeroKeepsNothingAndEverythingStillWorks) {
    ::setenv("MIRAVEL_CACHE_BUDGET", "0", 1);
    const std::string path = stereoWav("tone.wav", 1.0);
    {
        const ZorRef<IDmClip> clip = clipOf(path);
        IDmAudioWaveStore* store = storeOf(clip);
        const std::vector<float> values = pattern(0, 3, 2);
        ASSERT_EQ(store->storeChannelFrames(store->contentGeneration(), 0, 3, 2, values.data()), 0);
        EXPECT_TRUE(store->missingRanges(0, 2).empty());
        EXPECT_EQ(store->flush(), 0);
    }
    EXPECT_TRUE(storeFiles().empty());
    const ZorRef<IDmClip> clip = clipOf(path);
    EXPECT_EQ(storeOf(clip)->missingRanges(0, 2).size(), 1u);
}

TEST_F(WaveStoreTest, TheBudgetIsReadFromTheEnvironment) {
    int64_t bytes = 0;
    EXPECT_TRUE(parseCacheBudget("1048576", &bytes));
    EXPECT_EQ(bytes, 1048576);
    EXPECT_TRUE(parseCacheBudget("3K", &bytes));
    EXPECT_EQ(bytes, 3072);
    EXPECT_TRUE(parseCacheBudget("500m", &bytes));
    EXPECT_EQ(bytes, int64_t{500} << 20);
    EXPECT_TRUE(parseCacheBudget("2G", &bytes));
    EXPECT_EQ(bytes, int64_t{2} << 30);
    for (const char* bad : {"", "G", "-1", "1.5G", "12KB", "99999999999999999999", "9000000000G"})
        EXPECT_FALSE(parseCacheBudget(bad, &bytes)) << bad;
    ::unsetenv("MIRAVEL_CACHE_BUDGET");
    EXPECT_EQ(cacheBudget(), int64_t{2} << 30);
    ::setenv("MIRAVEL_CACHE_BUDGET", "64M", 1);
    EXPECT_EQ(cacheBudget(), int64_t{64} << 20);
    ::setenv("MIRAVEL_CACHE_BUDGET", "lots", 1);
    EXPECT_EQ(cacheBudget(), int64_t{2} << 30);
}

// Files of both stores with times a minute apart, the oldest first.
class CacheEvictionTest : public WaveStoreTest {
protected:
    std::string put(const std::string& relative, size_t bytes, int minutesAgo) {
        const std::string path = folder_.file("cache/" + relative);
        fs::create_directories(fs::path(path).parent_path());
        writeAll(path, std::vector<char>(bytes, 'x'));
        fs::last_write_time(path, fs::file_time_type::clock::now() - std::chrono::minutes(minutesAgo));
        return path;
    }
};

TEST_F(CacheEvictionTest, TheLeastRecentlyUsedFilesGoFirstAndNeverOneInUse) {
    const std::string oldest = put("waves/a.mwav", 1000, 60);
    const std::string held = put("waves/b.mwav", 1000, 50);
    const std::string frame = put("frames/media-1/s0-8x8-t0-p0.png", 1000, 40);
    const std::string newer = put("waves/c.mwav", 1000, 30);
    const std::string newest = put("frames/media-2/s0-8x8-t0-p0.png", 1000, 20);
    holdCacheFile(held);
    DmCacheUsage usage = cacheUsage();
    EXPECT_EQ(usage.bytes, 5000);
    EXPECT_EQ(usage.waves.files, 3);
    EXPECT_EQ(usage.frames.files, 2);

    usage = pruneCache(3500);
    EXPECT_EQ(usage.bytes, 3000);
    EXPECT_FALSE(fs::exists(oldest));
    EXPECT_TRUE(fs::exists(held));
    EXPECT_FALSE(fs::exists(frame));
    EXPECT_FALSE(fs::exists(folder_.file("cache/frames/media-1")));  // its emptied folder too
    EXPECT_TRUE(fs::exists(newer));
    EXPECT_TRUE(fs::exists(newest));

    // A write past the budget from the environment removes the oldest first.
    ::setenv("MIRAVEL_CACHE_BUDGET", "2500", 1);
    noteCacheWrite(0);
    EXPECT_TRUE(fs::exists(held));
    EXPECT_FALSE(fs::exists(newer));
    EXPECT_TRUE(fs::exists(newest));

    usage = clearCache();
    EXPECT_EQ(usage.bytes, 1000);  // the file in use stays
    EXPECT_TRUE(fs::exists(held));
    EXPECT_FALSE(fs::exists(newest));
    releaseCacheFile(held);
    usage = clearCache();
    EXPECT_EQ(usage.bytes, 0);
    EXPECT_EQ(usage.waves.files + usage.frames.files, 0);
}

TEST_F(WaveStoreTest, PeaksTakeTheLargestWindowOverlappingEachBucket) {
    const std::string path = stereoWav("tone.wav", 2.0);
    const ZorRef<IDmClip> clip = clipOf(path);
    IDmAudioWaveStore* store = storeOf(clip);
    // Window w of channel c holds ((w x 37) % 1000 + 1) x (c + 1) / 32768.
    constexpr int32_t kFrames = 1100;  // across a chunk's edge
    std::vector<float> values;
    const auto level = [](int64_t w, int32_t c) {
        return static_cast<float>(((w * 37) % 1000 + 1) * (c + 1)) / 32768.0f;
    };
    for (int32_t f = 0; f < kFrames; ++f)
        for (int32_t c = 0; c < 2; ++c)
            for (int32_t k = 0; k < kValues; ++k) values.push_back(level(int64_t{f} * kValues + k, c));
    ASSERT_EQ(store->storeChannelFrames(store->contentGeneration(), 0, kFrames, 2, values.data()), 0);
    const auto expected = [&](int32_t channel, int64_t begin, int64_t end, int32_t points) {
        std::vector<float> out;
        for (int32_t i = 0; i < points; ++i) {
            const int64_t from = begin + static_cast<int64_t>(i) * (end - begin) / points;
            const int64_t to = begin + static_cast<int64_t>(i + 1) * (end - begin) / points;
            int64_t first = from / 10000;
            int64_t last = to > from ? (to - 1) / 10000 : first;
            float best = 0.0f;
            for (int64_t w = first; w <= last; ++w)
                for (int32_t c = 0; c < 2; ++c)
                    if ((channel == -1 || channel == c) && w < int64_t{kFrames} * kValues)
                        best = std::max(best, level(w, c));
            out.push_back(best);
        }
        return out;
    };
    struct Case {
        int64_t begin, end;
        int32_t points;
    };
    // Buckets below, at and above a millisecond; ranges starting and ending
    // inside a millisecond; one bucket over everything (coarse levels).
    for (const Case& at : {Case{0, 440'000'000, 1}, Case{0, 440'000'000, 7}, Case{12'345, 99'999, 50},
                           Case{5'000, 25'000, 2}, Case{0, 10'000, 1}, Case{3'333, 1'003'333, 100},
                           Case{1'234'567, 439'876'543, 997}, Case{409'590'001, 409'610'001, 3}})
        for (int32_t channel : {-1, 0, 1}) {
            SCOPED_TRACE("begin " + std::to_string(at.begin) + " end " + std::to_string(at.end) + " points " +
                         std::to_string(at.points) + " channel " + std::to_string(channel));
            EXPECT_EQ(wavePeaks(store, channel, at.begin, at.end, at.points),
                      expected(channel, at.begin, at.end, at.points));
        }
}

}  // namespace
}  // namespace ZOR::test
