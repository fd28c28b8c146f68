#include <cstdlib>
#include <string>
#include <vector>

#include "DmWaveStoreFile.h"
#include "FuzzRoads.h"
#include "FuzzSupport.h"

namespace ZOR::fuzz {

namespace {

bool sameData(const DmWaveStoreData& a, const DmWaveStoreData& b) {
    return a.fingerprint == b.fingerprint && a.stream == b.stream && a.channels == b.channels &&
           a.frames == b.frames && a.endFrame == b.endFrame && a.hasOrigin == b.hasOrigin &&
           a.originPts == b.originPts && a.originRate == b.originRate && a.held == b.held && a.levels == b.levels;
}

void readEveryWay(const char* bytes, size_t size) {
    DmWaveStoreData read;
    std::string why;
    const bool whole = readWaveStore(bytes, size, nullptr, -1, &read, &why);
    DmWaveStoreView view;
    std::string viewWhy;
    const bool viewed = readWaveStoreView(bytes, size, nullptr, -1, &view, &viewWhy);
    DmWaveStoreLayout layout;
    std::string layoutWhy;
    const bool laidOut = readWaveStoreLayout(bytes, size, nullptr, -1, &layout, &layoutWhy);
    // The three readers agree on what they accept and why they refuse.
    if (whole != viewed || whole != laidOut) std::abort();
    if (!whole) {
        if (why.empty() || why != viewWhy || why != layoutWhy) std::abort();
        return;
    }
    if (read.channels == 0 || read.frames < 0 ||
        read.held.size() != (static_cast<size_t>(read.frames) + 7) / 8 ||
        read.levels.size() != static_cast<size_t>(read.channels) * static_cast<size_t>(read.frames) * 40)
        std::abort();
    if (!sameData(read, view.data) || layout.data.frames != read.frames || layout.data.channels != read.channels)
        std::abort();
    // Every held frame the layout reads in place is the one read whole.
    for (int32_t frame = 0; frame < read.frames; ++frame)
        if (layout.isHeld(frame) != read.isHeld(frame)) std::abort();
    touch(reinterpret_cast<const unsigned char*>(layout.levels), read.levels.size() * 2);
    if (layout.level16 != nullptr)
        touch(reinterpret_cast<const unsigned char*>(layout.level16), view.level16.size() * 2);
    if (layout.level256 != nullptr)
        touch(reinterpret_cast<const unsigned char*>(layout.level256), view.level256.size() * 2);
    // What was read, written again, reads back the same.
    const std::vector<char> written = writeWaveStore(read);
    DmWaveStoreData again;
    if (!readWaveStore(written.data(), written.size(), nullptr, -1, &again, &why) || !sameData(read, again))
        std::abort();
}

// Where the header keeps its two checksums, and how many bytes it has.
constexpr size_t kPayloadSumAt = 76;
constexpr size_t kHeaderSumAt = 84;
constexpr size_t kHeaderBytes = 92;

void putU64(char* at, uint64_t value) {
    for (int i = 0; i < 8; ++i) at[i] = static_cast<char>(value >> (8 * i) & 0xff);
}

}  // namespace

int waveStore(const uint8_t* data, size_t size) {
    prepareProcess();
    readEveryWay(reinterpret_cast<const char*>(data), size);
    // The same bytes with their checksums made right (seeded by the version
    // the header gives, as the store seeds them), so that what the checksums
    // guard is searched too.
    if (size < kHeaderBytes) return 0;
    std::vector<char> sealed(data, data + size);
    const uint32_t version = static_cast<uint32_t>(data[8]) | static_cast<uint32_t>(data[9]) << 8 |
                             static_cast<uint32_t>(data[10]) << 16 | static_cast<uint32_t>(data[11]) << 24;
    putU64(sealed.data() + kPayloadSumAt, hashBytes(sealed.data() + kHeaderBytes, size - kHeaderBytes, version));
    putU64(sealed.data() + kHeaderSumAt, hashBytes(sealed.data(), kHeaderSumAt, uint64_t{version} + 1));
    readEveryWay(sealed.data(), sealed.size());
    return 0;
}

}  // namespace ZOR::fuzz
