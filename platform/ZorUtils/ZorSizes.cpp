// Fitting a picture size into a box.
#include "ZorUtils/ZorUtils.h"

#include <algorithm>

namespace ZOR {

bool adjust(int width, int height, int boxWidth, int boxHeight, int* outWidth, int* outHeight) {
    if (outWidth) {
        *outWidth = 0;
    }
    if (outHeight) {
        *outHeight = 0;
    }
    if (!outWidth || !outHeight || width < 1 || height < 1 || boxWidth < 1 || boxHeight < 1) {
        return false;
    }
    const int64_t w = width;
    const int64_t h = height;
    const int64_t bw = boxWidth;
    const int64_t bh = boxHeight;
    // Compare the aspect ratios w/h and bw/bh without division. Both results
    // stay within the box, so they fit in an int.
    if (w * bh >= bw * h) {
        *outWidth = boxWidth;
        *outHeight = static_cast<int>(std::max<int64_t>(1, h * bw / w));
    } else {
        *outWidth = static_cast<int>(std::max<int64_t>(1, w * bh / h));
        *outHeight = boxHeight;
    }
    return true;
}

}  // namespace ZOR
