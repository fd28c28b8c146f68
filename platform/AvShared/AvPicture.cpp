#include "AvShared/AvPicture.h"

extern "C" {
#include <libavutil/display.h>
#include <libavutil/mathematics.h>
#include <libavutil/pixdesc.h>
#include <libswscale/swscale.h>
}

#include <cmath>
#include <cstring>
#include <utility>

#include "AvShared/AvDecoder.h"
#include "ZorUtils/ZorUtils.h"

namespace ZOR::av {

int displayRotation(const AVStream* stream) {
    size_t size = 0;
    const uint8_t* matrix = av_stream_get_side_data(stream, AV_PKT_DATA_DISPLAYMATRIX, &size);
    if (matrix == nullptr || size < 9 * sizeof(int32_t)) return 0;
    const double angle = av_display_rotation_get(reinterpret_cast<const int32_t*>(matrix));
    if (std::isnan(angle)) return 0;
    long quarter = std::lround(angle / 90.0) % 4;
    if (quarter < 0) quarter += 4;
    return static_cast<int>(quarter * 90);
}

namespace {

// The integer a decoder left in one of a frame's enum fields. Decoders copy
// such values from the bitstream unchecked, so a damaged file can leave one
// that is none of the enum's values, which must not be read as the enum.
template <class Enum>
int rawValue(const Enum& field) {
    static_assert(sizeof(Enum) == sizeof(int));
    int value = 0;
    std::memcpy(&value, &field, sizeof value);
    return value;
}

}  // namespace

int swsColorspace(const AVFrame* frame) {
    const int height = frame->height;
    switch (rawValue(frame->colorspace)) {
        case AVCOL_SPC_BT709:
            return SWS_CS_ITU709;
        case AVCOL_SPC_FCC:
            return SWS_CS_FCC;
        case AVCOL_SPC_SMPTE240M:
            return SWS_CS_SMPTE240M;
        case AVCOL_SPC_BT2020_NCL:
        case AVCOL_SPC_BT2020_CL:
            return SWS_CS_BT2020;
        case AVCOL_SPC_BT470BG:
        case AVCOL_SPC_SMPTE170M:
            return SWS_CS_ITU601;
        default:
            return height >= 720 ? SWS_CS_ITU709 : SWS_CS_ITU601;  // what players assume
    }
}

bool fullRange(const AVFrame* frame) {
    if (rawValue(frame->color_range) == AVCOL_RANGE_JPEG) return true;
    switch (static_cast<AVPixelFormat>(frame->format)) {
        case AV_PIX_FMT_YUVJ420P:
        case AV_PIX_FMT_YUVJ422P:
        case AV_PIX_FMT_YUVJ444P:
        case AV_PIX_FMT_YUVJ440P:
        case AV_PIX_FMT_YUVJ411P:
            return true;
        default:
            return false;
    }
}

RgbaConverter::~RgbaConverter() { sws_freeContext(sws_); }

bool RgbaConverter::convert(const StreamDecoder& source, const AVFrame* frame, int rotation, int32_t width,
                            int32_t height, unsigned char* out, std::string* cause) {
    auto fail = [&](const char* text) {
        *cause = text;
        return false;
    };
    if (frame->width <= 0 || frame->height <= 0) return fail("a picture without size");
    AVRational sar = frame->sample_aspect_ratio;
    if (sar.num <= 0 || sar.den <= 0)
        sar = av_guess_sample_aspect_ratio(source.format(), source.stream(), const_cast<AVFrame*>(frame));
    if (sar.num <= 0 || sar.den <= 0) sar = AVRational{1, 1};
    // The display shape, reduced to fit adjust()'s ints.
    int shapeWidth = 0;
    int shapeHeight = 0;
    av_reduce(&shapeWidth, &shapeHeight, int64_t{frame->width} * sar.num, int64_t{frame->height} * sar.den, 1 << 20);
    const bool quarter = rotation == 90 || rotation == 270;
    if (quarter) std::swap(shapeWidth, shapeHeight);
    int outWidth = 0;
    int outHeight = 0;
    if (!adjust(shapeWidth, shapeHeight, width, height, &outWidth, &outHeight)) return fail("a picture without size");
    const int scaledWidth = quarter ? outHeight : outWidth;
    const int scaledHeight = quarter ? outWidth : outHeight;

    const auto format = static_cast<AVPixelFormat>(frame->format);
    sws_ = sws_getCachedContext(sws_, frame->width, frame->height, format, scaledWidth, scaledHeight, AV_PIX_FMT_RGBA,
                                SWS_BICUBIC | SWS_ACCURATE_RND | SWS_FULL_CHR_H_INT, nullptr, nullptr, nullptr);
    if (sws_ == nullptr) return fail("cannot convert the picture to RGBA");
    const AVPixFmtDescriptor* descriptor = av_pix_fmt_desc_get(format);
    if (descriptor != nullptr && (descriptor->flags & AV_PIX_FMT_FLAG_RGB) == 0) {
        const int* coefficients = sws_getCoefficients(swsColorspace(frame));
        sws_setColorspaceDetails(sws_, coefficients, fullRange(frame) ? 1 : 0, sws_getCoefficients(SWS_CS_DEFAULT), 1,
                                 0, 1 << 16, 1 << 16);
    }
    scaled_.assign(static_cast<size_t>(scaledWidth) * scaledHeight * 4, 0);
    uint8_t* planes[4] = {scaled_.data(), nullptr, nullptr, nullptr};
    int strides[4] = {scaledWidth * 4, 0, 0, 0};
    if (sws_scale(sws_, frame->data, frame->linesize, 0, frame->height, planes, strides) <= 0)
        return fail("cannot convert the picture to RGBA");

    // Turn upright and centre in the transparent box.
    std::memset(out, 0, static_cast<size_t>(width) * height * 4);
    const int left = (width - outWidth) / 2;
    const int top = (height - outHeight) / 2;
    const size_t outStride = static_cast<size_t>(width) * 4;
    if (rotation == 0) {
        for (int y = 0; y < scaledHeight; ++y)
            std::memcpy(out + static_cast<size_t>(top + y) * outStride + static_cast<size_t>(left) * 4,
                        scaled_.data() + static_cast<size_t>(y) * scaledWidth * 4,
                        static_cast<size_t>(scaledWidth) * 4);
        return true;
    }
    for (int y = 0; y < scaledHeight; ++y) {
        const unsigned char* row = scaled_.data() + static_cast<size_t>(y) * scaledWidth * 4;
        for (int x = 0; x < scaledWidth; ++x) {
            int dx = x;
            int dy = y;
            switch (rotation) {
                case 90:  // counter-clockwise: the top edge goes to the left
                    dx = y;
                    dy = scaledWidth - 1 - x;
                    break;
                case 180:
                    dx = scaledWidth - 1 - x;
                    dy = scaledHeight - 1 - y;
                    break;
                case 270:  // clockwise: the top edge goes to the right
                    dx = scaledHeight - 1 - y;
                    dy = x;
                    break;
                default:
                    break;
            }
            std::memcpy(out + static_cast<size_t>(top + dy) * outStride + static_cast<size_t>(left + dx) * 4,
                        row + static_cast<size_t>(x) * 4, 4);
        }
    }
    return true;
}

}  // namespace ZOR::av
