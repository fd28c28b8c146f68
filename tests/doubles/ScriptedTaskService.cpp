#include "ScriptedTaskService.h"

#include <algorithm>
#include <thread>

#include "Common/ZorInternalComUtility.h"

namespace ZOR::test {

namespace {
std::mutex gRegistryMutex;  // guards the two lists; taken alone
std::vector<std::shared_ptr<ScriptedTaskState>> gAudioTasks;
std::vector<std::shared_ptr<ScriptedTaskState>> gVideoTasks;
std::atomic<int32_t> gLive{0};
}  // namespace

void ScriptedTaskState::setNextToken(int64_t token) {
    std::lock_guard<std::mutex> lock(mutex_);
    nextToken_ = token;
}
void ScriptedTaskState::setAppendHook(std::function<void(int64_t token)> hook) {
    std::lock_guard<std::mutex> lock(mutex_);
    appendHook_ = std::move(hook);
}

void ScriptedTaskState::setAppendResult(int32_t result) {
    std::lock_guard<std::mutex> lock(mutex_);
    appendResult_ = result;
}
void ScriptedTaskState::setAddFramesResult(int32_t result) {
    std::lock_guard<std::mutex> lock(mutex_);
    addFramesResult_ = result;
}
void ScriptedTaskState::setPauseResult(int32_t result) {
    std::lock_guard<std::mutex> lock(mutex_);
    pauseResult_ = result;
}
void ScriptedTaskState::setResumeResult(int32_t result) {
    std::lock_guard<std::mutex> lock(mutex_);
    resumeResult_ = result;
}
void ScriptedTaskState::setStarted(bool started) {
    std::lock_guard<std::mutex> lock(mutex_);
    started_ = started;
}
std::vector<ScriptedAppend> ScriptedTaskState::appends() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return appendLog_;
}
std::vector<ScriptedAddFrames> ScriptedTaskState::addFrames() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return addFramesLog_;
}
std::vector<int64_t> ScriptedTaskState::cancels() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return cancelLog_;
}
int32_t ScriptedTaskState::initializeCount() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return initializes_;
}
int32_t ScriptedTaskState::startCount() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return starts_;
}
int32_t ScriptedTaskState::pauseCount() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return pauses_;
}
int32_t ScriptedTaskState::resumeCount() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return resumes_;
}
int32_t ScriptedTaskState::shutdownCount() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return shutdowns_;
}
size_t ScriptedTaskState::callbackCount() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return callbacks_.size();
}
bool ScriptedTaskState::alive() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return alive_;
}
int64_t ScriptedTaskState::takeToken() { return nextToken_++; }

void ScriptedTaskState::deliver(int64_t token, int32_t status, IDmBaseObj* data) {
    std::vector<IZorCallBack*> callbacks;
    IDmBaseObj* task = nullptr;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        callbacks = callbacks_;
        task = task_;
        delivering_.insert(std::this_thread::get_id());
    }
    BsTaskProgressInfo info;
    info.token = token;
    info.data = data;
    info.percent = status == 2 ? 100 : 0;
    for (IZorCallBack* callback : callbacks) {
        // Like the real service: a callback removed meanwhile is not called.
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (std::find(callbacks_.begin(), callbacks_.end(), callback) == callbacks_.end()) continue;
        }
        callback->processChanged(task, info.percent, status, &info);
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        delivering_.erase(delivering_.find(std::this_thread::get_id()));
    }
    delivered_.notify_all();
}

void ScriptedTaskState::removeAndWait(IZorCallBack* callback) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (callback != nullptr) std::erase(callbacks_, callback);
    // Once this returns, no delivery of another thread is still inside a
    // callback (a delivery on this very thread is the caller itself).
    const auto self = std::this_thread::get_id();
    delivered_.wait(lock, [&] {
        return std::all_of(delivering_.begin(), delivering_.end(), [&](std::thread::id id) { return id == self; });
    });
}

