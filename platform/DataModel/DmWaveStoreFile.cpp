#include "DmWaveStoreFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

namespace ZOR {

namespace {

constexpr char kMagic[8] = {'M', 'R', 'V', 'L', 'W', 'A', 'V', 'E'};
constexpr uint32_t kVersion = 2;
constexpr size_t kHeaderBytes = 92;
constexpr size_t kHeaderChecked = kHeaderBytes - 8;  // the header checksum covers what comes before it
constexpr int64_t kFingerprintBytes = 1 << 20;

uint64_t mix(uint64_t x) {
    x ^= x >> 33;
    x *= 0xff51afd7ed558ccdULL;
    x ^= x >> 33;
    x *= 0xc4ceb9fe1a85ec53ULL;
    x ^= x >> 33;
    return x;
}

class Writer {
public:
    void u32(uint32_t v) { raw(&v, 4); }
    void i32(int32_t v) { raw(&v, 4); }
    void u64(uint64_t v) { raw(&v, 8); }
    void i64(int64_t v) { raw(&v, 8); }
    void bytes(const void* p, size_t n) { raw(p, n); }
    std::vector<char>& out() { return out_; }

private:
    // The host is little-endian (x86-64, AArch64): values are written as they are.
    void raw(const void* p, size_t n) {
        const auto* c = static_cast<const char*>(p);
        out_.insert(out_.end(), c, c + n);
    }
    std::vector<char> out_;
};

class Reader {
public:
    Reader(const char* data, size_t size) : data_(data), size_(size) {}
    bool u32(uint32_t* v) { return raw(v, 4); }
    bool i32(int32_t* v) { return raw(v, 4); }
    bool u64(uint64_t* v) { return raw(v, 8); }
    bool i64(int64_t* v) { return raw(v, 8); }
    bool bytes(void* p, size_t n) { return raw(p, n); }
    size_t at() const { return at_; }

private:
    bool raw(void* p, size_t n) {
        if (n > size_ - at_) return false;
        std::memcpy(p, data_ + at_, n);
        at_ += n;
        return true;
    }
    const char* data_;
    size_t size_;
    size_t at_ = 0;
};

size_t heldBytes(int32_t frames) { return (static_cast<size_t>(frames) + 7) / 8; }
size_t windowsOf(int32_t frames) { return static_cast<size_t>(frames) * DmWaveStoreData::kValuesPerFrame; }
size_t coarseCount(int32_t frames, size_t span) { return (windowsOf(frames) + span - 1) / span; }

// The coarse levels of every channel: the largest of each span windows.
std::vector<uint16_t> coarse(const DmWaveStoreData& data, size_t span) {
    const size_t windows = windowsOf(data.frames);
    const size_t count = coarseCount(data.frames, span);
    std::vector<uint16_t> out(static_cast<size_t>(data.channels) * count, 0);
    for (uint32_t c = 0; c < data.channels; ++c) {
        const uint16_t* fine = data.levels.data() + static_cast<size_t>(c) * windows;
        uint16_t* level = out.data() + static_cast<size_t>(c) * count;
        for (size_t w = 0; w < windows; ++w) level[w / span] = std::max(level[w / span], fine[w]);
    }
    return out;
}

}  // namespace

uint64_t hashBytes(const void* data, size_t size, uint64_t seed) {
    // Four independent lanes over 32-byte blocks (each word multiplied,
    // rotated and multiplied into its lane), so that a store of megabytes is
    // checked at memory speed; then the tail word by word, and a final mix.
    constexpr uint64_t kPrime1 = 0x9e3779b185ebca87ULL;
    constexpr uint64_t kPrime2 = 0xc2b2ae3d27d4eb4fULL;
    const auto round = [](uint64_t lane, uint64_t word) {
        lane += word * kPrime2;
        lane = (lane << 31) | (lane >> 33);
        return lane * kPrime1;
    };
    const auto* bytes = static_cast<const unsigned char*>(data);
    uint64_t lanes[4] = {seed + kPrime1 + kPrime2, seed + kPrime2, seed, seed - kPrime1};
    size_t i = 0;
    for (; i + 32 <= size; i += 32)
        for (size_t k = 0; k < 4; ++k) {
            uint64_t word = 0;
            std::memcpy(&word, bytes + i + 8 * k, 8);
            lanes[k] = round(lanes[k], word);
        }
    uint64_t h = mix(seed ^ (size * 0x9e3779b97f4a7c15ULL));
    for (uint64_t lane : lanes) h = (h ^ mix(lane)) * 0x9e3779b97f4a7c15ULL;
    for (; i + 8 <= size; i += 8) {
        uint64_t word = 0;
        std::memcpy(&word, bytes + i, 8);
        h = (h ^ mix(word)) * 0x9e3779b97f4a7c15ULL;
        h ^= h >> 29;
    }
    uint64_t last = 0;
    for (size_t k = 0; i + k < size; ++k) last |= static_cast<uint64_t>(bytes[i + k]) << (8 * k);
    return mix(h ^ mix(last ^ 0x6a09e667f3bcc909ULL));
}

bool mediaFingerprint(const std::string& path, DmMediaFingerprint* fingerprint) {
    // Only regular files have a content to name: opening a pipe would take
    // its data from its reader (and wait for a writer).
    struct stat before {};
    if (::stat(path.c_str(), &before) != 0 || !S_ISREG(before.st_mode)) return false;
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) return false;
    struct stat info {};
    bool ok = ::fstat(fd, &info) == 0 && S_ISREG(info.st_mode);
    std::vector<unsigned char> buffer;
    const auto hashRange = [&](int64_t offset, int64_t length, uint64_t* out) {
        buffer.resize(static_cast<size_t>(length));
        size_t got = 0;
        while (got < buffer.size()) {
            const ssize_t now = ::pread(fd, buffer.data() + got, buffer.size() - got, static_cast<off_t>(offset + got));
            if (now < 0 && errno == EINTR) continue;
            if (now <= 0) return false;
            got += static_cast<size_t>(now);
        }
        *out = hashBytes(buffer.data(), buffer.size(), 0x4d495241564c4846ULL);
        return true;
    };
    if (ok) {
        const int64_t size = info.st_size;
        const int64_t head = std::min<int64_t>(size, kFingerprintBytes);
        const int64_t tail = std::min<int64_t>(size, kFingerprintBytes);
        fingerprint->size = static_cast<uint64_t>(size);
        ok = hashRange(0, head, &fingerprint->head) && hashRange(size - tail, tail, &fingerprint->tail);
    }
    ::close(fd);
    return ok;
}

