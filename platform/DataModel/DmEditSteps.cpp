#include "DmEditSteps.h"

#include <cstring>
#include <utility>

#include "DataModel/DmKeyTexts.h"
#include "DmTimelineObject.h"
#include "DmTrack.h"

ZOR_LOG_SOURCE("platform/DataModel/DmEditSteps")

namespace ZOR {

namespace {

bool is(const char* key, const char* text) { return std::strcmp(key, text) == 0; }

IDmClip* faceOf(DmTimelineClip* clip) { return clip != nullptr ? static_cast<IDmClip*>(clip) : nullptr; }
IDmTimeline* faceOf(DmTimeline* timeline) {
    return timeline != nullptr ? static_cast<IDmTimeline*>(timeline) : nullptr;
}

template <class Interface>
Interface* as(IDmBaseObj* listener, const char* name) {
    return static_cast<Interface*>(listener->queryInterface(name));
}

// Calls call(listener) for the listeners of list: those registered when the
// notification starts, each only if it is still registered when its turn
// comes. No lock is held during the calls, so a listener may register or
// unregister (on this object or any other) while being called.
template <class Call>
void forEachListener(DmCallbackList& list, Call&& call) {
    for (IDmBaseObj* listener : list.listeners())
        if (list.contains(listener)) call(listener);
}

// The clip and then its linked clip (when it has one).
template <class Call>
void forClipAndLinked(DmTimelineClip* clip, Call&& call) {
    call(clip);
    if (DmTimelineClip* linked = clip->linkedAudioClip()) call(linked);
}

void notifySoundProperty(DmTimelineClip* clip, const char* key, bool streamReplaced) {
    IDmClip* face = faceOf(clip);
    forEachListener(clip->callbacks(), [&](IDmBaseObj* listener) {
        auto* audio = as<IDmAudioClipCallback>(listener, "IDmAudioClipCallback");
        if (audio != nullptr) audio->onAudioPropertyChanged(face, key);
        if (auto* placed = as<IDmAudioTimelineClipCallback>(listener, "IDmAudioTimelineClipCallback"))
            placed->onTimelineClipPropertyChanged(face, key);
        if (streamReplaced && audio != nullptr) audio->onAudioStreamReplaced(face);
    });
}

void notifyBaseProperty(DmTimelineClip* primary, const char* key) {
    forClipAndLinked(primary, [key](DmTimelineClip* clip) {
        IDmClip* face = faceOf(clip);
        forEachListener(clip->callbacks(), [&](IDmBaseObj* listener) {
            if (auto* placed = as<IDmAudioTimelineClipCallback>(listener, "IDmAudioTimelineClipCallback"))
                placed->onTimelineClipPropertyChanged(face, key);
            if (auto* base = as<IDmClipCallback>(listener, "IDmClipCallback")) base->onClipPropertyChanged(face, key);
        });
    });
}

void notifyRange(DmTimelineClip* primary, const std::vector<const char*>& keys) {
    forClipAndLinked(primary, [&keys](DmTimelineClip* clip) {
        IDmClip* face = faceOf(clip);
        forEachListener(clip->callbacks(), [&](IDmBaseObj* listener) {
            if (auto* placed = as<IDmAudioTimelineClipCallback>(listener, "IDmAudioTimelineClipCallback"))
                for (const char* key : keys) placed->onTimelineClipPropertyChanged(face, key);
        });
    });
}

void notifySpeed(DmTimelineClip* primary) {
    forClipAndLinked(primary, [](DmTimelineClip* clip) {
        IDmClip* face = faceOf(clip);
        forEachListener(clip->callbacks(), [&](IDmBaseObj* listener) {
            if (auto* media = as<IDmVideoAudioBaseClipCallback>(listener, "IDmVideoAudioBaseClipCallback"))
                media->onSpeedChanged(face);
        });
    });
}

enum class EffectChange { Added, Removed, Changed, KeyframesChanged };

void notifyEffect(DmTimelineClip* clip, DmEffect* effect, EffectChange change) {
    IDmEffect* face = static_cast<IDmEffect*>(effect);
    forEachListener(clip->callbacks(), [&](IDmBaseObj* listener) {
        auto* callback = as<IDmEffectCallback>(listener, "IDmEffectCallback");
        if (callback == nullptr) return;
        switch (change) {
            case EffectChange::Added:
                callback->onEffectAdded(face);
                break;
            case EffectChange::Removed:
                callback->onEffectRemoved(face);
                break;
            case EffectChange::Changed:
                callback->onEffectChanged(face);
                break;
            case EffectChange::KeyframesChanged:
                callback->onKeyframesChanged(face);
                break;
        }
    });
}

enum class TimelineChange { ClipAdded, ClipRemoved, ClipMoved, Gone };

void notifyTimeline(DmTimeline* timeline, TimelineChange change, DmTimelineClip* clip) {
    IDmTimeline* face = faceOf(timeline);
    IDmClip* clipFace = faceOf(clip);
    forEachListener(timeline->callbacks(), [&](IDmBaseObj* listener) {
        auto* callback = as<IDmTimelineCallback>(listener, "IDmTimelineCallback");
        if (callback == nullptr) return;
        switch (change) {
            case TimelineChange::ClipAdded:
                callback->onClipAdded(face, clipFace);
                break;
            case TimelineChange::ClipRemoved:
                callback->onClipRemoved(face, clipFace);
                break;
            case TimelineChange::ClipMoved:
                callback->onClipMoved(face, clipFace);
                break;
            case TimelineChange::Gone:
                callback->onTimelineGone(face);
                break;
        }
    });
}

DmEditEvent clipEvent(DmTimeline* timeline, DmTimelineClip* clip, const char* key) {
    DmEditEvent event;
    event.timeline = faceOf(timeline);
    event.clip = faceOf(clip);
    event.key = key;
    return event;
}

// ---------------------------------------------------------------------------
// Steps

class ClipPropertyStep final : public DmEditStep {
public:
    ClipPropertyStep(DmTimeline* timeline, DmTimelineClip* clip, const char* key, ZorProperty before, ZorProperty after)
        : timeline_(timeline), clip_(clip), key_(key), before_(before), after_(after) {}

