#include "BsAudioDuckIntervals.h"

#include <algorithm>

#include "BsAudioEnvelope.h"

namespace ZOR {

double duckingFactor(const std::vector<FAudioDuckInfo>& records, int64_t t) {
    double deepest = 0.0;
    for (const FAudioDuckInfo& record : records)
        deepest = std::max(
            deepest, duckLevelAt(DuckShape{record.begin, record.end, record.depth, record.fade, record.fadeRatio}, t));
    return deepest > 0.0 ? 1.0 - deepest : 1.0;
}

bool sameRecords(const std::vector<FAudioDuckInfo>& a, const std::vector<FAudioDuckInfo>& b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i) {
        if (a[i].clip.get() != b[i].clip.get() || a[i].begin != b[i].begin || a[i].end != b[i].end ||
            a[i].depth != b[i].depth || a[i].fade != b[i].fade || a[i].fadeRatio != b[i].fadeRatio)
            return false;
    }
    return true;
}

}  // namespace ZOR
