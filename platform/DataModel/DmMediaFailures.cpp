// Media the host could not read or decode, noted by the extraction tasks for
// the clients that wait on thumbnails of it.
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "DataModel/DmMedia.h"
#include "DataModel/DmMediaInternal.h"
#include "DmMediaProbe.h"

namespace ZOR {

namespace {

struct Noted {
    DmFileIdentity identity;  // the file as it was when the failure was noted
    std::string cause;
};

struct Listener {
    std::mutex calling;  // held while the listener runs; after the registry's lock
    bool removed = false;
    std::function<void(const DmMediaFailure&)> call;
};

class Failures {
public:
    static Failures& instance() {
        static Failures failures;
        return failures;
    }

    void note(const std::string& path, int32_t kind, const std::string& cause) {
        const DmFileIdentity identity = mediaFileIdentity(path.c_str());
        std::vector<std::shared_ptr<Listener>> listeners;
        {
            std::lock_guard<std::mutex> lock(lock_);
            noted_[{path, kind}] = Noted{identity, cause};
            for (const auto& [id, listener] : listeners_) listeners.push_back(listener);
        }
        const DmMediaFailure failure{path, kind, cause};
        for (const std::shared_ptr<Listener>& listener : listeners) {
            std::lock_guard<std::mutex> calling(listener->calling);
            if (!listener->removed) listener->call(failure);
        }
    }

    bool find(const std::string& path, int32_t kind, std::string* cause) {
        // The file is looked at before the lock: a stat may be slow.
        const DmFileIdentity identity = mediaFileIdentity(path.c_str());
        std::lock_guard<std::mutex> lock(lock_);
        const auto found = noted_.find({path, kind});
        if (found == noted_.end()) return false;
        if (!(found->second.identity == identity)) {
            // The file changed since: it may read now.
            noted_.erase(found);
            return false;
        }
        if (cause != nullptr) *cause = found->second.cause;
        return true;
    }

    void forget(const std::string& path) {
        std::lock_guard<std::mutex> lock(lock_);
        for (auto it = noted_.begin(); it != noted_.end();)
            it = it->first.first == path ? noted_.erase(it) : std::next(it);
    }

    int64_t add(std::function<void(const DmMediaFailure&)> call) {
        auto listener = std::make_shared<Listener>();
        listener->call = std::move(call);
        std::lock_guard<std::mutex> lock(lock_);
        const int64_t id = ++lastId_;
        listeners_[id] = std::move(listener);
        return id;
    }

    void remove(int64_t id) {
        std::shared_ptr<Listener> listener;
        {
            std::lock_guard<std::mutex> lock(lock_);
            const auto found = listeners_.find(id);
            if (found == listeners_.end()) return;
            listener = std::move(found->second);
            listeners_.erase(found);
        }
        // Waits for a call in progress on another thread.
        std::lock_guard<std::mutex> calling(listener->calling);
        listener->removed = true;
    }

private:
    std::mutex lock_;  // guards noted_, listeners_ and lastId_; taken before a listener's `calling`
    std::map<std::pair<std::string, int32_t>, Noted> noted_;
    std::map<int64_t, std::shared_ptr<Listener>> listeners_;
    int64_t lastId_ = 0;
};

}  // namespace

void noteMediaFailure(const char* path, int32_t kind, const char* cause) {
    if (path == nullptr || *path == '\0') return;
    Failures::instance().note(canonicalMediaPath(path), kind, cause != nullptr ? cause : "");
}

bool mediaFailure(const char* path, int32_t kind, std::string* cause) {
    if (path == nullptr || *path == '\0') return false;
    return Failures::instance().find(canonicalMediaPath(path), kind, cause);
}

void forgetMediaFailures(const char* path) {
    if (path == nullptr || *path == '\0') return;
    Failures::instance().forget(canonicalMediaPath(path));
}

int64_t addMediaFailureListener(std::function<void(const DmMediaFailure&)> listener) {
    if (!listener) return 0;
    return Failures::instance().add(std::move(listener));
}

void removeMediaFailureListener(int64_t id) { Failures::instance().remove(id); }

}  // namespace ZOR