    void apply(bool forward) override {
        const ZorProperty& value = forward ? after_ : before_;
        if (is(key_, keytext::kAudioStreamId)) {
            if (clip_->replaceAudioStream(static_cast<int32_t>(value.intValue)) != 0)
                ZOR_LOG(IBsLogger::Warning, "ZOR::ClipPropertyStep::apply",
                        "clip '%s' cannot use audio stream %lld again", clip_->name(),
                        static_cast<long long>(value.intValue));
            notifySoundProperty(clip_, key_, true);
        } else if (is(key_, keytext::kClipEnable)) {
            forClipAndLinked(clip_, [&](DmTimelineClip* clip) { clip->setOwnProperty(key_, value); });
            notifyBaseProperty(clip_, key_);
        } else {
            clip_->setOwnProperty(key_, value);
            notifySoundProperty(clip_, key_, false);
        }
    }

    const char* eventKey() const override {
        return is(key_, keytext::kClipEnable) ? clipEventKey::basePropertyChanged : clipEventKey::audioPropertyChanged;
    }

    DmEditEvent event() const override { return clipEvent(timeline_, clip_, key_); }

private:
    DmTimeline* const timeline_;
    DmTimelineClip* const clip_;
    const char* const key_;  // static text
    const ZorProperty before_;
    const ZorProperty after_;
};

class TrackPropertyStep final : public DmEditStep {
public:
    TrackPropertyStep(DmTimeline* timeline, DmTrack* track, const char* key, bool before, bool after)
        : timeline_(timeline), track_(track), key_(key), before_(before), after_(after) {}

