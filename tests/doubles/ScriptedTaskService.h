// A scripted stand-in for the background task service, for tests only.
//
// It is linked in place of the real BackgroundTaskManager library (see
// miravel_library_variant). Each task records what it is asked and answers as
// the test says; reports are delivered by the test, on whichever thread the
// test calls deliver() from.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <set>
#include <thread>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "BackgroundTaskManager/BackgroundTaskManager.h"

namespace ZOR::test {

struct ScriptedAppend {
    int64_t token = -1;
    int32_t result = 0;
    // Audio task
    BsWaveTaskRecord record;
    // Video task
    IDmBaseObj* clip = nullptr;
    std::vector<int64_t> times;
    int32_t width = 0;
    int32_t height = 0;
    uint32_t flags = 0;
};

struct ScriptedAddFrames {
    int64_t token = -1;
    std::vector<int64_t> times;
};

// What one scripted task was asked, and how it answers. Thread-safe.
class ScriptedTaskState {
public:
    // Token handed to the next append (then counting up from it). Default 1.
    void setNextToken(int64_t token);
    void setAppendResult(int32_t result);
    void setAddFramesResult(int32_t result);
    void setPauseResult(int32_t result);
    void setResumeResult(int32_t result);
    void setStarted(bool started);
    // Called at the end of every accepted append, on the appending thread,
    // with the token it hands out (as a service that finishes a request at
    // once would report from its own thread before append() returned).
    void setAppendHook(std::function<void(int64_t token)> hook);

    std::vector<ScriptedAppend> appends() const;
    std::vector<ScriptedAddFrames> addFrames() const;
    std::vector<int64_t> cancels() const;
    int32_t initializeCount() const;
    int32_t startCount() const;
    int32_t pauseCount() const;
    int32_t resumeCount() const;
    int32_t shutdownCount() const;
    size_t callbackCount() const;

    // Calls processChanged(status, {token, data}) on every registered callback,
    // on the calling thread, with no lock held. Like the real service, once
    // removeCallBack() or shutdown() has returned, a callback is not called
    // again.
    void deliver(int64_t token, int32_t status, IDmBaseObj* data = nullptr);

    // Whether the task object still exists.
    bool alive() const;

private:
    friend class ScriptedTaskBase;
    int64_t takeToken();
    // Removes callback (null: none) and waits for deliveries of other threads
    // in progress.
    void removeAndWait(IZorCallBack* callback);

    mutable std::mutex mutex_;  // guards every field below; never held while calling out
    int64_t nextToken_ = 1;
    int32_t appendResult_ = 0;
    std::function<void(int64_t)> appendHook_;
    int32_t addFramesResult_ = 0;
    int32_t pauseResult_ = 0;
    int32_t resumeResult_ = 0;
    bool started_ = false;
    bool alive_ = true;
    std::vector<ScriptedAppend> appendLog_;
    std::vector<ScriptedAddFrames> addFramesLog_;
    std::vector<int64_t> cancelLog_;
    int32_t initializes_ = 0;
    int32_t starts_ = 0;
    int32_t pauses_ = 0;
    int32_t resumes_ = 0;
    int32_t shutdowns_ = 0;
    std::vector<IZorCallBack*> callbacks_;
    IDmBaseObj* task_ = nullptr;                 // the task object while alive
    std::multiset<std::thread::id> delivering_;  // threads inside deliver()
    std::condition_variable delivered_;          // signalled when a delivery ends
};

// The tasks created so far, in creation order (they stay listed after they
// are destroyed; their state lives on).
std::vector<std::shared_ptr<ScriptedTaskState>> scriptedAudioTasks();
std::vector<std::shared_ptr<ScriptedTaskState>> scriptedVideoTasks();
// The state of the most recent task of each kind (null when none).
std::shared_ptr<ScriptedTaskState> lastAudioTask();
std::shared_ptr<ScriptedTaskState> lastVideoTask();
int32_t liveScriptedTasks();
// Forgets every task created so far (their objects are not touched).
void resetScriptedTasks();

}  // namespace ZOR::test
