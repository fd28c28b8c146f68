// Decoded video frames as RGBA pictures fitted into a box.
#pragma once

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/frame.h>
#include <libavutil/pixfmt.h>
}

#include <cstdint>
#include <string>
#include <vector>

struct SwsContext;

namespace ZOR::av {

class StreamDecoder;

// The rotation of the stream's display matrix rounded to quarter turns, in
// degrees counter-clockwise: 0, 90, 180 or 270 (0 without a matrix).
int displayRotation(const AVStream* stream);

// The SWS_CS_* coefficients of the frame's colour space; when the file tells
// none (or a value that is none), what players assume for the picture height
// (BT.709 from 720 lines).
int swsColorspace(const AVFrame* frame);

// Whether the frame's YUV uses the full range (0-255) rather than the video
// range.
bool fullRange(const AVFrame* frame);

// Converts frames to RGBA pictures that keep the display aspect ratio (the
// sample aspect ratio, guessed from the stream when the frame has none, and
// the display rotation in quarter turns; mirroring is not applied), scaled
// to fit the box (ZOR::adjust: the bound side fills it), centred, the rest
// of the box transparent (0, 0, 0, 0). Keeps its scaler between pictures.
class RgbaConverter {
public:
    RgbaConverter() = default;
    ~RgbaConverter();
    RgbaConverter(const RgbaConverter&) = delete;
    RgbaConverter& operator=(const RgbaConverter&) = delete;

    // Converts a frame of source's stream, turned by rotation (degrees
    // counter-clockwise, as displayRotation() gives it), into out (width x
    // height x 4 bytes, rows without padding). False with *cause set; out is
    // not written then.
    bool convert(const StreamDecoder& source, const AVFrame* frame, int rotation, int32_t width, int32_t height,
                 unsigned char* out, std::string* cause);

private:
    SwsContext* sws_ = nullptr;
    std::vector<unsigned char> scaled_;
};

}  // namespace ZOR::av
