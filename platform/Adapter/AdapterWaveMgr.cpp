// The wave manager behind a clip's wave-manager source.
//
// The data model hands out the wave manager itself as the source (see
// IDmClipInternal::waveManagerSource), so the lookup is a query by name plus
// the caller's reference. Any other object that answers
// "IDmAudioWaveMgrInternal" works the same way.
#include "Adapter/Adapter.h"

namespace ZOR {

IDmAudioWaveMgrInternal* acquireIDmAudioWaveMgrInternal(IDmBaseObj* source) {
    if (source == nullptr) return nullptr;
    auto* manager = static_cast<IDmAudioWaveMgrInternal*>(source->queryInterface("IDmAudioWaveMgrInternal"));
    if (manager == nullptr) return nullptr;
    // A manager that is already being destroyed cannot be handed out.
    if (manager->AddRef() <= 0) return nullptr;
    return manager;
}

}  // namespace ZOR
