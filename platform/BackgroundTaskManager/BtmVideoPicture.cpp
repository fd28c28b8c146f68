#include "BtmVideoPicture.h"

#include <utility>

namespace ZOR::btm {

VideoSession::VideoSession(std::string path, int streamIndex, int32_t width, int32_t height)
    : path_(path), width_(width), height_(height), decoder_(std::move(path), streamIndex, nullptr) {}

bool VideoSession::open(std::string* problem) {
    std::string cause;
    if (decoder_.open(&cause)) return true;
    if (problem != nullptr) *problem = failure(cause);
    return false;
}

int VideoSession::pictureAt(int64_t time, const std::function<bool()>& stop, Picture* picture, std::string* problem) {
    if (!open(problem)) return AVERROR(EIO);
    decoder_.setStop(stop);
    const AVFrame* frame = nullptr;
    int64_t shown = 0;
    int64_t pts = 0;
    std::string cause;
    const int result = decoder_.frameAt(time, false, &frame, &shown, &pts, &cause);
    decoder_.setStop(nullptr);
    if (result != 0) {
        if (result != kStopped && problem != nullptr) *problem = failure(cause);
        return result;
    }
    if (!haveConverted_ || convertedPts_ != pts) {
        haveConverted_ = false;
        converted_.resize(static_cast<size_t>(width_) * static_cast<size_t>(height_) * 4);
        if (!converter_.convert(*decoder_.reader(), frame, decoder_.rotation(), width_, height_, converted_.data(),
                                &cause)) {
            if (problem != nullptr) *problem = failure(cause);
            return AVERROR(EINVAL);
        }
        convertedPts_ = pts;
        haveConverted_ = true;
    }
    picture->shown = shown;
    picture->rgba = converted_;
    return 0;
}

}  // namespace ZOR::btm
