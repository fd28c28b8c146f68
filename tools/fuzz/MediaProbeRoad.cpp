#include <cstdlib>
#include <string>

#include "Adapter/Adapter.h"
#include "DataModel/DataModel.h"
#include "DataModel/DmMedia.h"
#include "FuzzRoads.h"
#include "FuzzSupport.h"
#include "ZorUtils/ZorUtils.h"

namespace ZOR::fuzz {

namespace {

// -1 (the best stream) or a stream index 0..2, from one byte.
int32_t streamChoice(uint8_t byte) { return static_cast<int32_t>(byte % 4) - 1; }

void readProperty(IDmPropertyOwner* owner, const char* key) {
    ZorProperty value;
    owner->getProperty(key, &value);
}

}  // namespace

int mediaProbe(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    const int32_t audio = streamChoice(data[0]);
    const int32_t video = streamChoice(data[1]);
    MemoryMedia media("/miravel-fuzz/probe.media", data + 2, size - 2);
    std::string error;
    IDmClip* clip = createMediaClip(media.path(), audio, video, &error);
    if (clip == nullptr) std::abort();  // only a null or empty path gives none
    const int32_t type = clip->clipType();
    tell("media_probe: %zu bytes, streams %d %d: type %d%s%s", size, static_cast<int>(audio), static_cast<int>(video),
         static_cast<int>(type), error.empty() ? "" : ", ", error.c_str());
    if (type != 0 && type != DmTrackAudio && type != DmTrackVideo) std::abort();
    if (auto* owner = static_cast<IDmPropertyOwner*>(clip->queryInterface("IDmPropertyOwner"))) {
        readProperty(owner, mediaInfoKey::width);
        readProperty(owner, mediaInfoKey::height);
        readProperty(owner, mediaInfoKey::vid_stream_id);
        readProperty(owner, mediaInfoKey::duration);
    }
    if (auto* sound = static_cast<IDmAudioFeature*>(clip->queryInterface("IDmAudioFeature")))
        tell("media_probe: audio stream %d: %d Hz, %d channels, %lld cns", static_cast<int>(sound->audioStreamIndex()),
             static_cast<int>(sound->sampleRate()), static_cast<int>(sound->channelCount()),
             static_cast<long long>(sound->mediaDuration()));
    clip->Release();
    return 0;
}

}  // namespace ZOR::fuzz
