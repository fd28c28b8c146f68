// The requests an extraction wrapper has submitted and the task has not yet
// reported, by token. Each entry holds one reference on its clip.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "BsPointerValue.h"
#include "DataModel/DataModel.h"

namespace ZOR {

inline void addRefClip(IDmClip* clip) {
    if (clip != nullptr) clip->AddRef();
}
inline void releaseClip(IDmClip* clip) {
    if (clip != nullptr) clip->Release();
}

// Query: a value type with a member `IDmClip* clip`. Clips are released after
// the lock is dropped, so no data-model code runs under it.
template <class Query>
class BsPendingRequests {
public:
    BsPendingRequests() = default;
    BsPendingRequests(const BsPendingRequests&) = delete;
    BsPendingRequests& operator=(const BsPendingRequests&) = delete;
    ~BsPendingRequests() {
        for (auto& entry : entries_) releaseClip(entry.second.clip);
    }

    // Sets the entry of token to query, with its own reference on the clip.
    void store(int64_t token, Query query) {
        addRefClip(query.clip);
        IDmClip* replaced = nullptr;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            Query& entry = entries_[token];
            replaced = entry.clip;
            entry = std::move(query);
        }
        releaseClip(replaced);
    }

    // A report the task made for a token before its entry was stored: the
    // task may finish a request (an empty range, frames all on disk) before
    // append() has returned to the wrapper.
    struct EarlyReport {
        int64_t token = -1;
        int32_t status = 0;
        int32_t progress = 0;
    };

    // An append is about to be made: reports of tokens not stored yet are
    // kept until storeAppended().
    void appendStarting() {
        std::lock_guard<std::mutex> lock(mutex_);
        ++appending_;
    }

    // store() after an append that appendStarting() announced; returns the
    // reports that came for token meanwhile, for the caller to handle now.
    std::vector<EarlyReport> storeAppended(int64_t token, Query query) {
        addRefClip(query.clip);
        IDmClip* replaced = nullptr;
        std::vector<EarlyReport> early;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            Query& entry = entries_[token];
            replaced = entry.clip;
            entry = std::move(query);
            if (appending_ > 0) --appending_;
            for (auto it = early_.begin(); it != early_.end();) {
                if (it->token == token) {
                    early.push_back(*it);
                    it = early_.erase(it);
                } else {
                    ++it;
                }
            }
            // Nobody else is appending: the rest are of tokens never stored.
            if (appending_ == 0) early_.clear();
        }
        releaseClip(replaced);
        return early;
    }

    // take(), or, when the entry is not there while an append is in flight,
    // keeps the report for storeAppended() and sets *kept.
    std::optional<Query> takeOrKeep(int64_t token, int32_t status, int32_t progress, bool* kept) {
        std::lock_guard<std::mutex> lock(mutex_);
        *kept = false;
        auto found = entries_.find(token);
        if (found == entries_.end()) {
            if (appending_ > 0) {
                early_.push_back(EarlyReport{token, status, progress});
                *kept = true;
            }
            return std::nullopt;
        }
        Query query = std::move(found->second);
        entries_.erase(found);
        return query;
    }

    // Removes and returns the entry of token; the caller takes over its
    // reference on the clip.
    std::optional<Query> take(int64_t token) {
        std::lock_guard<std::mutex> lock(mutex_);
        auto found = entries_.find(token);
        if (found == entries_.end()) return std::nullopt;
        Query query = std::move(found->second);
        entries_.erase(found);
        return query;
    }

    // Removes the entry of token, if any.
    void erase(int64_t token) {
        if (std::optional<Query> query = take(token)) releaseClip(query->clip);
    }

    // The tokens of the entries of clip, ascending.
    std::vector<int64_t> tokensOf(IDmClip* clip) const {
        std::vector<int64_t> tokens;
        std::lock_guard<std::mutex> lock(mutex_);
        for (const auto& entry : entries_)
            if (entry.second.clip == clip) tokens.push_back(entry.first);
        return tokens;
    }

    // Calls call(token) for every entry, ascending, with the lock held.
    template <class Call>
    void forEachTokenLocked(Call&& call) const {
        std::lock_guard<std::mutex> lock(mutex_);
        for (const auto& entry : entries_) call(entry.first);
    }

private:
    // Guards entries_, appending_ and early_. Never held together with the callback list's lock; the
    // only call out under it is the task's cancel of every request.
    mutable std::mutex mutex_;
    std::map<int64_t, Query> entries_;
    int32_t appending_ = 0;           // appends in flight, guarded by mutex_
    std::vector<EarlyReport> early_;  // guarded by mutex_
};

}  // namespace ZOR