std::vector<char> writeWaveStore(const DmWaveStoreData& data) {
    Writer payload;
    payload.bytes(data.held.data(), heldBytes(data.frames));
    payload.bytes(data.levels.data(), data.levels.size() * sizeof(uint16_t));
    const std::vector<uint16_t> level16 = coarse(data, 16);
    const std::vector<uint16_t> level256 = coarse(data, 256);
    payload.bytes(level16.data(), level16.size() * sizeof(uint16_t));
    payload.bytes(level256.data(), level256.size() * sizeof(uint16_t));

    Writer file;
    file.bytes(kMagic, sizeof kMagic);
    file.u32(kVersion);
    file.u32(static_cast<uint32_t>(kHeaderBytes));
    file.u64(data.fingerprint.size);
    file.u64(data.fingerprint.head);
    file.u64(data.fingerprint.tail);
    file.i32(data.stream);
    file.u32(data.channels);
    file.i32(data.frames);
    file.i32(data.endFrame);
    file.u32(data.hasOrigin ? 1u : 0u);
    file.i64(data.originPts);
    file.i32(data.originRate);
    file.u32(0);
    file.u64(hashBytes(payload.out().data(), payload.out().size(), kVersion));
    file.u64(hashBytes(file.out().data(), file.out().size(), kVersion + 1));
    std::vector<char> bytes = std::move(file.out());
    bytes.insert(bytes.end(), payload.out().begin(), payload.out().end());
    return bytes;
}

