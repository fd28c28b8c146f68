// DataModel, host side: the texts of the data model's property keys, which
// the DataModel library answers and the Adapter library exports as the key
// constants of Adapter.h. Keys are compared byte-wise, so both sides use
// exactly these texts; they are part of no stored format and may be read in
// logs. Not for the Miravel library, which knows the keys only as Adapter.h's
// constants.
#pragma once

namespace ZOR::keytext {

inline constexpr char kAudioVolume[] = "audio.volume";
inline constexpr char kAudioMute[] = "audio.mute";
inline constexpr char kAudioStreamId[] = "audio.streamId";
inline constexpr char kClipVolumeGain[] = "clipVolume.volumeGain";
inline constexpr char kLoudnessEnable[] = "audioLoudness.enable";
inline constexpr char kLoudnessGain[] = "audioLoudness.gain";
inline constexpr char kReversePlayEnable[] = "audioReversePlay.enable";
inline constexpr char kTrackMute[] = "track.mute";
inline constexpr char kTrackVisible[] = "track.visible";
inline constexpr char kTrackSolo[] = "track.solo";
inline constexpr char kClipEnable[] = "clip.enable";
inline constexpr char kClipMarkIn[] = "clip.markIn";
inline constexpr char kClipMarkOut[] = "clip.markOut";
inline constexpr char kClipTimelineBegin[] = "clip.timelineBegin";
inline constexpr char kClipTimelineEnd[] = "clip.timelineEnd";
inline constexpr char kVideoStreamId[] = "video.streamId";
inline constexpr char kMediaInfoWidth[] = "mediaInfo.width";
inline constexpr char kMediaInfoHeight[] = "mediaInfo.height";
inline constexpr char kMediaInfoVideoStreamId[] = "mediaInfo.vid_stream_id";
inline constexpr char kMediaInfoDuration[] = "mediaInfo.duration";

}  // namespace ZOR::keytext
