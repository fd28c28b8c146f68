#include <cstdlib>
#include <string>

#include "FuzzRoads.h"
#include "FuzzSupport.h"
#include "ZorUtils/ZorUtils.h"

namespace ZOR::fuzz {

int pngLoad(const uint8_t* data, size_t size) {
    const std::string path = scratchFile("input.png", data, size);
    if (path.empty()) return 0;
    unsigned char* buffer = nullptr;
    int width = -1;
    int height = -1;
    if (loadPNG(path.c_str(), &buffer, &width, &height) != 0) {
        // A refused file leaves no buffer and the sizes as they were.
        if (buffer != nullptr || width != -1 || height != -1) std::abort();
        return 0;
    }
    if (buffer == nullptr || width <= 0 || height <= 0) std::abort();
    touch(buffer, static_cast<size_t>(width) * static_cast<size_t>(height) * 4);
    freeImageBuffer(buffer);
    return 0;
}

}  // namespace ZOR::fuzz
