#include <cstdlib>
#include <string>
#include <vector>

#include "DataModel/DataModel.h"
#include "DataModel/DmTimeline.h"
#include "FuzzRoads.h"
#include "FuzzSupport.h"

namespace ZOR::fuzz {

int otioDocument(const uint8_t* data, size_t size) {
    const std::string path = scratchFile("input.otio", data, size);
    if (path.empty()) return 0;
    std::string error;
    std::vector<std::string> warnings;
    IDmTimeline* timeline = loadTimelineDocument(path.c_str(), &error, &warnings);
    if (timeline == nullptr) {
        // A refused document always says why, and leaves no warnings behind.
        if (error.empty() || !warnings.empty()) std::abort();
        return 0;
    }
    // What was loaded describes itself, as an editor saving it asks, and the
    // description makes the same timeline again.
    DmTimelineDesc desc;
    if (describeTimeline(timeline, &desc, &error) != 0) std::abort();
    timeline->Release();
    IDmTimeline* again = createTimeline(desc, &error);
    if (again == nullptr) std::abort();
    again->Release();
    return 0;
}

}  // namespace ZOR::fuzz
