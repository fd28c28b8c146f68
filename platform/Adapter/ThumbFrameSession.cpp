#include "ThumbFrameSession.h"

#include <cstring>
#include <utility>

namespace ZOR::thumb {

FrameSession::FrameSession(std::string path, int streamId, ThumbDecodeCounts* counts)
    : counts_(counts), decoder_(std::move(path), streamId, nullptr) {}

bool FrameSession::open(std::string* problem) {
    std::string cause;
    const bool opened = decoder_.open(&cause);
    publishCounts();
    if (!opened && problem != nullptr) *problem = failure(cause);
    return opened;
}

int64_t FrameSession::duration() {
    const int64_t found = decoder_.duration();
    publishCounts();
    return found;
}

void FrameSession::setAbandon(const std::atomic<bool>* flag) {
    if (flag == nullptr) {
        decoder_.setStop(nullptr);
        return;
    }
    decoder_.setStop([flag] { return flag->load(std::memory_order_relaxed); });
}

void FrameSession::publishCounts() {
    const av::DecodeCounts& now = decoder_.counts();
    counts_->opens += now.opens - published_.opens;
    counts_->seeks += now.seeks - published_.seeks;
    counts_->packets += now.packets - published_.packets;
    counts_->discarded += now.discarded - published_.discarded;
    counts_->frames += now.frames - published_.frames;
    counts_->redone += now.redone - published_.redone;
    counts_->reused += now.reused - published_.reused;
    published_ = now;
}

int FrameSession::pictureAt(int64_t time, bool keyframe, int32_t width, int32_t height, unsigned char* out,
                            std::string* problem) {
    const AVFrame* frame = nullptr;
    int64_t shown = 0;
    int64_t pts = 0;
    std::string cause;
    const int result = decoder_.frameAt(time, keyframe, &frame, &shown, &pts, &cause);
    publishCounts();
    if (result == av::FrameDecoder::kStopped) {
        if (problem != nullptr) *problem = failure("abandoned");
        return AVERROR_EXIT;
    }
    if (result != 0) {
        if (problem != nullptr) *problem = failure(cause);
        return result;
    }
    const size_t bytes = static_cast<size_t>(width) * static_cast<size_t>(height) * 4;
    if (haveConverted_ && convertedPts_ == pts && convertedKeyframe_ == keyframe && convertedWidth_ == width &&
        convertedHeight_ == height && converted_.size() == bytes) {
        std::memcpy(out, converted_.data(), bytes);
        return 0;
    }
    haveConverted_ = false;
    if (!converter_.convert(*decoder_.reader(), frame, decoder_.rotation(), width, height, out, &cause)) {
        if (problem != nullptr) *problem = failure(cause);
        return AVERROR(EINVAL);
    }
    converted_.assign(out, out + bytes);
    convertedPts_ = pts;
    convertedKeyframe_ = keyframe;
    convertedWidth_ = width;
    convertedHeight_ = height;
    haveConverted_ = true;
    return 0;
}

}  // namespace ZOR::thumb