    void apply(bool forward) override {
        track_->setProperty(key_, boolProperty(forward ? after_ : before_));
        IDmTrack* face = static_cast<IDmTrack*>(track_);
        forEachListener(track_->callbacks(), [&](IDmBaseObj* listener) {
            if (auto* callback = as<IDmTrackCallback>(listener, "IDmTrackCallback"))
                callback->onTrackPropertyChanged(face, key_);
        });
    }

    const char* eventKey() const override { return timelineEventKey::trackPropertyChanged; }

    DmEditEvent event() const override {
        DmEditEvent event;
        event.timeline = faceOf(timeline_);
        event.track = static_cast<IDmTrack*>(track_);
        event.key = key_;
        return event;
    }

private:
    DmTimeline* const timeline_;
    DmTrack* const track_;
    const char* const key_;
    const bool before_;
    const bool after_;
};

class EffectStep final : public DmEditStep {
public:
    EffectStep(DmTimeline* timeline, DmTimelineClip* clip, int32_t type, DmEffectState before, DmEffectState after)
        : timeline_(timeline), clip_(clip), type_(type), before_(std::move(before)), after_(std::move(after)) {}

    void apply(bool forward) override {
        const DmEffectState& from = forward ? before_ : after_;
        const DmEffectState& to = forward ? after_ : before_;
        if (to.effect == nullptr) {
            if (from.effect == nullptr) return;
            clip_->removeEffect(from.effect);
            notifyEffect(clip_, from.effect, EffectChange::Removed);
            return;
        }
        to.effect->setSettings(to.settings);
        if (from.effect != to.effect) {
            clip_->addEffect(to.effect);
            notifyEffect(clip_, to.effect, EffectChange::Added);
        } else {
            notifyEffect(clip_, to.effect,
                         type_ == DmEffectVolume ? EffectChange::KeyframesChanged : EffectChange::Changed);
        }
    }

    const char* eventKey() const override { return clipEventKey::effectPropertyChanged; }
    DmEditEvent event() const override { return clipEvent(timeline_, clip_, nullptr); }

private:
    DmTimeline* const timeline_;
    DmTimelineClip* const clip_;
    const int32_t type_;
    const DmEffectState before_;
    const DmEffectState after_;
};

class CombinedStep final : public DmEditStep {
public:
    CombinedStep(std::vector<std::shared_ptr<DmEditStep>> steps, const char* key)
        : steps_(std::move(steps)), key_(key) {}

    void apply(bool forward) override {
        for (const std::shared_ptr<DmEditStep>& step : steps_) step->apply(forward);
    }
    const char* eventKey() const override { return key_; }
    DmEditEvent event() const override { return steps_.empty() ? DmEditEvent{} : steps_.front()->event(); }

private:
    const std::vector<std::shared_ptr<DmEditStep>> steps_;
    const char* const key_;
};

class SpeedStep final : public DmEditStep {
public:
    SpeedStep(DmTimeline* timeline, DmTimelineClip* clip, std::vector<DmSpeedPartDesc> before,
              std::vector<DmSpeedPartDesc> after)
        : timeline_(timeline), clip_(clip), before_(std::move(before)), after_(std::move(after)) {}

    void apply(bool forward) override {
        clip_->setSpeedParts(forward ? after_ : before_);
        notifySpeed(clip_);
    }
    const char* eventKey() const override { return clipEventKey::speedChanged; }
    DmEditEvent event() const override { return clipEvent(timeline_, clip_, nullptr); }

private:
    DmTimeline* const timeline_;
    DmTimelineClip* const clip_;
    const std::vector<DmSpeedPartDesc> before_;
    const std::vector<DmSpeedPartDesc> after_;
};

class RangeStep final : public DmEditStep {
public:
    RangeStep(DmTimeline* timeline, DmTimelineClip* clip, DmTimelineClip::Range before, DmTimelineClip::Range after,
              bool move)
        : timeline_(timeline), clip_(clip), before_(before), after_(after), move_(move) {}