// The control interface, shared by both scripted tasks.
class ScriptedTaskBase : public virtual IBsTaskControl {
public:
    explicit ScriptedTaskBase(std::shared_ptr<ScriptedTaskState> state) : state_(std::move(state)) {
        gLive.fetch_add(1);
    }
    virtual ~ScriptedTaskBase() {
        std::lock_guard<std::mutex> lock(state_->mutex_);
        state_->alive_ = false;
        state_->task_ = nullptr;
        gLive.fetch_sub(1);
    }
    ScriptedTaskBase(const ScriptedTaskBase&) = delete;
    ScriptedTaskBase& operator=(const ScriptedTaskBase&) = delete;

    const char* taskName() override { return "scripted"; }
    int32_t setPriority(int32_t) override { return 0; }
    int32_t priority() override { return 0; }
    int32_t pendingCount() override { return 0; }
    int32_t isPaused() override { return 0; }
    int32_t addCallBack(IZorCallBack* callback) override {
        std::lock_guard<std::mutex> lock(state_->mutex_);
        for (IZorCallBack* registered : state_->callbacks_)
            if (registered == callback) return 0;
        state_->callbacks_.push_back(callback);
        return 0;
    }
    int32_t removeCallBack(IZorCallBack* callback) override {
        state_->removeAndWait(callback);
        return 0;
    }
    int32_t start() override {
        std::lock_guard<std::mutex> lock(state_->mutex_);
        ++state_->starts_;
        state_->started_ = true;
        return 0;
    }
    int32_t pause() override {
        std::lock_guard<std::mutex> lock(state_->mutex_);
        ++state_->pauses_;
        return state_->pauseResult_;
    }
    int32_t resume() override {
        std::lock_guard<std::mutex> lock(state_->mutex_);
        ++state_->resumes_;
        return state_->resumeResult_;
    }
    int32_t shutdown() override {
        {
            std::lock_guard<std::mutex> lock(state_->mutex_);
            ++state_->shutdowns_;
            state_->started_ = false;
        }
        state_->removeAndWait(nullptr);
        return 0;
    }
    int32_t isStarted() override {
        std::lock_guard<std::mutex> lock(state_->mutex_);
        return state_->started_ ? 1 : 0;
    }

protected:
    void setSelf(IDmBaseObj* self) {
        std::lock_guard<std::mutex> lock(state_->mutex_);
        state_->task_ = self;
    }
    int32_t recordInitialize() {
        std::lock_guard<std::mutex> lock(state_->mutex_);
        ++state_->initializes_;
        return 0;
    }
    int32_t recordAppend(ScriptedAppend append, int64_t* token) {
        std::function<void(int64_t)> hook;
        int64_t handed = -1;
        int32_t result = 0;
        {
            std::lock_guard<std::mutex> lock(state_->mutex_);
            append.result = state_->appendResult_;
            if (append.result == 0) {
                append.token = state_->takeToken();
                if (token != nullptr) *token = append.token;
                handed = append.token;
                hook = state_->appendHook_;
            }
            result = append.result;
            state_->appendLog_.push_back(std::move(append));
        }
        if (hook) hook(handed);  // no lock held: the hook may deliver
        return result;
    }
    int32_t recordCancel(int64_t token) {
        std::lock_guard<std::mutex> lock(state_->mutex_);
        state_->cancelLog_.push_back(token);
        return 0;
    }
    int32_t recordAddFrames(int64_t token, const int64_t* times, int32_t count) {
        std::lock_guard<std::mutex> lock(state_->mutex_);
        ScriptedAddFrames call;
        call.token = token;
        if (times != nullptr && count > 0) call.times.assign(times, times + count);
        state_->addFramesLog_.push_back(std::move(call));
        return state_->addFramesResult_;
    }

    std::shared_ptr<ScriptedTaskState> state_;
};

