// Loading a timeline document: the document is read whole into a
// description first, so a document that cannot be read leaves nothing behind.
#include "DataModel/DmTimeline.h"

namespace ZOR {

IDmTimeline* loadTimelineDocument(const char* path, std::string* error) {
    DmTimelineDesc desc;
    std::string problem;
    if (parseTimelineDocument(path, &desc, &problem) != 0) {
        if (error != nullptr) *error = problem;
        return nullptr;
    }
    return createTimeline(desc, error);
}

}  // namespace ZOR
