#include "ThumbMediaReader.h"

#include <sys/stat.h>

namespace ZOR::thumb {

bool MediaReader::open(const std::string& path, int streamId, std::string* problem) {
    auto fail = [&](const std::string& cause) {
        if (problem != nullptr) *problem = cause;
        return false;
    };
    // A pipe or a device would block the open or the reads; only regular
    // files (and what the file system does not know, such as URLs) are read.
    struct stat info {};
    if (::stat(path.c_str(), &info) == 0 && !S_ISREG(info.st_mode)) return fail("not a regular file");
    std::string cause;
    if (!openInput(path, &cause)) return fail(cause);

    int index = streamId;
    const bool firstIsVideo = format_->nb_streams > 0 && av::isVideoStream(format_->streams[0]);
    if (streamId < 0 || (streamId == 0 && !firstIsVideo)) {
        index = av::bestVideoStream(format_);
        if (index < 0) return fail("no video stream");
    } else if (static_cast<unsigned>(streamId) >= format_->nb_streams) {
        return fail("no stream " + std::to_string(streamId));
    } else if (!av::isVideoStream(format_->streams[streamId])) {
        return fail("stream " + std::to_string(streamId) + " is not a video stream");
    }
    const AVCodecParameters* parameters = format_->streams[index]->codecpar;
    if (parameters->width <= 0 || parameters->height <= 0) return fail("the video stream has no picture size");
    if (!openDecoder(index, &cause)) return fail(cause);
    return true;
}

}  // namespace ZOR::thumb
