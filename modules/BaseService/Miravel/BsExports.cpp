// The library's exported entry points: the factories and the property key.
#include "BsAudioWaveExtractWrapper.h"
#include "BsClipThumbnailService/BsClipThumbnailService.h"
#include "BsThumbManager.h"
#include "BsVideoFrameExtractWrapper.h"
#include "Common/ZorInternalComUtility.h"
#include "Miravel/ClipThumbnailKey.h"

namespace ZOR {

const char* const ClipThumbnailKey::enableCalcDucking = "enableCalcDucking";

}  // namespace ZOR

extern "C" {

MIRAVEL_API ZOR::IBsAudioWaveExtractWrapper* createBsAudioWaveExtractWrapper() {
    return ZOR::zorCreateObject<ZOR::BsAudioWaveExtractWrapper, ZOR::IBsAudioWaveExtractWrapper>();
}

MIRAVEL_API ZOR::IBsVideoFrameExtractWrapper* createBsVideoFrameExtractWrapper() {
    return ZOR::zorCreateObject<ZOR::BsVideoFrameExtractWrapper, ZOR::IBsVideoFrameExtractWrapper>();
}

MIRAVEL_API ZOR::IBsClipThumbnailService* createBsClipThumbnaiService() {
    return ZOR::zorCreateObject<ZOR::BsClipThumbnailService, ZOR::IBsClipThumbnailService>();
}

MIRAVEL_API ZOR::IBsThumbManager* createThumbManager() {
    return ZOR::zorCreateObject<ZOR::BsThumbManager, ZOR::IBsThumbManager>();
}

}  // extern "C"
