// DataModel, host side: editing timelines made by createTimeline() or
// loadTimelineDocument() (DmTimeline.h), with undo and redo.
//
// Where edits run. Every function here runs on the event bus's delivery
// thread (runOnEventThread, ListenerCenter.h): called elsewhere, it hands the
// edit over and waits for it; called on that thread (from an event handler or
// a data-model notification), it runs at once. Edits, the notifications they
// send and event delivery therefore never run at the same time. The model
// stays readable from any thread while edits run. Never edit from a thread
// the delivery thread may be waiting for: not from inside a Miravel callback
// (the clip thumbnail service's change tracking, running there, may wait for
// the audio builder's worker, which calls onAudioThumbnailData), nor while
// holding a lock that an event handler or a callback takes.
//
// What an edit does, in order: it changes the model; it notifies the
// listeners registered (IDmCallbackSource) on the objects concerned, each
// asked by name for the callback interface, outside the data model's locks;
// it publishes its event key on defaultEventBus() with a DmEditEvent. Being
// published from the delivery thread, the event is delivered after the edit
// has returned there.
//
// Notifications and events, by edit:
//   setClipProperty, sound keys: on the sound-carrying clip's listeners
//     IDmAudioClipCallback::onAudioPropertyChanged(clip, key) and
//     IDmAudioTimelineClipCallback::onTimelineClipPropertyChanged(clip, key),
//     then for audioKey::streamId IDmAudioClipCallback::onAudioStreamReplaced;
//     publishes clipEventKey::audioPropertyChanged.
//   setClipProperty, clipKey::enable: on the clip's listeners, then on its
//     linked audio clip's, onTimelineClipPropertyChanged(clip, key) and
//     IDmClipCallback::onClipPropertyChanged(clip, key); publishes
//     clipEventKey::basePropertyChanged.
//   setTrackProperty: IDmTrackCallback::onTrackPropertyChanged(track, key);
//     publishes timelineEventKey::trackPropertyChanged.
//   setClipVolumeKeyframes, setClipDucking: on the sound-carrying clip's
//     listeners IDmEffectCallback::onEffectAdded, onEffectRemoved, or
//     onKeyframesChanged (volume) / onEffectChanged (ducking); setClipReverse:
//     onEffectAdded or onEffectRemoved, then the sound-key notifications of
//     audioReversePlayKey::enable. All three publish
//     clipEventKey::effectPropertyChanged.
//   setClipSpeedParts: IDmVideoAudioBaseClipCallback::onSpeedChanged(clip) on
//     the clip's listeners, then on its linked clip's; publishes
//     clipEventKey::speedChanged.
//   moveClip / trimClip: onTimelineClipPropertyChanged with clipKey::
//     timelineBegin and timelineEnd (move) or markIn, markOut and timelineEnd
//     (trim), on the clip's listeners, then on its linked clip's; a move then
//     tells the timeline's listeners IDmTimelineCallback::onClipMoved;
//     publishes clipEventKey::timelineClipPropertyChanged.
//   addClip / removeClip / moveClipToTrack: IDmTimelineCallback::onClipAdded /
//     onClipRemoved / onClipMoved(timeline, clip) on the timeline's listeners;
//     publishes timelineEventKey::dataChanged.
//   undoTimelineEdit / redoTimelineEdit: the notifications of the edit undone
//     or redone (as that edit itself, with the values it brings back), then
//     publishes undoRedoEventKey::undoEvent / redoEvent and then
//     undoRedoEventKey::stackChanged.
//   closeTimeline: IDmTimelineCallback::onTimelineGone(timeline) on the
//     timeline's listeners; publishes timelineEventKey::dataChanged.
// An edit that would change nothing (the value it sets is the value already
// there) returns 0 and does nothing: no notification, no event, no history.
//
// Clips. A video clip whose media has sound carries it in a linked audio clip
// (getBaseAudioClip). Sound keys and the audio effects given on the video
// clip apply to the linked clip, and their notifications go to the linked
// clip's listeners. Range, speed, enable and placing edits apply to the video
// clip and its linked clip together; given the linked clip, they apply to its
// video clip. A clip on an audio track carries its own sound; a video clip
// without sound has no sound keys or audio effects to edit.
//
// History. Each timeline keeps its own undo and redo stacks; a new edit
// forgets what could be redone. A clip taken off its track (removed, or added
// and then undone) stays alive until the timeline dies, so undo and redo put
// the same clip object back, and a clip pointer read from the timeline stays
// valid while the timeline lives.
//
// Results: 0 on success; 1001 for a bad argument (null, a clip, track or
// timeline not made by createTimeline, a clip on no timeline, a closed
// timeline, an unknown key, a value of the wrong kind or out of range);
// 1002 when there is nothing to undo or redo. An exception thrown while
// editing (out of memory) reaches the caller.
#pragma once

