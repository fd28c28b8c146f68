// The property key constants of the data model.
#include "Adapter/Adapter.h"
#include "DataModel/DmKeyTexts.h"

namespace ZOR {

const char* const audioKey::volume = keytext::kAudioVolume;
const char* const audioKey::mute = keytext::kAudioMute;
const char* const audioKey::streamId = keytext::kAudioStreamId;

const char* const clipVolumeKey::volumeGain = keytext::kClipVolumeGain;

const char* const audioLoudness::enable = keytext::kLoudnessEnable;
const char* const audioLoudness::gain = keytext::kLoudnessGain;

const char* const audioReversePlayKey::enable = keytext::kReversePlayEnable;

const char* const trackKey::mute = keytext::kTrackMute;
const char* const trackKey::visible = keytext::kTrackVisible;
const char* const trackKey::solo = keytext::kTrackSolo;

const char* const clipKey::enable = keytext::kClipEnable;
const char* const clipKey::markIn = keytext::kClipMarkIn;
const char* const clipKey::markOut = keytext::kClipMarkOut;
const char* const clipKey::timelineBegin = keytext::kClipTimelineBegin;
const char* const clipKey::timelineEnd = keytext::kClipTimelineEnd;

const char* const videoKey::streamId = keytext::kVideoStreamId;

const char* const mediaInfoKey::width = keytext::kMediaInfoWidth;
const char* const mediaInfoKey::height = keytext::kMediaInfoHeight;
const char* const mediaInfoKey::vid_stream_id = keytext::kMediaInfoVideoStreamId;
const char* const mediaInfoKey::duration = keytext::kMediaInfoDuration;

}  // namespace ZOR
