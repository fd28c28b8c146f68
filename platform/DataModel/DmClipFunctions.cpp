// The clip functions of the data model. They work on any clip that answers
// "IDmPropertyOwner" with the clipKey times, not only on media clips.
#include "DataModel/DmKeyTexts.h"
#include "DataModel/DataModel.h"

namespace ZOR {

namespace {

int64_t timeProperty(IDmClip* clip, const char* key) {
    if (clip == nullptr) return 0;
    auto* owner = static_cast<IDmPropertyOwner*>(clip->queryInterface("IDmPropertyOwner"));
    if (owner == nullptr) return 0;
    ZorProperty value;
    if (owner->getProperty(key, &value) != 0 || value.kind != ZorProperty::Int) return 0;
    return value.intValue;
}

}  // namespace

IDmClip* getBaseAudioClip(IDmBaseObj* obj) {
    if (obj == nullptr) return nullptr;
    auto* clip = static_cast<IDmClip*>(obj->queryInterface("IDmClip"));
    if (clip == nullptr) return nullptr;
    // A video clip on a timeline carries its sound in a linked audio clip,
    // which it answers by this internal name; any other clip with sound
    // carries it itself.
    if (auto* linked = static_cast<IDmClip*>(clip->queryInterface("IDmLinkedAudioClip"))) return linked;
    return clip->queryInterface("IDmAudioFeature") != nullptr ? clip : nullptr;
}

int64_t beginTimeOfClip(IDmClip* clip) { return timeProperty(clip, keytext::kClipTimelineBegin); }
int64_t endTimeOfClip(IDmClip* clip) { return timeProperty(clip, keytext::kClipTimelineEnd); }
int64_t markInTimeOfClip(IDmClip* clip) { return timeProperty(clip, keytext::kClipMarkIn); }
int64_t markOutTimeOfClip(IDmClip* clip) { return timeProperty(clip, keytext::kClipMarkOut); }

}  // namespace ZOR