#include <cstdint>
#include <vector>

#include "DataModel/DataModel.h"
#include "DataModel/DmTimeline.h"
#include "ZorPlatformExport.h"

namespace ZOR {

constexpr int32_t kDmEditOk = 0;
constexpr int32_t kDmEditNothingToUndo = 1002;

// What every edit publishes with its event key (copied into the event). The
// pointers take no reference: a subscriber may compare them, and use them only
// while it holds the timeline.
struct DmEditEvent {
    IDmTimeline* timeline = nullptr;  // the timeline edited
    IDmTrack* track = nullptr;        // the track of setTrackProperty; null otherwise
    IDmClip* clip = nullptr;          // the clip the notifications named first; null when none
    const char* key = nullptr;        // the property key set (static text); null when none
};

// Sets a property of clip:
//   audioKey::volume (Double, dB), audioKey::mute (Bool), audioKey::streamId
//   (Int: a container stream index the media has as audio, -1 for the best),
//   clipVolumeKey::volumeGain (Double, dB), audioLoudness::enable (Bool),
//   audioLoudness::gain (Double, linear, >= 0), audioReversePlayKey::enable
//   (Bool; the property only, see setClipReverse), clipKey::enable (Bool).
// Numbers may be given as Int or Double; flags as any kind but None.
ZOR_PLATFORM_API int32_t setClipProperty(IDmClip* clip, const char* key, const ZorProperty& value);

// Sets trackKey::mute, trackKey::visible or trackKey::solo of track.
ZOR_PLATFORM_API int32_t setTrackProperty(IDmTrack* track, const char* key, bool value);

// The volume keyframes of clip's sound (effect 4110, property 1): created
// when there were none, removed when keyframes is empty. Times in clip time
// (cns), not decreasing; levels in dB, finite.
ZOR_PLATFORM_API int32_t setClipVolumeKeyframes(IDmClip* clip, const std::vector<DmKeyframeDesc>& keyframes);

// The ducking of clip's sound (effect 4109): present or not, on or off, depth
// and fade ratio in [0, 1], fade in seconds (>= 0).
ZOR_PLATFORM_API int32_t setClipDucking(IDmClip* clip, const DmDuckingDesc& ducking);

// Plays clip's sound backwards or not: effect 4139 (value 0 is 1) is present
// exactly while audioReversePlayKey::enable is true.
ZOR_PLATFORM_API int32_t setClipReverse(IDmClip* clip, bool reverse);

// The speed parts of clip (DmSpeedPartDesc: clip time, speed >= 0, finite);
// any order, not overlapping. An empty list leaves the constant speed.
ZOR_PLATFORM_API int32_t setClipSpeedParts(IDmClip* clip, const std::vector<DmSpeedPartDesc>& parts);

// Moves clip on its track to begin at begin (cns, >= 0), keeping its duration.
ZOR_PLATFORM_API int32_t moveClip(IDmClip* clip, int64_t begin);

// Uses [markIn, markOut] of the media (0 <= markIn <= markOut). The clip keeps
// its begin; its end follows, keeping the ratio of timeline time to media
// time the clip had (1:1 when it used no media time).
ZOR_PLATFORM_API int32_t trimClip(IDmClip* clip, int64_t markIn, int64_t markOut);

// Makes a clip of desc (as createTimeline would) and puts it at clipIndex of
// track trackIndex (-1, or the clip count: at the end). *added, when given,
// receives the clip (no reference taken: the timeline keeps it).
ZOR_PLATFORM_API int32_t addClip(IDmTimeline* timeline, int32_t trackIndex, int32_t clipIndex, const DmClipDesc& desc,
                                 IDmClip** added);

// Takes clip off its track.
ZOR_PLATFORM_API int32_t removeClip(IDmClip* clip);

// Moves clip to clipIndex of track trackIndex, a track of the same kind (-1,
// or the number of other clips there: at the end). The index counts the
// track's clips without this one.
ZOR_PLATFORM_API int32_t moveClipToTrack(IDmClip* clip, int32_t trackIndex, int32_t clipIndex);

// Undoes the last edit of timeline not undone yet / redoes the last one undone.
ZOR_PLATFORM_API int32_t undoTimelineEdit(IDmTimeline* timeline);
ZOR_PLATFORM_API int32_t redoTimelineEdit(IDmTimeline* timeline);
// How many edits can be undone / redone now; 0 for a bad timeline.
ZOR_PLATFORM_API int32_t undoableEditCount(IDmTimeline* timeline);
ZOR_PLATFORM_API int32_t redoableEditCount(IDmTimeline* timeline);

// Closes timeline: its listeners hear onTimelineGone, its history is
// forgotten, and every edit of it returns 1001 from then on. The timeline
// stays readable until its last reference goes.
ZOR_PLATFORM_API int32_t closeTimeline(IDmTimeline* timeline);

}  // namespace ZOR