bool readWaveStoreLayout(const char* bytes, size_t size, const DmMediaFingerprint* expected, int32_t expectedStream,
                         DmWaveStoreLayout* layout, std::string* why) {
    const auto refuse = [&](const char* reason) {
        if (why != nullptr) *why = reason;
        return false;
    };
    if (bytes == nullptr || size < kHeaderBytes) return refuse("shorter than its header");
    if (std::memcmp(bytes, kMagic, sizeof kMagic) != 0) return refuse("not a wave store file");
    Reader header(bytes + sizeof kMagic, kHeaderBytes - sizeof kMagic);
    uint32_t version = 0;
    uint32_t headerBytesRead = 0;
    DmWaveStoreData data;
    uint32_t hasOrigin = 0;
    uint32_t reserved = 0;
    uint64_t payloadSum = 0;
    uint64_t headerSum = 0;
    header.u32(&version);
    header.u32(&headerBytesRead);
    if (version != kVersion) return refuse("another version");
    if (headerBytesRead != kHeaderBytes) return refuse("a damaged header");
    header.u64(&data.fingerprint.size);
    header.u64(&data.fingerprint.head);
    header.u64(&data.fingerprint.tail);
    header.i32(&data.stream);
    header.u32(&data.channels);
    header.i32(&data.frames);
    header.i32(&data.endFrame);
    header.u32(&hasOrigin);
    header.i64(&data.originPts);
    header.i32(&data.originRate);
    header.u32(&reserved);
    header.u64(&payloadSum);
    header.u64(&headerSum);
    if (headerSum != hashBytes(bytes, kHeaderChecked, kVersion + 1)) return refuse("a damaged header");
    if (data.channels < 1 || data.channels > DmWaveStoreData::kMostChannels || data.frames < 0 ||
        data.frames > DmWaveStoreData::kMostFrames || data.endFrame < -1 || hasOrigin > 1)
        return refuse("a damaged header");
    data.hasOrigin = hasOrigin == 1;
    if (expected != nullptr && !(data.fingerprint == *expected)) return refuse("the levels of other content");
    if (expected != nullptr && data.stream != expectedStream) return refuse("the levels of another stream");

    const size_t held = heldBytes(data.frames);
    const size_t fine = static_cast<size_t>(data.channels) * windowsOf(data.frames);
    const size_t c16 = static_cast<size_t>(data.channels) * coarseCount(data.frames, 16);
    const size_t c256 = static_cast<size_t>(data.channels) * coarseCount(data.frames, 256);
    const size_t payloadBytes = held + 2 * (fine + c16 + c256);
    if (size - kHeaderBytes != payloadBytes)
        return refuse(size - kHeaderBytes < payloadBytes ? "truncated" : "too long");
    if (payloadSum != hashBytes(bytes + kHeaderBytes, payloadBytes, kVersion)) return refuse("damaged levels");

    layout->data = std::move(data);
    layout->held = bytes + kHeaderBytes;
    layout->levels = layout->held + held;
    layout->level16 = layout->levels + 2 * fine;
    layout->level256 = layout->level16 + 2 * c16;
    return true;
}

namespace {

// count u16 levels as stored (unaligned) into *levels. A file of no frames
// has none, and an empty vector may have no storage to copy into.
void copyLevels(const char* stored, size_t count, std::vector<uint16_t>* levels) {
    levels->resize(count);
    if (count > 0) std::memcpy(levels->data(), stored, count * 2);
}

}  // namespace

bool readWaveStoreView(const char* bytes, size_t size, const DmMediaFingerprint* expected, int32_t expectedStream,
                       DmWaveStoreView* view, std::string* why) {
    DmWaveStoreLayout layout;
    if (!readWaveStoreLayout(bytes, size, expected, expectedStream, &layout, why)) return false;
    DmWaveStoreData& data = layout.data;
    const size_t held = heldBytes(data.frames);
    const size_t fine = static_cast<size_t>(data.channels) * windowsOf(data.frames);
    const size_t c16 = static_cast<size_t>(data.channels) * coarseCount(data.frames, 16);
    const size_t c256 = static_cast<size_t>(data.channels) * coarseCount(data.frames, 256);
    data.held.assign(layout.held, layout.held + held);
    copyLevels(layout.levels, fine, &data.levels);
    copyLevels(layout.level16, c16, &view->level16);
    copyLevels(layout.level256, c256, &view->level256);
    view->data = std::move(data);
    return true;
}

bool readWaveStore(const char* bytes, size_t size, const DmMediaFingerprint* expected, int32_t expectedStream,
                   DmWaveStoreData* data, std::string* why) {
    DmWaveStoreView view;
    if (!readWaveStoreView(bytes, size, expected, expectedStream, &view, why)) return false;
    *data = std::move(view.data);
    return true;
}

}  // namespace ZOR
