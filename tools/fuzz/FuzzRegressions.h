// Inputs the fuzz targets once found a fault with, kept for ever: the replay
// programs and the regression tests run each through its road. An input is
// written as hex text or made by a function, never kept as a binary file.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "DmWaveStoreFile.h"

namespace ZOR::fuzz {

struct Regression {
    std::string_view road;  // the road's name in kRoads
    std::string_view name;  // what went wrong with it
    std::string_view hex;   // the bytes as hex digits (spaces and line breaks ignored)
    std::vector<uint8_t> (*make)() = nullptr;  // or the function that makes them

    std::vector<uint8_t> bytes() const {
        if (make != nullptr) return make();
        std::vector<uint8_t> out;
        int high = -1;
        for (char c : hex) {
            int digit = -1;
            if (c >= '0' && c <= '9') digit = c - '0';
            if (c >= 'a' && c <= 'f') digit = c - 'a' + 10;
            if (c >= 'A' && c <= 'F') digit = c - 'A' + 10;
            if (digit < 0) continue;
            if (high < 0) {
                high = digit;
            } else {
                out.push_back(static_cast<uint8_t>(high * 16 + digit));
                high = -1;
            }
        }
        return out;
    }
};

// A CAF file whose description gives 2147483647 samples a second and 104
// channels: the harness summed what the clip reported and overflowed.
inline constexpr std::string_view kCafOfHugeRate =
    "6361666600010000646573630000000000000020"
    "48bf4000000000006c70636d0000000200000002000000010000"
    "0068010000630010616e000000000000000c006400010000000000000000696e666f000000009d00001a00000001656e"
    "636f656472004c61766632392e32362c2e31303000646174612d000000000019040000000000006b053a0ac50db60fcd"
    "0f050e007f0f00003b000d";

inline std::vector<uint8_t> withChoices(uint8_t first, uint8_t second, std::string_view hex) {
    std::vector<uint8_t> bytes = Regression{"", "", hex}.bytes();
    bytes.insert(bytes.begin(), {first, second});
    return bytes;
}

// A wave store file of one channel and no frames: its empty levels were
// copied from a null pointer.
inline std::vector<uint8_t> storeOfNoFrames() {
    DmWaveStoreData data;
    data.channels = 1;
    data.frames = 0;
    const std::vector<char> bytes = writeWaveStore(data);
    return std::vector<uint8_t>(bytes.begin(), bytes.end());
}

inline const std::vector<Regression> kRegressions = {
    {"wave_store", "a file of one channel and no frames", "", storeOfNoFrames},
    {"media_probe", "a CAF file of 2147483647 Hz and 104 channels", "",
     [] { return withChoices(0, 0, kCafOfHugeRate); }},
    {"audio_wave", "a CAF file of 2147483647 Hz and 104 channels", kCafOfHugeRate},
    {"frame_at", "a CAF file of 2147483647 Hz and 104 channels", "", [] { return withChoices(0, 4, kCafOfHugeRate); }},
};

}  // namespace ZOR::fuzz
