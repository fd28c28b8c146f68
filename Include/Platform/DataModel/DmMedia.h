// DataModel, host side: clips of media files and the frame store.
//
// A media clip stands for a whole media file used on its own (no timeline
// yet): mark in 0, mark out and end the duration of the stream it shows,
// begin 0. It answers its query by name with "IDmClip", "IDmClipInternal",
// "IDmPropertyOwner", "IDmMediaSource", "IDmBaseObj" and "RefCnt" (its
// RefCnt<void>), with "IDmAudioFeature" (and "IDmAudioClip", the same face)
// when the file has the audio stream it asks for, and "IDmVideoFeature" when it has the video stream.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "DataModel/DataModel.h"
#include "ZorPlatformExport.h"

namespace ZOR {

// A clip of the media file at path, with one reference owned by the caller.
// Any thread; it probes the file, which may take a while.
// audioStreamId / videoStreamId: the container's stream index of the stream
// to use, or -1 for the file's best stream of that kind.
//
// A file that is missing or cannot be read, or that lacks a stream that was
// asked for, still gives a clip: it has no audio and/or no video feature.
// Then *error (when given) says why, naming the file and the cause, and the
// reason is logged: when the file cannot be read, when it has neither kind of
// stream, or when a stream asked for by index is not there (a file without a
// best stream of one kind, e.g. a sound file, is no error). Otherwise *error
// is cleared. Null only when path is null or empty (with *error set).
//
// clipType() gives DmTrackVideo when the clip has video, DmTrackAudio when it
// has audio only, 0 when it has neither. The clip's duration (mark out, end)
// is its video stream's when it has video, its audio stream's otherwise, the
// container's when the stream does not tell.
//
// Properties (the Adapter keys): audioKey::streamId and videoKey::streamId
// give the index as asked for (-1: best stream); mediaInfoKey::width/height
// the picture size with the rotation applied; mediaInfoKey::vid_stream_id the
// video stream used (-1 none); mediaInfoKey::duration and the clipKey times in
// cns. Settable: audioKey::volume/mute, clipVolumeKey::volumeGain,
// audioLoudness::enable/gain, audioReversePlayKey::enable, clipKey::enable.
//
// Wave values (IDmAudioFeature::valueCountPerFrame, fillValues) exist at 25
// frames per second only (40 values per frame); other rates are refused with
// a non-zero result. IDmVideoFeature::thumbnailFiles takes media times in cns,
// as the frame task and fillFrames do.
ZOR_PLATFORM_API IDmClip* createMediaClip(const char* path, int32_t audioStreamId, int32_t videoStreamId,
                                          std::string* error);

// The frame store: the folder under which decoded video frames are kept as
// PNG files, so that a later run finds them on disk.
//
// Default: "$XDG_CACHE_HOME/miravel/frames", or "$HOME/.cache/miravel/frames"
// when XDG_CACHE_HOME is unset or empty (or "/tmp/miravel/frames" without
// either). setFrameStoreRoot(null or "") goes back to the default. The folder
// is created when the first frame is written. Returns 0. Thread-safe; frames
// already being written finish under the old root.
ZOR_PLATFORM_API int32_t setFrameStoreRoot(const char* path);
ZOR_PLATFORM_API std::string frameStoreRoot();

// Media the host found it cannot read or decode. The extraction tasks note
// each request that ends with status 3 here, with the cause, so that a
// client waiting for thumbnails of that media (which the thumbnail service
// does not tell of failures) can stop waiting and say why. A failure stands
// until the file changes (its size or time) or it is forgotten. Thread-safe.
struct DmMediaFailure {
    std::string path;   // the media file, canonical
    int32_t kind = 0;   // DmTrackAudio or DmTrackVideo: the stream that failed
    std::string cause;  // one line: "'<path>': <cause>"
};

// Notes a failure of the media at path (any spelling of it) and calls the
// listeners, on the calling thread, without holding any lock of its own.
ZOR_PLATFORM_API void noteMediaFailure(const char* path, int32_t kind, const char* cause);
// The failure noted for the media at path and kind, when it still stands:
// true with *cause set.
ZOR_PLATFORM_API bool mediaFailure(const char* path, int32_t kind, std::string* cause);
// Forgets every failure noted for the media at path.
ZOR_PLATFORM_API void forgetMediaFailures(const char* path);
// Listeners are called with each failure noted, on the thread that notes it
// (an extraction task's worker): they must return quickly and must not add or
// remove listeners. Returns an identifier for removeMediaFailureListener;
// once that returns, the listener is not running and is not called again.
ZOR_PLATFORM_API int64_t addMediaFailureListener(std::function<void(const DmMediaFailure&)> listener);
ZOR_PLATFORM_API void removeMediaFailureListener(int64_t id);

}  // namespace ZOR
