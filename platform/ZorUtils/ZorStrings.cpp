// Bounded string copy.
#include "ZorUtils/ZorUtils.h"

#include <cstring>

namespace ZOR {

char* zor_strcpy(char* dst, size_t dstSize, const char* src) {
    if (!dst || dstSize == 0) {
        return dst;
    }
    if (!src) {
        src = "";
    }
    // strnlen: src need not be terminated within reach of what is copied.
    const size_t length = strnlen(src, dstSize - 1);
    std::memcpy(dst, src, length);
    dst[length] = '\0';
    return dst;
}

}  // namespace ZOR
