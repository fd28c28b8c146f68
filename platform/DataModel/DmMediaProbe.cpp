#include "DmMediaProbe.h"

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/display.h>
#include <libavutil/error.h>
}

#include <sys/stat.h>

#include <cmath>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <system_error>
#include <tuple>

#include "AvShared/AvDecoder.h"
#include "AvShared/AvFrameDecoder.h"
#include "AvShared/AvPicture.h"
#include "Common/ZorInternalComUtility.h"
#include "DataModel/DmMediaInternal.h"

ZOR_LOG_SOURCE("platform/DataModel/DmMediaProbe")

namespace ZOR {

namespace {

using av::avErrorText;
using av::displayRotation;

int64_t toCns(int64_t value, AVRational timeBase) {
    if (value == AV_NOPTS_VALUE || value <= 0 || timeBase.num <= 0 || timeBase.den <= 0) return 0;
    return av_rescale_q(value, timeBase, AVRational{1, 10'000'000});
}

}  // namespace

DmFileIdentity mediaFileIdentity(const char* path) {
    DmFileIdentity identity;
    struct stat info {};
    if (path == nullptr || ::stat(path, &info) != 0 || !S_ISREG(info.st_mode)) return identity;
    identity.regular = true;
    identity.size = static_cast<int64_t>(info.st_size);
    identity.modified = static_cast<int64_t>(info.st_mtim.tv_sec) * 1'000'000'000 + info.st_mtim.tv_nsec;
    return identity;
}

std::string canonicalMediaPath(const std::string& path) {
    namespace fs = std::filesystem;
    std::error_code ec;
    fs::path canonical = fs::canonical(fs::path(path), ec);
    if (!ec) return canonical.string();
    fs::path absolute = fs::absolute(fs::path(path), ec);
    if (ec) return path;
    return absolute.lexically_normal().string();
}

namespace {

DmMediaProbe probeFile(const std::string& canonical, int32_t audioStreamId, int32_t videoStreamId) {
    DmMediaProbe probe;
    probe.path = canonical;
    probe.fileName = std::filesystem::path(probe.path).filename().string();

    AVFormatContext* format = nullptr;
    std::string cause;
    if (!av::openMediaFile(probe.path, &format, &cause)) {
        probe.problem = "'" + probe.path + "': " + cause;
        probe.audioProblem = probe.videoProblem = probe.problem;
        ZOR_LOG(IBsLogger::Warning, "ZOR::DmMediaProbe::probeMedia", "cannot read %s", probe.problem.c_str());
        return probe;
    }
    probe.opened = true;
    probe.containerDuration = toCns(format->duration, AVRational{1, AV_TIME_BASE});
    // Why a stream asked for by index is not there.
    const auto missingStream = [&](int32_t index, const char* kind) {
        if (format->nb_streams == 0) return "'" + probe.path + "': no streams (the file may be cut short)";
        if (static_cast<unsigned>(index) >= format->nb_streams)
            return "'" + probe.path + "': no stream " + std::to_string(index) + " (the file has " +
                   std::to_string(format->nb_streams) + ")";
        return "'" + probe.path + "': stream " + std::to_string(index) + " is not " + kind + " stream";
    };
    const std::string noStreams = "'" + probe.path + "': no streams (the file may be cut short)";

    // Audio.
    int audio = -1;
    if (audioStreamId >= 0) {
        if (static_cast<unsigned>(audioStreamId) < format->nb_streams &&
            format->streams[audioStreamId]->codecpar->codec_type == AVMEDIA_TYPE_AUDIO)
            audio = audioStreamId;
        else
            probe.audioProblem = missingStream(audioStreamId, "an audio");
    } else {
        audio = av_find_best_stream(format, AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
        if (audio < 0)
            probe.audioProblem = format->nb_streams == 0 ? noStreams : "'" + probe.path + "': no audio stream";
    }
    if (audio >= 0) {
        const AVStream* stream = format->streams[audio];
        probe.audioStream = audio;
        probe.sampleRate = stream->codecpar->sample_rate;
        probe.channels = stream->codecpar->ch_layout.nb_channels;
        probe.audioDuration = av::streamDuration(format, format->streams[audio]);
    }

    // Video.
    int video = -1;
    if (videoStreamId >= 0) {
        if (static_cast<unsigned>(videoStreamId) < format->nb_streams &&
            format->streams[videoStreamId]->codecpar->codec_type == AVMEDIA_TYPE_VIDEO)
            video = videoStreamId;
        else
            probe.videoProblem = missingStream(videoStreamId, "a video");
    } else {
        video = av::bestVideoStream(format);
        if (video < 0)
            probe.videoProblem = format->nb_streams == 0 ? noStreams : "'" + probe.path + "': no video stream";
    }
    if (video >= 0) {
        AVStream* stream = format->streams[video];
        probe.videoStream = video;
        probe.codedWidth = stream->codecpar->width;
        probe.codedHeight = stream->codecpar->height;
        probe.rotation = displayRotation(stream);
        const AVRational sar = av_guess_sample_aspect_ratio(format, stream, nullptr);
        if (sar.num > 0 && sar.den > 0) {
            probe.sarNum = sar.num;
            probe.sarDen = sar.den;
        }
        AVRational rate = stream->avg_frame_rate;
        if (rate.num <= 0 || rate.den <= 0) rate = stream->r_frame_rate;
        if (rate.num > 0 && rate.den > 0) {
            probe.frameRateNum = rate.num;
            probe.frameRateDen = rate.den;
        }
        probe.videoDuration = av::streamDuration(format, stream);
        if (probe.codedWidth <= 0 || probe.codedHeight <= 0) {
            probe.videoStream = -1;
            probe.videoProblem = "'" + probe.path + "': the video stream has no picture size";
        }
    }
    av::closeMediaFile(&format);
    return probe;
}

// What probing found, by file and requested streams, while the file stays
// the same (size and modification time): a timeline of many clips of a few
// files opens each file once instead of once per clip.
class ProbeCache {
public:
    static constexpr size_t kCapacity = 256;

    std::optional<DmMediaProbe> find(const std::string& path, int32_t audio, int32_t video,
                                     const DmFileIdentity& identity) {
        std::lock_guard<std::mutex> lock(lock_);
        auto found = entries_.find(Key{path, audio, video});
        if (found == entries_.end() || !(found->second.identity == identity)) return std::nullopt;
        return found->second.probe;
    }

    void store(const std::string& path, int32_t audio, int32_t video, const DmFileIdentity& identity,
               const DmMediaProbe& probe) {
        std::lock_guard<std::mutex> lock(lock_);
        if (entries_.size() >= kCapacity) entries_.clear();
        entries_[Key{path, audio, video}] = Entry{identity, probe};
    }

private:
    using Key = std::tuple<std::string, int32_t, int32_t>;
    struct Entry {
        DmFileIdentity identity;
        DmMediaProbe probe;
    };
    std::mutex lock_;  // leaf: guards entries_ only; never held while probing
    std::map<Key, Entry> entries_;
};

ProbeCache& probeCache() {
    static ProbeCache cache;
    return cache;
}

}  // namespace

DmMediaProbe probeMedia(const std::string& path, int32_t audioStreamId, int32_t videoStreamId) {
    const std::string canonical = canonicalMediaPath(path);
    const DmFileIdentity identity = mediaFileIdentity(canonical.c_str());
    if (identity.regular) {
        if (std::optional<DmMediaProbe> known = probeCache().find(canonical, audioStreamId, videoStreamId, identity))
            return *known;
    }
    DmMediaProbe probe = probeFile(canonical, audioStreamId, videoStreamId);
    // Kept only when the file could be read and did not change meanwhile: a
    // file that cannot be read is tried (and its reason logged) every time.
    if (probe.opened && identity.regular && mediaFileIdentity(canonical.c_str()) == identity)
        probeCache().store(canonical, audioStreamId, videoStreamId, identity, probe);
    return probe;
}

}  // namespace ZOR
