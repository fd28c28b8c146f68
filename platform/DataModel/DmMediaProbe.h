// What the data model learns about a media file when a clip of it is made.
#pragma once

#include <cstdint>
#include <string>

namespace ZOR {

struct DmMediaProbe {
    std::string path;               // canonical (absolute when the file is not there)
    std::string fileName;           // the last part of path
    bool opened = false;            // the container could be read
    std::string problem;            // why it could not: "'<path>': <cause>"
    int64_t containerDuration = 0;  // cns; 0 when unknown

    int32_t audioStream = -1;  // container stream index; -1 when none
    std::string audioProblem;  // why there is no audio stream
    int32_t sampleRate = 0;
    int32_t channels = 0;
    int64_t audioDuration = 0;  // cns

    int32_t videoStream = -1;
    std::string videoProblem;
    int32_t codedWidth = 0;
    int32_t codedHeight = 0;
    int32_t rotation = 0;  // display rotation, degrees counter-clockwise: 0, 90, 180 or 270
    int32_t sarNum = 1;    // sample aspect ratio
    int32_t sarDen = 1;
    int64_t frameRateNum = 0;  // 0 when unknown
    int64_t frameRateDen = 1;
    int64_t videoDuration = 0;  // cns

    // The picture size with the rotation applied (the sample aspect ratio is
    // not: these are stored pixels, turned upright).
    int32_t displayWidth() const { return rotation == 90 || rotation == 270 ? codedHeight : codedWidth; }
    int32_t displayHeight() const { return rotation == 90 || rotation == 270 ? codedWidth : codedHeight; }
};

// Canonical form of a path: symbolic links resolved for an existing file,
// otherwise the absolute, lexically normal path.
std::string canonicalMediaPath(const std::string& path);

// Opens the file with libavformat and resolves the requested streams
// (-1: the best stream of the kind; a video stream that is only an attached
// picture does not count). Never throws. What a readable file gave is kept
// and given again while the file keeps its size and modification time, so
// that many clips of one file open it once.
DmMediaProbe probeMedia(const std::string& path, int32_t audioStreamId, int32_t videoStreamId);

}  // namespace ZOR
