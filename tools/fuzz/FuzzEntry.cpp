// The libFuzzer entry point of one road; MIRAVEL_FUZZ_ROAD names it.
#include "FuzzRoads.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    ZOR::fuzz::prepareProcess();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    return ZOR::fuzz::MIRAVEL_FUZZ_ROAD(data, size);
}
