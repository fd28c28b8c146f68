// The edits of DmEdit.h and the data model's event keys.
#include "DataModel/DmEdit.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <utility>

#include "DataModel/DmKeyTexts.h"
#include "DmEditSteps.h"
#include "DmTimelineObject.h"
#include "DmTimelineClip.h"
#include "DmTrack.h"
#include "ListenerCenter/ListenerCenter.h"

ZOR_LOG_SOURCE("platform/DataModel/DmEdit")

namespace ZOR {

// ---------------------------------------------------------------------------
// Event keys

const char* const timelineEventKey::dataChanged = "timeline.dataChanged";
const char* const timelineEventKey::trackPropertyChanged = "timeline.trackPropertyChanged";

const char* const clipEventKey::videoPropertyChanged = "clip.videoPropertyChanged";
const char* const clipEventKey::audioPropertyChanged = "clip.audioPropertyChanged";
const char* const clipEventKey::basePropertyChanged = "clip.basePropertyChanged";
const char* const clipEventKey::multiCameraPropertyChanged = "clip.multiCameraPropertyChanged";
const char* const clipEventKey::speedChanged = "clip.speedChanged";
const char* const clipEventKey::effectPropertyChanged = "clip.effectPropertyChanged";
const char* const clipEventKey::timelineClipPropertyChanged = "clip.timelineClipPropertyChanged";
const char* const clipEventKey::clipRelink = "clip.clipRelink";

const char* const undoRedoEventKey::undoEvent = "undoRedo.undo";
const char* const undoRedoEventKey::redoEvent = "undoRedo.redo";
const char* const undoRedoEventKey::stackChanged = "undoRedo.stackChanged";

namespace {

// Registers every key of the data model on the default bus, once.
void registerEventKeys() {
    static const bool registered = [] {
        IEventBus* bus = defaultEventBus();
        for (const char* key :
             {timelineEventKey::dataChanged, timelineEventKey::trackPropertyChanged, clipEventKey::videoPropertyChanged,
              clipEventKey::audioPropertyChanged, clipEventKey::basePropertyChanged,
              clipEventKey::multiCameraPropertyChanged, clipEventKey::speedChanged, clipEventKey::effectPropertyChanged,
              clipEventKey::timelineClipPropertyChanged, clipEventKey::clipRelink, undoRedoEventKey::undoEvent,
              undoRedoEventKey::redoEvent, undoRedoEventKey::stackChanged})
            bus->registerKey(key, 0);
        return true;
    }();
    (void)registered;
}

// The keys are registered when the library is loaded, so that subscribers
// find them before any edit; the bus starts no thread for that.
[[maybe_unused]] const bool kKeysRegisteredAtLoad = (registerEventKeys(), true);

// ---------------------------------------------------------------------------
// Running edits

// Runs edit (returning its result) on the event thread, and waits for it.
template <class Edit>
int32_t runEdit(Edit&& edit) {
    registerEventKeys();
    int32_t result = kResultFailure;
    const int32_t ran = runOnEventThread([&] { result = edit(); });
    return ran == 0 ? result : ran;
}

void publishEvent(const char* key, const DmEditEvent& event) {
    const int32_t published = defaultEventBus()->publish(key, &event, static_cast<int32_t>(sizeof event));
    if (published != 0) ZOR_LOG(IBsLogger::Info, "ZOR::DmEdit::publishEvent", "'%s' not published: %d", key, published);
}

// Records step, applies it (model, then notifications) and publishes its
// key. The step is recorded first: an edit made by a listener while being
// notified comes after it in the history.
int32_t commit(DmTimeline* timeline, const std::shared_ptr<DmEditStep>& step) {
    timeline->recordEdit(step);
    step->apply(true);
    publishEvent(step->eventKey(), step->event());
    return kDmEditOk;
}

// One reference on a timeline for the length of an edit.
class TimelineHold {
public:
    explicit TimelineHold(DmTimeline* timeline)
        : timeline_(timeline != nullptr && timeline->AddRef() > 0 ? timeline : nullptr) {}
    ~TimelineHold() {
        if (timeline_ != nullptr) timeline_->Release();
    }
    TimelineHold(const TimelineHold&) = delete;
    TimelineHold& operator=(const TimelineHold&) = delete;
    // The timeline when it is alive and open for edits; null otherwise.
    DmTimeline* open() const { return timeline_ != nullptr && !timeline_->isClosed() ? timeline_ : nullptr; }

private:
    DmTimeline* const timeline_;
};

DmTimelineClip* timelineClipOf(IDmClip* clip) {
    return clip != nullptr ? dynamic_cast<DmTimelineClip*>(clip) : nullptr;
}

DmTimeline* timelineOf(IDmTimeline* timeline) {
    return timeline != nullptr ? dynamic_cast<DmTimeline*>(timeline) : nullptr;
}

// The primary clip of clip (its video clip for a linked clip), or null for a
// clip not made by createTimeline.
DmTimelineClip* primaryOf(IDmClip* clip) {
    DmTimelineClip* found = timelineClipOf(clip);
    return found != nullptr ? found->primary() : nullptr;
}

// ---------------------------------------------------------------------------
// Values

enum class ValueKind { Flag, Level, Gain, Stream };

struct ClipKey {
    const char* text;
    ValueKind kind;
    bool sound;  // carried by the sound-carrying clip
};

constexpr ClipKey kClipKeys[] = {
    {keytext::kAudioVolume, ValueKind::Level, true},      {keytext::kAudioMute, ValueKind::Flag, true},
    {keytext::kAudioStreamId, ValueKind::Stream, true},   {keytext::kClipVolumeGain, ValueKind::Level, true},
    {keytext::kLoudnessEnable, ValueKind::Flag, true},    {keytext::kLoudnessGain, ValueKind::Gain, true},
    {keytext::kReversePlayEnable, ValueKind::Flag, true}, {keytext::kClipEnable, ValueKind::Flag, false},
};

const ClipKey* clipKeyOf(const char* key) {
    for (const ClipKey& known : kClipKeys)
        if (std::strcmp(known.text, key) == 0) return &known;
    return nullptr;
}

// value in the form the key keeps; false when it does not suit the key.
bool canonicalValue(ValueKind kind, const ZorProperty& value, ZorProperty* out) {
    if (value.kind == ZorProperty::None) return false;
    switch (kind) {
        case ValueKind::Flag:
            *out = boolProperty(value.boolValue());
            return true;
        case ValueKind::Level:
        case ValueKind::Gain: {
            if (value.kind != ZorProperty::Int && value.kind != ZorProperty::Double) return false;
            const double number =
                value.kind == ZorProperty::Double ? value.doubleValue : static_cast<double>(value.intValue);
            if (!std::isfinite(number) || (kind == ValueKind::Gain && number < 0.0)) return false;
            *out = doubleProperty(number);
            return true;
        }
        case ValueKind::Stream: {
            int64_t stream = 0;
            if (value.kind == ZorProperty::Int) {
                stream = value.intValue;
            } else if (value.kind == ZorProperty::Double && std::isfinite(value.doubleValue) &&
                       value.doubleValue == std::trunc(value.doubleValue) && std::fabs(value.doubleValue) < 1e9) {
                stream = static_cast<int64_t>(value.doubleValue);
            } else {
                return false;
            }
            if (stream < -1 || stream > INT32_MAX) return false;
            *out = intProperty(stream);
            return true;
        }
    }
    return false;
}

bool sameValue(const ZorProperty& a, const ZorProperty& b) {
    if (a.kind != b.kind) return false;
    if (a.kind == ZorProperty::Double) return a.doubleValue == b.doubleValue;
    return a.intValue == b.intValue;
}

bool sameParts(const std::vector<DmSpeedPartDesc>& a, const std::vector<DmSpeedPartDesc>& b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (a[i].begin != b[i].begin || a[i].end != b[i].end || a[i].speed != b[i].speed) return false;
    return true;
}

bool sameState(const DmEffectState& a, const DmEffectState& b) {
    if (a.effect != b.effect) return false;
    return a.effect == nullptr || a.settings == b.settings;
}

DmEffectState currentState(DmTimelineClip* clip, int32_t type) {
    DmEffectState state;
    state.effect = clip->currentEffect(type);
    if (state.effect != nullptr) state.settings = state.effect->settings();
    return state;
}

// The state an effect of type should have: present with settings (the
// effect applied now, or a new one of the clip), or absent.
DmEffectState wantedState(DmTimelineClip* clip, int32_t type, bool present, DmEffect::Settings settings) {
    DmEffectState state;
    if (!present) return state;
    state.effect = clip->currentEffect(type);
    if (state.effect == nullptr) state.effect = clip->makeEffect(type, settings);
    state.settings = std::move(settings);
    return state;
}

// The step that brings clip's effect of type to wanted; null when it is so
// already. A new effect made for wanted stays unused then (the clip keeps it).
std::shared_ptr<DmEditStep> effectStepTo(DmTimeline* timeline, DmTimelineClip* clip, int32_t type, bool present,
                                         DmEffect::Settings settings) {
    DmEffectState before = currentState(clip, type);
    if (!present && before.effect == nullptr) return nullptr;
    if (present && before.effect != nullptr && before.settings == settings) return nullptr;
    DmEffectState after = wantedState(clip, type, present, std::move(settings));
    if (sameState(before, after)) return nullptr;
    return makeEffectStep(timeline, clip, type, std::move(before), std::move(after));
}

// The sound-carrying clip of clip and its open timeline; false when either is missing.
bool soundClipOf(IDmClip* clip, DmTimelineClip** sound, DmTimelineClip** primary) {
    *primary = primaryOf(clip);
    *sound = *primary != nullptr ? (*primary)->soundCarrier() : nullptr;
    return *sound != nullptr;
}

}  // namespace

// ---------------------------------------------------------------------------
// Properties

int32_t setClipProperty(IDmClip* clip, const char* key, const ZorProperty& value) {
    if (clip == nullptr || key == nullptr) return kResultFailure;
    return runEdit([&]() -> int32_t {
        const ClipKey* known = clipKeyOf(key);
        DmTimelineClip* primary = primaryOf(clip);
        if (known == nullptr || primary == nullptr) return kResultFailure;
        TimelineHold hold(primary->owningTimeline());
        DmTimeline* timeline = hold.open();
        if (timeline == nullptr) return kResultFailure;
        DmTimelineClip* target = known->sound ? primary->soundCarrier() : primary;
        if (target == nullptr) return kResultFailure;
        ZorProperty after;
        if (!canonicalValue(known->kind, value, &after)) return kResultFailure;

        ZorProperty before;
        if (known->kind == ValueKind::Stream) {
            before = intProperty(target->requestedAudioStream());
        } else if (target->getOwnProperty(known->text, &before) != 0) {
            return kResultFailure;
        }
        if (sameValue(before, after)) return kDmEditOk;
        // A stream the media does not have is refused before anything changes.
        if (known->kind == ValueKind::Stream && target->replaceAudioStream(static_cast<int32_t>(after.intValue)) != 0)
            return kResultFailure;
        return commit(timeline, makeClipPropertyStep(timeline, target, known->text, before, after));
    });
}

int32_t setTrackProperty(IDmTrack* track, const char* key, bool value) {
    if (track == nullptr || key == nullptr) return kResultFailure;
    return runEdit([&]() -> int32_t {
        auto* found = dynamic_cast<DmTrack*>(track);
        if (found == nullptr) return kResultFailure;
        const char* text = nullptr;
        for (const char* known : {keytext::kTrackMute, keytext::kTrackVisible, keytext::kTrackSolo})
            if (std::strcmp(known, key) == 0) text = known;
        if (text == nullptr) return kResultFailure;
        TimelineHold hold(found->timeline());
        DmTimeline* timeline = hold.open();
        if (timeline == nullptr) return kResultFailure;
        ZorProperty before;
        if (found->getProperty(text, &before) != 0) return kResultFailure;
        if (before.boolValue() == value) return kDmEditOk;
        return commit(timeline, makeTrackPropertyStep(timeline, found, text, before.boolValue(), value));
    });
}

// ---------------------------------------------------------------------------
// Effects

int32_t setClipVolumeKeyframes(IDmClip* clip, const std::vector<DmKeyframeDesc>& keyframes) {
    if (clip == nullptr) return kResultFailure;
    for (size_t i = 0; i < keyframes.size(); ++i) {
        if (!std::isfinite(keyframes[i].db)) return kResultFailure;
        if (i > 0 && keyframes[i].time < keyframes[i - 1].time) return kResultFailure;
    }
    return runEdit([&]() -> int32_t {
        DmTimelineClip* sound = nullptr;
        DmTimelineClip* primary = nullptr;
        if (!soundClipOf(clip, &sound, &primary)) return kResultFailure;
        TimelineHold hold(primary->owningTimeline());
        DmTimeline* timeline = hold.open();
        if (timeline == nullptr) return kResultFailure;
        std::shared_ptr<DmEditStep> step =
            effectStepTo(timeline, sound, DmEffectVolume, !keyframes.empty(), volumeSettings(keyframes));
        return step != nullptr ? commit(timeline, step) : kDmEditOk;
    });
}

int32_t setClipDucking(IDmClip* clip, const DmDuckingDesc& ducking) {
    if (clip == nullptr) return kResultFailure;
    if (ducking.present) {
        if (!std::isfinite(ducking.depth) || ducking.depth < 0.0 || ducking.depth > 1.0) return kResultFailure;
        if (!std::isfinite(ducking.fadeRatio) || ducking.fadeRatio < 0.0 || ducking.fadeRatio > 1.0)
            return kResultFailure;
        if (!std::isfinite(ducking.fade) || ducking.fade < 0.0) return kResultFailure;
    }
    return runEdit([&]() -> int32_t {
        DmTimelineClip* sound = nullptr;
        DmTimelineClip* primary = nullptr;
        if (!soundClipOf(clip, &sound, &primary)) return kResultFailure;
        TimelineHold hold(primary->owningTimeline());
        DmTimeline* timeline = hold.open();
        if (timeline == nullptr) return kResultFailure;
        std::shared_ptr<DmEditStep> step =
            effectStepTo(timeline, sound, DmEffectDucking, ducking.present, duckingSettings(ducking));
        return step != nullptr ? commit(timeline, step) : kDmEditOk;
    });
}

int32_t setClipReverse(IDmClip* clip, bool reverse) {
    if (clip == nullptr) return kResultFailure;
    return runEdit([&]() -> int32_t {
        DmTimelineClip* sound = nullptr;
        DmTimelineClip* primary = nullptr;
        if (!soundClipOf(clip, &sound, &primary)) return kResultFailure;
        TimelineHold hold(primary->owningTimeline());
        DmTimeline* timeline = hold.open();
        if (timeline == nullptr) return kResultFailure;
        std::vector<std::shared_ptr<DmEditStep>> steps;
        if (std::shared_ptr<DmEditStep> effect =
                effectStepTo(timeline, sound, DmEffectReversePlay, reverse, reverseSettings()))
            steps.push_back(std::move(effect));
        ZorProperty before;
        if (sound->getOwnProperty(keytext::kReversePlayEnable, &before) != 0) return kResultFailure;
        if (before.kind != ZorProperty::Bool || before.boolValue() != reverse)
            steps.push_back(
                makeClipPropertyStep(timeline, sound, keytext::kReversePlayEnable, before, boolProperty(reverse)));
        if (steps.empty()) return kDmEditOk;
        return commit(timeline, makeCombinedStep(std::move(steps), clipEventKey::effectPropertyChanged));
    });
}

// ---------------------------------------------------------------------------
// Speed and range

int32_t setClipSpeedParts(IDmClip* clip, const std::vector<DmSpeedPartDesc>& parts) {
    if (clip == nullptr || !speedPartsFault(parts).empty()) return kResultFailure;
    return runEdit([&]() -> int32_t {
        DmTimelineClip* primary = primaryOf(clip);
        if (primary == nullptr) return kResultFailure;
        TimelineHold hold(primary->owningTimeline());
        DmTimeline* timeline = hold.open();
        if (timeline == nullptr) return kResultFailure;
        std::vector<DmSpeedPartDesc> after = parts;
        std::stable_sort(after.begin(), after.end(),
                         [](const DmSpeedPartDesc& a, const DmSpeedPartDesc& b) { return a.begin < b.begin; });
        std::vector<DmSpeedPartDesc> before = primary->speedParts();
        if (sameParts(before, after)) return kDmEditOk;
        return commit(timeline, makeSpeedStep(timeline, primary, std::move(before), std::move(after)));
    });
}

int32_t moveClip(IDmClip* clip, int64_t begin) {
    if (clip == nullptr || begin < 0) return kResultFailure;
    return runEdit([&]() -> int32_t {
        DmTimelineClip* primary = primaryOf(clip);
        if (primary == nullptr) return kResultFailure;
        TimelineHold hold(primary->owningTimeline());
        DmTimeline* timeline = hold.open();
        if (timeline == nullptr) return kResultFailure;
        const DmTimelineClip::Range before = primary->times();
        if (before.begin == begin) return kDmEditOk;
        DmTimelineClip::Range after = before;
        after.begin = begin;
        after.end = begin + (before.end - before.begin);
        return commit(timeline, makeRangeStep(timeline, primary, before, after, true));
    });
}

int32_t trimClip(IDmClip* clip, int64_t markIn, int64_t markOut) {
    if (clip == nullptr || markIn < 0 || markOut < markIn) return kResultFailure;
    return runEdit([&]() -> int32_t {
        DmTimelineClip* primary = primaryOf(clip);
        if (primary == nullptr) return kResultFailure;
        TimelineHold hold(primary->owningTimeline());
        DmTimeline* timeline = hold.open();
        if (timeline == nullptr) return kResultFailure;
        const DmTimelineClip::Range before = primary->times();
        if (before.markIn == markIn && before.markOut == markOut) return kDmEditOk;
        DmTimelineClip::Range after = before;
        after.markIn = markIn;
        after.markOut = markOut;
        const int64_t used = before.markOut - before.markIn;
        const int64_t length = markOut - markIn;
        after.end = used > 0 ? before.begin + std::llround(static_cast<double>(length) *
                                                           static_cast<double>(before.end - before.begin) /
                                                           static_cast<double>(used))
                             : before.begin + length;
        return commit(timeline, makeRangeStep(timeline, primary, before, after, false));
    });
}

// ---------------------------------------------------------------------------
// Clips on tracks

int32_t addClip(IDmTimeline* timeline, int32_t trackIndex, int32_t clipIndex, const DmClipDesc& desc, IDmClip** added) {
    if (added != nullptr) *added = nullptr;
    if (timeline == nullptr || !clipDescriptionFault(desc).empty()) return kResultFailure;
    return runEdit([&]() -> int32_t {
        TimelineHold hold(timelineOf(timeline));
        DmTimeline* open = hold.open();
        DmTrack* track = open != nullptr ? open->trackAt(trackIndex) : nullptr;
        if (track == nullptr) return kResultFailure;
        const int32_t count = track->clipCount();
        const int32_t index = clipIndex == -1 ? count : clipIndex;
        if (index < 0 || index > count) return kResultFailure;
        DmTimelineClip* clip = DmTimelineClip::create(desc, track->trackKind(), DmTimelineClip::Place{});
        // The timeline keeps the clip from now on; the track will hold its own
        // reference while it lists it.
        open->retainClip(clip);
        clip->Release();
        if (added != nullptr) *added = static_cast<IDmClip*>(clip);
        return commit(open, makePlaceStep(open, clip, DmClipSpot{}, DmClipSpot{track, index}));
    });
}

int32_t removeClip(IDmClip* clip) {
    if (clip == nullptr) return kResultFailure;
    return runEdit([&]() -> int32_t {
        DmTimelineClip* primary = primaryOf(clip);
        if (primary == nullptr) return kResultFailure;
        TimelineHold hold(primary->owningTimeline());
        DmTimeline* timeline = hold.open();
        DmTrack* track = primary->owningTrack();
        if (timeline == nullptr || track == nullptr) return kResultFailure;
        const int32_t index = track->indexOf(primary);
        if (index < 0) return kResultFailure;
        return commit(timeline, makePlaceStep(timeline, primary, DmClipSpot{track, index}, DmClipSpot{}));
    });
}

int32_t moveClipToTrack(IDmClip* clip, int32_t trackIndex, int32_t clipIndex) {
    if (clip == nullptr) return kResultFailure;
    return runEdit([&]() -> int32_t {
        DmTimelineClip* primary = primaryOf(clip);
        if (primary == nullptr) return kResultFailure;
        TimelineHold hold(primary->owningTimeline());
        DmTimeline* timeline = hold.open();
        DmTrack* from = primary->owningTrack();
        DmTrack* to = timeline != nullptr ? timeline->trackAt(trackIndex) : nullptr;
        if (from == nullptr || to == nullptr || to->trackKind() != from->trackKind()) return kResultFailure;
        const int32_t fromIndex = from->indexOf(primary);
        if (fromIndex < 0) return kResultFailure;
        const int32_t others = to->clipCount() - (to == from ? 1 : 0);
        const int32_t index = clipIndex == -1 ? others : clipIndex;
        if (index < 0 || index > others) return kResultFailure;
        if (to == from && index == fromIndex) return kDmEditOk;
        return commit(timeline, makePlaceStep(timeline, primary, DmClipSpot{from, fromIndex}, DmClipSpot{to, index}));
    });
}

// ---------------------------------------------------------------------------
// History and closing

namespace {

int32_t undoOrRedo(IDmTimeline* timeline, bool undo) {
    if (timeline == nullptr) return kResultFailure;
    return runEdit([&]() -> int32_t {
        TimelineHold hold(timelineOf(timeline));
        DmTimeline* open = hold.open();
        if (open == nullptr) return kResultFailure;
        std::shared_ptr<DmEditStep> step = undo ? open->takeUndo() : open->takeRedo();
        if (step == nullptr) return kDmEditNothingToUndo;
        step->apply(!undo);
        publishEvent(undo ? undoRedoEventKey::undoEvent : undoRedoEventKey::redoEvent, step->event());
        DmEditEvent stack;
        stack.timeline = timeline;
        publishEvent(undoRedoEventKey::stackChanged, stack);
        return kDmEditOk;
    });
}

}  // namespace

int32_t undoTimelineEdit(IDmTimeline* timeline) { return undoOrRedo(timeline, true); }
int32_t redoTimelineEdit(IDmTimeline* timeline) { return undoOrRedo(timeline, false); }

int32_t undoableEditCount(IDmTimeline* timeline) {
    DmTimeline* found = timelineOf(timeline);
    return found != nullptr ? found->undoCount() : 0;
}

int32_t redoableEditCount(IDmTimeline* timeline) {
    DmTimeline* found = timelineOf(timeline);
    return found != nullptr ? found->redoCount() : 0;
}

int32_t closeTimeline(IDmTimeline* timeline) {
    if (timeline == nullptr) return kResultFailure;
    return runEdit([&]() -> int32_t {
        TimelineHold hold(timelineOf(timeline));
        DmTimeline* open = hold.open();
        if (open == nullptr || !open->close()) return kResultFailure;
        notifyTimelineGone(open);
        DmEditEvent event;
        event.timeline = timeline;
        publishEvent(timelineEventKey::dataChanged, event);
        return kDmEditOk;
    });
}

}  // namespace ZOR