class ScriptedAudioTask final : public RefCnt<void>, public ScriptedTaskBase, public virtual IBsAudioWaveExtractTask {
public:
    ZOR_IMPLEMENT_REFCNT
    explicit ScriptedAudioTask(std::shared_ptr<ScriptedTaskState> state) : ScriptedTaskBase(std::move(state)) {
        setSelf(static_cast<IBsAudioWaveExtractTask*>(this));
    }
    void* queryInterface(const char* name) override {
        return zorQueryInterface(name, "IBsAudioWaveExtractTask", static_cast<IBsAudioWaveExtractTask*>(this));
    }
    int32_t initialize() override { return recordInitialize(); }
    int32_t taskKind() override { return 1; }
    int32_t append(const BsWaveTaskRecord* record, int64_t* token) override {
        ScriptedAppend append;
        if (record != nullptr) append.record = *record;
        return recordAppend(std::move(append), token);
    }
    int32_t cancel(int64_t token) override { return recordCancel(token); }
};

class ScriptedVideoTask final : public RefCnt<void>, public ScriptedTaskBase, public virtual IBsVideoFrameExtractTask {
public:
    ZOR_IMPLEMENT_REFCNT
    explicit ScriptedVideoTask(std::shared_ptr<ScriptedTaskState> state) : ScriptedTaskBase(std::move(state)) {
        setSelf(static_cast<IBsVideoFrameExtractTask*>(this));
    }
    void* queryInterface(const char* name) override {
        return zorQueryInterface(name, "IBsVideoFrameExtractTask", static_cast<IBsVideoFrameExtractTask*>(this));
    }
    int32_t initialize() override { return recordInitialize(); }
    int32_t append(IDmBaseObj* clip, const int64_t* times, int32_t count, int64_t* token, int32_t width, int32_t height,
                   uint32_t flags) override {
        ScriptedAppend append;
        append.clip = clip;
        if (times != nullptr && count > 0) append.times.assign(times, times + count);
        append.width = width;
        append.height = height;
        append.flags = flags;
        return recordAppend(std::move(append), token);
    }
    int32_t taskKind() override { return 2; }
    int32_t cancel(int64_t token) override { return recordCancel(token); }
    int32_t addFrames(int64_t token, const int64_t* times, int32_t count) override {
        return recordAddFrames(token, times, count);
    }
};

std::vector<std::shared_ptr<ScriptedTaskState>> scriptedAudioTasks() {
    std::lock_guard<std::mutex> lock(gRegistryMutex);
    return gAudioTasks;
}
std::vector<std::shared_ptr<ScriptedTaskState>> scriptedVideoTasks() {
    std::lock_guard<std::mutex> lock(gRegistryMutex);
    return gVideoTasks;
}
std::shared_ptr<ScriptedTaskState> lastAudioTask() {
    std::lock_guard<std::mutex> lock(gRegistryMutex);
    return gAudioTasks.empty() ? nullptr : gAudioTasks.back();
}
std::shared_ptr<ScriptedTaskState> lastVideoTask() {
    std::lock_guard<std::mutex> lock(gRegistryMutex);
    return gVideoTasks.empty() ? nullptr : gVideoTasks.back();
}
int32_t liveScriptedTasks() { return gLive.load(); }
void resetScriptedTasks() {
    std::lock_guard<std::mutex> lock(gRegistryMutex);
    gAudioTasks.clear();
    gVideoTasks.clear();
}

}  // namespace ZOR::test

extern "C" {

ZOR::IBsAudioWaveExtractTask* createAudioWaveExtractTask() {
    auto state = std::make_shared<ZOR::test::ScriptedTaskState>();
    {
        std::lock_guard<std::mutex> lock(ZOR::test::gRegistryMutex);
        ZOR::test::gAudioTasks.push_back(state);
    }
    auto* task = new ZOR::test::ScriptedAudioTask(state);
    task->AddRef();
    return task;
}

ZOR::IBsVideoFrameExtractTask* createVideoFrameExtractTask() {
    auto state = std::make_shared<ZOR::test::ScriptedTaskState>();
    {
        std::lock_guard<std::mutex> lock(ZOR::test::gRegistryMutex);
        ZOR::test::gVideoTasks.push_back(state);
    }
    auto* task = new ZOR::test::ScriptedVideoTask(state);
    task->AddRef();
    return task;
}

}  // extern "C"