    void apply(bool forward) override {
        clip_->setTimes(forward ? after_ : before_);
        if (move_) {
            notifyRange(clip_, {keytext::kClipTimelineBegin, keytext::kClipTimelineEnd});
            notifyTimeline(timeline_, TimelineChange::ClipMoved, clip_);
        } else {
            notifyRange(clip_, {keytext::kClipMarkIn, keytext::kClipMarkOut, keytext::kClipTimelineEnd});
        }
    }
    const char* eventKey() const override { return clipEventKey::timelineClipPropertyChanged; }
    DmEditEvent event() const override { return clipEvent(timeline_, clip_, nullptr); }

private:
    DmTimeline* const timeline_;
    DmTimelineClip* const clip_;
    const DmTimelineClip::Range before_;
    const DmTimelineClip::Range after_;
    const bool move_;
};

class PlaceStep final : public DmEditStep {
public:
    PlaceStep(DmTimeline* timeline, DmTimelineClip* clip, DmClipSpot before, DmClipSpot after)
        : timeline_(timeline), clip_(clip), before_(before), after_(after) {}

    void apply(bool forward) override {
        const DmClipSpot& from = forward ? before_ : after_;
        const DmClipSpot& to = forward ? after_ : before_;
        if (from.track != nullptr) {
            // Kept alive by the timeline from now on, off the track or not.
            timeline_->retainClip(clip_);
            from.track->removeClip(clip_);
        }
        if (to.track != nullptr) to.track->insertClip(clip_, to.index);
        const TimelineChange change = from.track == nullptr ? TimelineChange::ClipAdded
                                      : to.track == nullptr ? TimelineChange::ClipRemoved
                                                            : TimelineChange::ClipMoved;
        notifyTimeline(timeline_, change, clip_);
    }
    const char* eventKey() const override { return timelineEventKey::dataChanged; }
    DmEditEvent event() const override { return clipEvent(timeline_, clip_, nullptr); }

private:
    DmTimeline* const timeline_;
    DmTimelineClip* const clip_;
    const DmClipSpot before_;
    const DmClipSpot after_;
};

}  // namespace

std::shared_ptr<DmEditStep> makeClipPropertyStep(DmTimeline* timeline, DmTimelineClip* clip, const char* key,
                                                 const ZorProperty& before, const ZorProperty& after) {
    return std::make_shared<ClipPropertyStep>(timeline, clip, key, before, after);
}

std::shared_ptr<DmEditStep> makeTrackPropertyStep(DmTimeline* timeline, DmTrack* track, const char* key, bool before,
                                                  bool after) {
    return std::make_shared<TrackPropertyStep>(timeline, track, key, before, after);
}

std::shared_ptr<DmEditStep> makeEffectStep(DmTimeline* timeline, DmTimelineClip* clip, int32_t type,
                                           DmEffectState before, DmEffectState after) {
    return std::make_shared<EffectStep>(timeline, clip, type, std::move(before), std::move(after));
}

std::shared_ptr<DmEditStep> makeCombinedStep(std::vector<std::shared_ptr<DmEditStep>> steps, const char* eventKey) {
    return std::make_shared<CombinedStep>(std::move(steps), eventKey);
}

std::shared_ptr<DmEditStep> makeSpeedStep(DmTimeline* timeline, DmTimelineClip* clip,
                                          std::vector<DmSpeedPartDesc> before, std::vector<DmSpeedPartDesc> after) {
    return std::make_shared<SpeedStep>(timeline, clip, std::move(before), std::move(after));
}

std::shared_ptr<DmEditStep> makeRangeStep(DmTimeline* timeline, DmTimelineClip* clip, DmTimelineClip::Range before,
                                          DmTimelineClip::Range after, bool move) {
    return std::make_shared<RangeStep>(timeline, clip, before, after, move);
}

std::shared_ptr<DmEditStep> makePlaceStep(DmTimeline* timeline, DmTimelineClip* clip, DmClipSpot before,
                                          DmClipSpot after) {
    return std::make_shared<PlaceStep>(timeline, clip, before, after);
}

void notifyTimelineGone(DmTimeline* timeline) { notifyTimeline(timeline, TimelineChange::Gone, nullptr); }

}  // namespace ZOR
