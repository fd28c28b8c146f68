// The audio thumbnail builder's parameter side: the clip's volume, gains,
// keyframes, silent stretches and ducking records read from the data model,
// the media positions of a request's points, the raw values read for them
// and the envelope applied to them.
#include <algorithm>
#include <cmath>

#include "Adapter/Adapter.h"
#include "BsAudioBuilderShared.h"
#include "BsAudioEnvelope.h"
#include "BsAudioThumbnailBuilder.h"
#include "BsPointerValue.h"
#include "Common/ZorInternalComUtility.h"

ZOR_LOG_SOURCE("modules/BaseService/Miravel/BsClipThumbnailService/BsAudioThumbnailBuilder")

namespace ZOR {

using namespace audio_thumbnails;

namespace {

bool readProperty(IDmAudioFeature* audio, const char* key, ZorProperty* value) {
    return audio != nullptr && audio->getProperty(key, value) == 0;
}

// A property of any data-model object, through whichever property face it has.
bool readObjectProperty(IDmBaseObj* object, const char* key, ZorProperty* value) {
    if (object == nullptr) return false;
    if (auto* owner = static_cast<IDmPropertyOwner*>(object->queryInterface("IDmPropertyOwner")))
        return owner->getProperty(key, value) == 0;
    if (auto* audio = static_cast<IDmAudioFeature*>(object->queryInterface("IDmAudioFeature")))
        return audio->getProperty(key, value) == 0;
    return false;
}

double numberOf(const ZorProperty& value) {
    return value.kind == ZorProperty::Double ? value.doubleValue : static_cast<double>(value.intValue);
}

// The gain of the volume envelope at clip time t.
double volumeAtTime(const AudioThumbnailParam& entry, int64_t t) {
    if (entry.volumeKeyframes.empty()) return gainOfDb(static_cast<double>(entry.volume) + entry.volumeGain);
    return envelopeAt(entry.volumeKeyframes, entry.keyframeGains, t);
}

}  // namespace

namespace audio_thumbnails {

IDmEffect* activeDuckingEffect(IDmClip* clip) {
    IDmClip* audioClip = getBaseAudioClip(clip);
    if (audioClip == nullptr) return nullptr;
    IDmEffect* effect = audioClip->effect(kEffectDucking);
    if (effect == nullptr) return nullptr;
    if (audioClip->queryInterface("IDmAudioClip") != nullptr) {
        ZorProperty mute;
        auto* audio = static_cast<IDmAudioFeature*>(audioClip->queryInterface("IDmAudioFeature"));
        if (readProperty(audio, audioKey::mute, &mute) && mute.boolValue()) return nullptr;
    }
    if (!effect->isEnabled()) return nullptr;
    return effect;
}

bool rangesOverlap(IDmClip* a, IDmClip* b) {
    return beginTimeOfClip(a) < endTimeOfClip(b) && beginTimeOfClip(b) < endTimeOfClip(a);
}

int32_t readRawSamples(BsAudioSampleCache& cache, IZORLonglongList* positions, std::vector<float>& raw) {
    std::lock_guard<std::mutex> guard(cache.lock());
    if (!cache.open()) return kResultFailure;
    const int32_t count = positions != nullptr ? positions->count() : 0;
    raw.assign(static_cast<size_t>(std::max(count, 0)), 0.0f);
    const int64_t frameLength = cnsTimeFromFrame(kWaveRate, 1);
    const uint32_t perFrame = cache.valuesPerFrame();
    int64_t lastFrame = 0;
    const std::vector<float>* values = nullptr;
    bool haveLast = false;
    for (int32_t i = 0; i < count; ++i) {
        const int64_t position = positions->get(i);
        const int64_t frame = frameFromCnsTime(kWaveRate, position);
        if (!haveLast || frame != lastFrame) {
            values = frame >= INT32_MIN && frame <= INT32_MAX ? cache.frame(static_cast<int32_t>(frame)) : nullptr;
            lastFrame = frame;
            haveLast = true;
        }
        if (values == nullptr) continue;
        const int64_t frameStart = cnsTimeFromFrame(kWaveRate, frame);
        const float fraction = static_cast<float>(position - frameStart) / static_cast<float>(frameLength);
        uint32_t index = static_cast<uint32_t>(fraction * static_cast<float>(perFrame));
        index = std::min(index, perFrame - 1);
        if (index < values->size()) raw[static_cast<size_t>(i)] = (*values)[index];
    }
    return 0;
}

}  // namespace audio_thumbnails

// ---------------------------------------------------------------------------
// Ducking intervals

bool BsAudioThumbnailBuilder::trackPasses(IDmTrack* track) {
    if (track == nullptr || track->trackKind() != DmTrackAudio) return false;
    ZorProperty value;
    if (track->getProperty(trackKey::mute, &value) == 0 && value.boolValue()) return false;
    if (track->getProperty(trackKey::visible, &value) == 0 && !value.boolValue()) return false;
    return true;
}

bool BsAudioThumbnailBuilder::makeDuckRecord(IDmClip* clip, FAudioDuckInfo* record, bool heldByRecord) {
    // A clip that only an interval still holds has been let go by the data
    // model.
    if ((heldByRecord && clip->refCount() <= 1) || clip->timeline() == nullptr) {
        ZOR_LOG(IBsLogger::Trace, "ZOR::BsAudioThumbnailBuilder::updateDuckInfo", " clip is release");
        return false;
    }
    ZorProperty enable;
    if (readObjectProperty(clip, clipKey::enable, &enable) && !enable.boolValue()) return false;
    if (clip->timeline() != timeline_ || !trackPasses(clip->track())) return false;
    IDmEffect* effect = activeDuckingEffect(clip);
    if (effect == nullptr) return false;
    record->changes = 0;
    record->clip = ZorRef<IDmClip>::share(clip);
    record->begin = beginTimeOfClip(clip);
    record->end = endTimeOfClip(clip);
    record->depth = static_cast<double>(effect->value(0));
    record->fade = static_cast<double>(effect->value(1));
    record->fadeRatio = static_cast<double>(effect->value(2));
    return true;
}

int32_t BsAudioThumbnailBuilder::updateDuckInfo() {
    if (timeline_ == nullptr) return kResultFailure;
    if (duckInfo_) {
        if (!duckInfoChanged_) return 0;
        auto rebuilt = std::make_shared<std::vector<FAudioDuckInfo>>();
        for (FAudioDuckInfo& record : *duckInfo_) {
            if (record.changes == 0) {
                rebuilt->push_back(record);
            } else if ((record.changes & kChangeRemoved) == 0) {
                FAudioDuckInfo remade;
                if (record.clip.get() != nullptr && makeDuckRecord(record.clip.get(), &remade, true))
                    rebuilt->push_back(std::move(remade));
            }
        }
        duckInfo_ = std::move(rebuilt);
        duckInfoChanged_ = false;
        return 0;
    }
    auto made = std::make_shared<std::vector<FAudioDuckInfo>>();
    for (int32_t t = 0; t < timeline_->trackCount(); ++t) {
        if (!trackPasses(timeline_->track(t))) continue;
        for (int32_t i = 0; i < timeline_->clipCount(t); ++i) {
            IDmClip* clip = timeline_->clip(t, i);
            FAudioDuckInfo record;
            if (clip != nullptr && makeDuckRecord(clip, &record, false)) made->push_back(std::move(record));
        }
    }
    duckInfo_ = std::move(made);
    duckInfoChanged_ = false;
    return 0;
}

std::vector<FAudioDuckInfo> BsAudioThumbnailBuilder::duckRecordsFor(IDmClip* clip) const {
    std::vector<FAudioDuckInfo> records;
    if (!duckInfo_) return records;
    const int64_t begin = beginTimeOfClip(clip);
    const int64_t end = endTimeOfClip(clip);
    const int64_t shift = markInTimeOfClip(clip) - begin;
    for (const FAudioDuckInfo& record : *duckInfo_) {
        if (!(record.begin < end && begin < record.end)) continue;
        FAudioDuckInfo copy = record;
        copy.begin += shift;
        copy.end += shift;
        records.push_back(std::move(copy));
    }
    return records;
}

// ---------------------------------------------------------------------------
// Parameters and positions

uint32_t BsAudioThumbnailBuilder::updateAudioThumbnailParam(IDmClip* clip, AudioThumbnailParam& entry) {
    ScopeTimeSpan timer("ZOR::BsAudioThumbnailBuilder::updateAudioThumbnailParam[700]", true, 0, IBsLogger::Timing);
    auto* audio = static_cast<IDmAudioFeature*>(clip->queryInterface("IDmAudioFeature"));
    uint32_t result = entry.dirty;
    ZorProperty value;

    if ((entry.dirty & kChangeLoudness) != 0) {
        entry.loudnessGain = 0.0f;
        if (readProperty(audio, audioLoudness::enable, &value) && value.boolValue() &&
            readProperty(audio, audioLoudness::gain, &value))
            entry.loudnessGain = static_cast<float>(numberOf(value));
    }
    if ((entry.dirty & kChangeVolumeGain) != 0)
        entry.volumeGain = readProperty(audio, clipVolumeKey::volumeGain, &value) ? numberOf(value) : 0.0;

    const int64_t markIn = markInTimeOfClip(clip);
    const int64_t markOut = markOutTimeOfClip(clip);

    if ((entry.dirty & kChangeVolume) != 0) {
        const bool muted = readProperty(audio, audioKey::mute, &value) && value.boolValue();
        entry.volume = 0.0f;
        if (!muted && readProperty(audio, audioKey::volume, &value)) entry.volume = static_cast<float>(numberOf(value));
        entry.volumeKeyframes.clear();
        entry.keyframeGains.clear();
        IDmEffect* effect = clip->effect(kEffectVolume);
        const int32_t count = effect != nullptr ? effect->keyframeCount(1) : 0;
        if (count > 0) {
            entry.volume = 0.0f;
            std::vector<std::pair<int64_t, double>> all;
            std::vector<double> allGains;
            for (int32_t i = 0; i < count; ++i) {
                int64_t time = 0;
                double db = 0.0;
                if (effect->keyframe(1, i, &time, &db) == 0) {
                    all.emplace_back(time, db);
                    allGains.push_back(gainOfDb(db));
                }
            }
            // Boundary keyframes. The envelope runs linearly in gain from one
            // keyframe to the next and holds the first and last levels beyond
            // them (envelopeAt). Keyframes outside [mark in, mark out] are
            // dropped; where some lay before mark in (after mark out) and none
            // lies exactly on it, one is placed on the boundary with the
            // envelope's gain there. The envelope between the boundaries is
            // then the same line segments as before, so the clip sounds and
            // draws as it did; its gain is kept as computed, not re-derived
            // from a dB value, so that no rounding creeps in.
            bool before = false;
            bool after = false;
            bool atIn = false;
            bool atOut = false;
            for (const auto& [time, db] : all) {
                before = before || time < markIn;
                after = after || time > markOut;
                atIn = atIn || time == markIn;
                atOut = atOut || time == markOut;
            }
            auto place = [&](int64_t at) {
                const double gain = envelopeAt(all, allGains, at);
                entry.volumeKeyframes.emplace_back(at, gain > 0.0 ? 20.0 * std::log10(gain) : kSilenceDb);
                entry.keyframeGains.push_back(gain);
            };
            if (before && !atIn) place(markIn);
            for (size_t i = 0; i < all.size(); ++i) {
                if (all[i].first < markIn || all[i].first > markOut) continue;
                entry.volumeKeyframes.push_back(all[i]);
                entry.keyframeGains.push_back(allGains[i]);
            }
            if (after && !atOut && markOut > markIn) place(markOut);
        }
    }

    if ((entry.dirty & kChangeDucking) != 0) {
        bool changed = false;
        if (activeDuckingEffect(clip) != nullptr) {
            // A ducking source is never ducked itself.
            changed = !entry.duckRecords.empty();
            entry.duckRecords.clear();
        } else {
            std::vector<FAudioDuckInfo> records = duckRecordsFor(clip);
            changed = !sameRecords(records, entry.duckRecords);
            entry.duckRecords = std::move(records);
        }
        if (!changed) result &= ~kChangeDucking;
    }

    if ((entry.dirty & kChangeSpeed) != 0) {
        entry.silentRanges.clear();
        if (auto* parts = static_cast<IDmClipSpeedPart*>(clip->queryInterface("IDmClipSpeedPart"))) {
            const int32_t count = parts->speedPartCount();
            for (int32_t i = 0; i < count; ++i) {
                int64_t begin = -1;
                int64_t end = -1;
                double speed = 1.0;
                parts->speedPart(i, &begin, &end, &speed);
                if (speed == 0.0) entry.silentRanges.emplace_back(begin, end);
            }
        }
    }
    return result;
}

int32_t BsAudioThumbnailBuilder::fillSamplePositions(IDmClip* clip, AudioThumbnailRequest& request) {
    if (request.positions != nullptr && request.positions->count() > 0) return 0;
    request.resetPositions(createZORLonglongList());
    request.sourceBegin = INT64_MAX;
    request.sourceEnd = 0;
    bool reverse = false;
    if (IDmEffect* effect = clip->effect(kEffectReverse)) reverse = effect->value(0) != 0.0f;
    auto* audio = static_cast<IDmAudioFeature*>(clip->queryInterface("IDmAudioFeature"));
    for (int32_t i = 0; i < request.sampleCount; ++i) {
        const int64_t t = pointTime(request.begin, request.end, i, request.sampleCount);
        const int64_t s = audio != nullptr ? audio->sourcePosition(t, reverse) : t;
        if (request.positions != nullptr) request.positions->append(s);
        request.sourceEnd = std::max(request.sourceEnd, s);
        request.sourceBegin = std::min(request.sourceBegin, s);
    }
    request.rawSamples.clear();
    request.samples.clear();
    return 0;
}

void BsAudioThumbnailBuilder::applyAudioGain(AudioThumbnailParam& entry, AudioThumbnailRequest& request,
                                             IBsAudioThumbnailQueryer* queryer) {
    const float staticFactor = staticGainFactor(entry.volume, entry.volumeGain, entry.loudnessGain);
    const bool ducking = queryer != nullptr && queryer->isCalcDuckingEnabled();
    const size_t count = request.rawSamples.size();
    request.samples.resize(count);
    for (size_t i = 0; i < count; ++i) {
        if (request.cancelled.load(std::memory_order_relaxed)) return;
        const int64_t t = pointTime(request.begin, request.end, static_cast<int32_t>(i), request.sampleCount);
        bool silent = false;
        for (const auto& [a, b] : entry.silentRanges) {
            if (a <= t && t <= b) {
                silent = true;
                break;
            }
        }
        const float raw = request.rawSamples[i];
        request.samples[i] = silent ? thumbnailValue(0.0, 1.0f, 1.0, raw)
                                    : thumbnailValue(volumeAtTime(entry, t), staticFactor,
                                                     ducking ? duckingFactor(entry.duckRecords, t) : 1.0, raw);
    }
}

}  // namespace ZOR
