// The video frame extraction wrapper: the video counterpart of the audio wave
// wrapper. Requests are kept under the task's tokens; finished requests are
// read through the clip's video feature and handed to every callback.
#pragma once

#include <cstdint>
#include <vector>

#include "BackgroundTaskManager/BackgroundTaskManager.h"
#include "BsPendingRequests.h"
#include "Common/ZorInternalComUtility.h"
#include "Miravel/IBsVideoFrameExtractWrapper.h"

namespace ZOR {

class BsVideoFrameExtractWrapper final : public RefCnt<void>,
                                         public virtual IBsVideoFrameExtractWrapper,
                                         public virtual BaseCallBack<IBsVideoFrameExtractCallback>,
                                         public IZorCallBack {
public:
    ZOR_IMPLEMENT_REFCNT

    // Bytes of one frame slot handed to the callbacks.
    static constexpr size_t kFrameSlotBytes = 1024;

    BsVideoFrameExtractWrapper();
    ~BsVideoFrameExtractWrapper() override;

    void* queryInterface(const char* name) override;

    int32_t addCallBack(IBsVideoFrameExtractCallback* callback) override;
    int32_t removeCallBack(IBsVideoFrameExtractCallback* callback) override;
    int32_t queryVideoFrame(IDmClip* clip, int32_t first, int32_t second, const int64_t* times, uint32_t count,
                            uint32_t flags, int64_t* token) override;
    int32_t cancelQueryOfClip(IDmClip* clip) override;
    int32_t cancelQuery(int64_t token) override;
    int32_t pauseQuery() override;
    int32_t resumeQuery() override;

    // Called by the task on its threads.
    int32_t processChanged(IDmBaseObj* task, int32_t progress, int32_t status, const BsTaskProgressInfo* info) override;

private:
    struct PendingQuery {
        IDmClip* clip = nullptr;  // one reference, owned by the entry
        int32_t first = 0;
        int32_t second = 0;
        std::vector<int64_t> times;
    };

    void notify(int64_t token, int32_t status, const int64_t* times, void* frames, int32_t count);
    void readFinished(int64_t token, const PendingQuery& query);

    // Handles the reports that came for a token before its entry was stored.
    void replayEarly(const std::vector<BsPendingRequests<PendingQuery>::EarlyReport>& early);

    // Declared first so that it is released last, after the pending requests.
    ZorRef<IBsVideoFrameExtractTask> task_;
    BsPendingRequests<PendingQuery> pending_;
};

}  // namespace ZOR
