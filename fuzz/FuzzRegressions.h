// Inputs the fuzz targets once found a fault with, kept for ever: the replay
// programs and the regression tests run each through its road. An input is
// written as hex text or made by a function, never kept as a binary file.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

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

inline const std::vector<Regression> kRegressions = {
};

}  // namespace ZOR::fuzz
