// Loading a timeline document: the document is read whole into a
// description first, so a document that cannot be read leaves nothing behind.
#include "DataModel/DmTimeline.h"

namespace ZOR {

IDmTimeline* loadTimelineDocument(const char* path, std::string* error) {
    return loadTimelineDocument(path, error, nullptr);
}

IDmTimeline* loadTimelineDocument(const char* path, std::string* error, std::vector<std::string>* warnings) {
    if (warnings != nullptr) warnings->clear();
    DmTimelineDesc desc;
    std::string problem;
    if (parseTimelineDocument(path, &desc, &problem) != 0) {
        if (error != nullptr) *error = problem;
        return nullptr;
    }
    IDmTimeline* timeline = createTimeline(desc, error);
    if (timeline != nullptr && warnings != nullptr) *warnings = std::move(desc.warnings);
    return timeline;
}

}  // namespace ZOR
