#include "AvShared/AvDecoder.h"

extern "C" {
#include <libavutil/error.h>
}

#include <sys/stat.h>

#include <algorithm>
#include <cstring>

#include "ZorUtils/ZorUtils.h"

namespace ZOR::av {

std::string avErrorText(int code) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {0};
    if (av_strerror(code, text, sizeof text) < 0) return "error " + std::to_string(code);
    return text;
}

bool isAttachedPicture(const AVStream* stream) { return (stream->disposition & AV_DISPOSITION_ATTACHED_PIC) != 0; }

bool isVideoStream(const AVStream* stream) {
    return stream->codecpar->codec_type == AVMEDIA_TYPE_VIDEO && !isAttachedPicture(stream);
}

int bestVideoStream(AVFormatContext* format) {
    const int best = av_find_best_stream(format, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    if (best >= 0 && !isAttachedPicture(format->streams[best])) return best;
    for (unsigned i = 0; i < format->nb_streams; ++i)
        if (isVideoStream(format->streams[i])) return static_cast<int>(i);
    return -1;
}

StreamDecoder::~StreamDecoder() {
    avcodec_free_context(&codec_);
    closeMediaFile(&format_);
}

namespace {

// The reading position in bytes held in memory (ZOR::setMemoryMedia).
struct MemorySource {
    const unsigned char* bytes = nullptr;
    size_t size = 0;
    size_t position = 0;
};

int readMemory(void* opaque, uint8_t* buffer, int capacity) {
    auto* source = static_cast<MemorySource*>(opaque);
    if (capacity <= 0) return 0;
    const size_t left = source->size - source->position;
    if (left == 0) return AVERROR_EOF;
    const size_t count = std::min(left, static_cast<size_t>(capacity));
    std::memcpy(buffer, source->bytes + source->position, count);
    source->position += count;
    return static_cast<int>(count);
}

int64_t seekMemory(void* opaque, int64_t offset, int whence) {
    auto* source = static_cast<MemorySource*>(opaque);
    const auto size = static_cast<int64_t>(source->size);
    if (whence & AVSEEK_SIZE) return size;
    int64_t target = offset;
    switch (whence & ~AVSEEK_FORCE) {
        case SEEK_SET: break;
        case SEEK_CUR: target = static_cast<int64_t>(source->position) + offset; break;
        case SEEK_END: target = size + offset; break;
        default: return AVERROR(EINVAL);
    }
    if (target < 0 || target > size) return AVERROR(EINVAL);
    source->position = static_cast<size_t>(target);
    return target;
}

// Frees the reader of memory media that openMemoryMedia() gave a context.
void freeMemoryReader(AVIOContext** reader) {
    if (*reader == nullptr) return;
    delete static_cast<MemorySource*>((*reader)->opaque);
    av_freep(&(*reader)->buffer);
    avio_context_free(reader);
}

// Opens bytes held in memory as media: a context with its own reader
// (AVFMT_FLAG_CUSTOM_IO), which closeMediaFile() frees.
int openMemoryMedia(const unsigned char* bytes, size_t size, const std::string& path, AVFormatContext** format) {
    constexpr int kBufferSize = 32 * 1024;
    auto* buffer = static_cast<unsigned char*>(av_malloc(kBufferSize));
    if (buffer == nullptr) return AVERROR(ENOMEM);
    auto* source = new MemorySource{bytes, size, 0};
    AVIOContext* reader = avio_alloc_context(buffer, kBufferSize, 0, source, readMemory, nullptr, seekMemory);
    if (reader == nullptr) {
        av_free(buffer);
        delete source;
        return AVERROR(ENOMEM);
    }
    *format = avformat_alloc_context();
    if (*format == nullptr) {
        freeMemoryReader(&reader);
        return AVERROR(ENOMEM);
    }
    (*format)->pb = reader;
    (*format)->flags |= AVFMT_FLAG_CUSTOM_IO;
    // On failure the context is freed (and *format nulled), the reader is not.
    const int result = avformat_open_input(format, path.c_str(), nullptr, nullptr);
    if (result < 0) freeMemoryReader(&reader);
    return result;
}

}  // namespace

void closeMediaFile(AVFormatContext** format) {
    if (*format == nullptr) return;
    AVIOContext* memoryReader = ((*format)->flags & AVFMT_FLAG_CUSTOM_IO) != 0 ? (*format)->pb : nullptr;
    avformat_close_input(format);
    freeMemoryReader(&memoryReader);
}

bool openMediaFile(const std::string& path, AVFormatContext** format, std::string* cause, bool regularOnly) {
    const unsigned char* bytes = nullptr;
    size_t size = 0;
    if (findMemoryMedia(path.c_str(), &bytes, &size)) {
        int result = openMemoryMedia(bytes, size, path, format);
        if (result >= 0) result = avformat_find_stream_info(*format, nullptr);
        if (result >= 0) return true;
        closeMediaFile(format);
        *cause = avErrorText(result);
        return false;
    }
    // A pipe or a device would block the open or the reads, for ever when
    // nobody writes: only regular files (and what the file system does not
    // know, such as URLs) are read, unless the caller can be held.
    struct stat info {};
    if (regularOnly && ::stat(path.c_str(), &info) == 0 && !S_ISREG(info.st_mode)) {
        *cause = "not a regular file";
        return false;
    }
    int result = avformat_open_input(format, path.c_str(), nullptr, nullptr);
    if (result >= 0) result = avformat_find_stream_info(*format, nullptr);
    if (result >= 0) return true;
    closeMediaFile(format);
    *cause = avErrorText(result);
    return false;
}

bool StreamDecoder::openInput(const std::string& path, std::string* cause, bool regularOnly) {
    return openMediaFile(path, &format_, cause, regularOnly);
}

bool StreamDecoder::openDecoder(int index, std::string* cause) {
    auto fail = [&](const std::string& text) {
        *cause = text;
        return false;
    };
    stream_ = format_->streams[index];
    const AVCodec* decoder = avcodec_find_decoder(stream_->codecpar->codec_id);
    if (decoder == nullptr) return fail(std::string("no decoder for ") + avcodec_get_name(stream_->codecpar->codec_id));
    codec_ = avcodec_alloc_context3(decoder);
    if (codec_ == nullptr) return fail(avErrorText(AVERROR(ENOMEM)));
    int result = avcodec_parameters_to_context(codec_, stream_->codecpar);
    if (result < 0) return fail(avErrorText(result));
    codec_->pkt_timebase = stream_->time_base;
    // One decoding thread: the frames to skip are chosen packet by packet and
    // must apply to the packet being sent, and the callers' workers already
    // keep the cores busy.
    codec_->thread_count = 1;
    result = avcodec_open2(codec_, decoder, nullptr);
    if (result < 0) return fail(avErrorText(result));
    // Only this stream's packets matter.
    for (unsigned i = 0; i < format_->nb_streams; ++i)
        if (static_cast<int>(i) != index) format_->streams[i]->discard = AVDISCARD_ALL;
    return true;
}

void StreamDecoder::noteReadError(int code) {
    if (code != AVERROR_EOF && readError_ == 0) readError_ = code;
}

void StreamDecoder::noteDecodeError(int code) {
    decodeError_ = code;
    ++decodeErrors_;
}

int StreamDecoder::failureCause() const {
    if (readError_ != 0) return readError_;
    return decodeError_ != 0 ? decodeError_ : AVERROR_INVALIDDATA;
}

int StreamDecoder::seek(int64_t ts) {
    const int result = av_seek_frame(format_, stream_->index, ts, AVSEEK_FLAG_BACKWARD);
    avcodec_flush_buffers(codec_);
    return result;
}

int StreamDecoder::readPacket(AVPacket* packet) {
    for (;;) {
        const int result = av_read_frame(format_, packet);
        if (result < 0) {
            noteReadError(result);
            return AVERROR_EOF;
        }
        if (packet->stream_index == stream_->index) return 0;
        av_packet_unref(packet);
    }
}

int StreamDecoder::sendPacket(const AVPacket* packet, AVDiscard discard) {
    codec_->skip_frame = discard;
    const int result = avcodec_send_packet(codec_, packet);
    if (result == AVERROR(EAGAIN)) return result;
    if (result < 0 && result != AVERROR_EOF) noteDecodeError(result);
    return 0;
}

bool StreamDecoder::sendEnd() { return sendPacket(nullptr, AVDISCARD_DEFAULT) != AVERROR(EAGAIN); }

int StreamDecoder::receiveFrame(AVFrame* frame) {
    const int result = avcodec_receive_frame(codec_, frame);
    if (result == 0 || result == AVERROR(EAGAIN) || result == AVERROR_EOF) return result;
    // A frame the decoder could not make: ask for the next packet.
    noteDecodeError(result);
    return AVERROR(EAGAIN);
}

}  // namespace ZOR::av
