// The audio wave extraction wrapper: a thin client of the background audio
// wave extraction task. Requests are kept under the task's tokens until the
// task reports them; finished requests are read through the clip's audio
// feature and handed to every registered callback.
#pragma once

#include <cstdint>
#include <vector>

#include "BackgroundTaskManager/BackgroundTaskManager.h"
#include "BsPendingRequests.h"
#include "Common/ZorInternalComUtility.h"
#include "Miravel/IBsAudioWaveExtractWrapper.h"

namespace ZOR {

class BsAudioWaveExtractWrapper final : public RefCnt<void>,
                                        public virtual IBsAudioWaveExtractWrapper,
                                        public virtual BaseCallBack<IBsAudioWaveExtractCallback>,
                                        public IZorCallBack {
public:
    ZOR_IMPLEMENT_REFCNT

    BsAudioWaveExtractWrapper();
    ~BsAudioWaveExtractWrapper() override;

    void* queryInterface(const char* name) override;

    int32_t addCallBack(IBsAudioWaveExtractCallback* callback) override;
    int32_t removeCallBack(IBsAudioWaveExtractCallback* callback) override;
    int32_t queryAudioWave(IDmClip* clip, int64_t begin, int64_t end, int32_t samples, uint32_t option,
                           int64_t* token) override;
    int32_t cancelQueryOfClip(IDmClip* clip) override;
    int32_t cancelQuery(int64_t token) override;
    int32_t pauseQuery() override;
    int32_t resumeQuery() override;

    // Called by the task on its threads.
    int32_t processChanged(IDmBaseObj* task, int32_t progress, int32_t status, const BsTaskProgressInfo* info) override;

private:
    struct PendingQuery {
        IDmClip* clip = nullptr;  // one reference, owned by the entry
        int64_t begin = 0;
        int64_t end = 0;
        int64_t samples = 0;
        BsWaveTaskRecord record;
    };

    void notify(int64_t token, int32_t status, const void* data, int32_t count, int32_t span);
    void readFinished(int64_t token, const PendingQuery& query);

    // Handles the reports that came for a token before its entry was stored.
    void replayEarly(const std::vector<BsPendingRequests<PendingQuery>::EarlyReport>& early);

    // Declared first so that it is released last, after the pending requests.
    ZorRef<IBsAudioWaveExtractTask> task_;
    BsPendingRequests<PendingQuery> pending_;
};

}  // namespace ZOR
