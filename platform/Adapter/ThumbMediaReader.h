// Reading the video stream of a media file with libavformat and libavcodec,
// packet by packet, for the thumb adapter.
#pragma once

#include <string>

#include "../AvShared/AvDecoder.h"

namespace ZOR::thumb {

using av::avErrorText;
using av::FramePtr;
using av::newFrame;
using av::PacketPtr;

// The reading, seeking, sending and receiving of av::StreamDecoder: seek(),
// readPacket(), sendPacket() (decoding errors are counted, not returned) and
// receiveFrame() (a frame that could not be made asks for the next packet).
class MediaReader : public av::StreamDecoder {
public:
    // Opens the file and the decoder of its video stream. streamId is the
    // container's stream index; -1, or 0 when the file's stream 0 is not
    // video, takes the best video stream (attached pictures such as cover
    // art do not count). On failure returns false and sets *problem to the
    // cause (without the path).
    bool open(const std::string& path, int streamId, std::string* problem);

    int streamIndex() const { return stream_ != nullptr ? stream_->index : -1; }
};

}  // namespace ZOR::thumb
