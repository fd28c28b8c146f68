// The steps of a timeline's edit history: each brings the model from the
// state before an edit to the state after it, or back, and notifies the
// listeners the same way in both directions.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "DataModel/DataModel.h"
#include "DataModel/DmEdit.h"
#include "DmEffect.h"
#include "DmTimelineClip.h"

namespace ZOR {

class DmTimeline;
class DmTrack;

// One edit. Steps name clips, tracks and effects by plain pointers: a
// timeline keeps every clip that was on it (and a clip every effect it had)
// while it lives, and its history dies first.
//
// Steps run on the event thread only.
class DmEditStep {
public:
    virtual ~DmEditStep() = default;
    // Brings the model to the state after the edit (forward) or before it,
    // then notifies, outside every lock of the data model.
    virtual void apply(bool forward) = 0;
    // The key the edit publishes.
    virtual const char* eventKey() const = 0;
    // What is published with it.
    virtual DmEditEvent event() const = 0;
};

// A property of a clip: a sound key on the sound-carrying clip, or
// clipKey::enable on a primary clip (and its linked clip).
std::shared_ptr<DmEditStep> makeClipPropertyStep(DmTimeline* timeline, DmTimelineClip* clip, const char* key,
                                                 const ZorProperty& before, const ZorProperty& after);

std::shared_ptr<DmEditStep> makeTrackPropertyStep(DmTimeline* timeline, DmTrack* track, const char* key, bool before,
                                                  bool after);

// An effect of the sound-carrying clip: before and after name the effect
// applied (null for none) and its settings.
struct DmEffectState {
    DmEffect* effect = nullptr;
    DmEffect::Settings settings;
};
std::shared_ptr<DmEditStep> makeEffectStep(DmTimeline* timeline, DmTimelineClip* clip, int32_t type,
                                           DmEffectState before, DmEffectState after);

// Several steps as one edit: applied in their order in both directions,
// publishing eventKey with the first step's event.
std::shared_ptr<DmEditStep> makeCombinedStep(std::vector<std::shared_ptr<DmEditStep>> steps, const char* eventKey);

std::shared_ptr<DmEditStep> makeSpeedStep(DmTimeline* timeline, DmTimelineClip* clip,
                                          std::vector<DmSpeedPartDesc> before, std::vector<DmSpeedPartDesc> after);

// A new range of a primary clip: a move (begin and end) or a trim (marks and end).
std::shared_ptr<DmEditStep> makeRangeStep(DmTimeline* timeline, DmTimelineClip* clip, DmTimelineClip::Range before,
                                          DmTimelineClip::Range after, bool move);

// Where a primary clip sits: a track (null for none) and an index there.
struct DmClipSpot {
    DmTrack* track = nullptr;
    int32_t index = -1;
};
// Puts clip from one spot to another: from none (added), to none (removed),
// or between two (moved).
std::shared_ptr<DmEditStep> makePlaceStep(DmTimeline* timeline, DmTimelineClip* clip, DmClipSpot before,
                                          DmClipSpot after);

// Notifies the timeline's listeners that it is gone.
void notifyTimelineGone(DmTimeline* timeline);

}  // namespace ZOR
