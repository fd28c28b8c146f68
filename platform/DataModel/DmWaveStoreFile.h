// The wave store's file: the wave levels of one audio stream of one media
// content, kept on disk so that a later process serves them without decoding.
//
// Layout (version 2, every number little-endian; version 1 checked its
// bytes with a slower hash):
//
//   header, 92 bytes:
//     "MRVLWAVE"              magic
//     u32 version             2
//     u32 header bytes        92
//     u64 file size           } the media content's fingerprint
//     u64 head hash           }   (size, hashes of its first and last MiB)
//     u64 tail hash           }
//     i32 stream              the container's stream index
//     u32 channels            1..64
//     i32 frames              frames covered, 0..(2^31 - 1) / 40
//     i32 end frame           the first frame beyond the stream, -1 unknown
//     u32 has origin, i64 origin pts, i32 origin sample rate, u32 reserved
//     u64 payload checksum    of every byte after the header
//     u64 header checksum     of the header's bytes before it
//   payload:
//     held bitmap             ceil(frames / 8) bytes, frame f at bit f % 8 of byte f / 8
//     levels of 1 ms          channels x frames x 40 u16, channel after channel
//     levels of 16 ms         channels x ceil(frames x 40 / 16) u16, the largest of each 16
//     levels of 256 ms        channels x ceil(frames x 40 / 256) u16, the largest of each 256
//
// A level is a window's peak in 16-bit steps of 1/32768 (as the wave
// manager keeps it); frames not held are 0. A file that is truncated, damaged,
// of another version or of other content is refused by readWaveStore() with
// the reason, and never served.
#pragma once

#include <cstddef>
#include <climits>
#include <cstdint>
#include <string>
#include <vector>

namespace ZOR {

// What identifies a media file's content: its size and 64-bit hashes of its
// first and last MiB. A file moved or renamed keeps it; a file changed in
// place gets another.
struct DmMediaFingerprint {
    uint64_t size = 0;
    uint64_t head = 0;
    uint64_t tail = 0;
    bool operator==(const DmMediaFingerprint&) const = default;
};

// The fingerprint of the file at path; false when it cannot be read.
bool mediaFingerprint(const std::string& path, DmMediaFingerprint* fingerprint);

// A 64-bit hash of bytes (fast, well mixed; not for security).
uint64_t hashBytes(const void* data, size_t size, uint64_t seed);

struct DmWaveStoreData {
    static constexpr int32_t kValuesPerFrame = 40;
    static constexpr uint32_t kMostChannels = 64;
    static constexpr int32_t kMostFrames = INT32_MAX / kValuesPerFrame;

    DmMediaFingerprint fingerprint;
    int32_t stream = -1;
    uint32_t channels = 0;
    int32_t frames = 0;
    int32_t endFrame = -1;
    bool hasOrigin = false;
    int64_t originPts = 0;
    int32_t originRate = 0;
    std::vector<uint8_t> held;     // ceil(frames / 8) bytes
    std::vector<uint16_t> levels;  // channels x frames x 40, channel after channel

    bool isHeld(int32_t frame) const {
        return frame >= 0 && frame < frames && (held[static_cast<size_t>(frame) / 8] >> (frame % 8) & 1u) != 0;
    }
    // Level of window w (a millisecond) of a channel.
    uint16_t level(uint32_t channel, int64_t window) const {
        return levels[static_cast<size_t>(channel) * static_cast<size_t>(frames) * kValuesPerFrame +
                      static_cast<size_t>(window)];
    }
};

// The file's bytes for data (its coarse levels worked out here).
std::vector<char> writeWaveStore(const DmWaveStoreData& data);

// Reads a file's bytes. With expected (not null), the fingerprint and the
// stream must be those. False with *why set when the bytes are not a whole,
// undamaged file of this version.
bool readWaveStore(const char* bytes, size_t size, const DmMediaFingerprint* expected, int32_t expectedStream,
                   DmWaveStoreData* data, std::string* why);

// The coarse levels a file holds beside the millisecond ones, as read: one
// value per `windows` milliseconds (16 or 256), each the largest of those
// windows. Null when the file holds none of that size.
struct DmWaveStoreView {
    DmWaveStoreData data;
    std::vector<uint16_t> level16;   // channels x ceil(frames x 40 / 16)
    std::vector<uint16_t> level256;  // channels x ceil(frames x 40 / 256)
};
bool readWaveStoreView(const char* bytes, size_t size, const DmMediaFingerprint* expected, int32_t expectedStream,
                       DmWaveStoreView* view, std::string* why);

// A checked file read in place: the header's fields in data (its held and
// levels left empty) and where each part of the payload starts in bytes (the
// levels as little-endian u16, not necessarily aligned). Same checks and
// reasons as readWaveStore.
struct DmWaveStoreLayout {
    DmWaveStoreData data;
    const char* held = nullptr;      // ceil(frames / 8) bytes
    const char* levels = nullptr;    // channels x frames x 40 u16
    const char* level16 = nullptr;   // channels x ceil(frames x 40 / 16) u16
    const char* level256 = nullptr;  // channels x ceil(frames x 40 / 256) u16
    bool isHeld(int32_t frame) const {
        return frame >= 0 && frame < data.frames &&
               (static_cast<unsigned char>(held[frame / 8]) >> (frame % 8) & 1u) != 0;
    }
};
bool readWaveStoreLayout(const char* bytes, size_t size, const DmMediaFingerprint* expected, int32_t expectedStream,
                         DmWaveStoreLayout* layout, std::string* why);

}  // namespace ZOR
