#include "ThumbReadAhead.h"

#include <algorithm>
#include <cstring>
#include <unordered_set>
#include <utility>

#include "ThumbFrameSession.h"

namespace ZOR::thumb {

namespace {

// Pictures decoded ahead of the one the caller waits for, per lane: enough
// to keep a lane busy while the caller writes a picture, few enough that
// a picture no longer wanted costs little.
constexpr size_t kAheadPerLane = 2;

}  // namespace

ReadAhead::ReadAhead(size_t lanes) {
    lanes = std::max<size_t>(lanes, 1);
    window_ = lanes * kAheadPerLane;
    laneCounts_.resize(lanes);
    laneStates_ = std::make_unique<LaneState[]>(lanes);
    laneCount_ = lanes;
    lanes_.reserve(lanes);
    try {
        for (size_t index = 0; index < lanes; ++index) lanes_.emplace_back([this, index] { lane(index); });
    } catch (...) {
        // No thread to be had: the lanes started so far end before the
        // error goes on.
        {
            std::lock_guard<std::mutex> guard(lock_);
            stopping_ = true;
        }
        work_.notify_all();
        for (std::thread& thread : lanes_) thread.join();
        throw;
    }
}

ReadAhead::~ReadAhead() {
    {
        std::lock_guard<std::mutex> guard(lock_);
        stopping_ = true;
        entries_.clear();
        abandonStale();
    }
    work_.notify_all();
    ready_.notify_all();
    for (std::thread& thread : lanes_) thread.join();
}

void ReadAhead::start(const std::string& path, int stream, int32_t width, int32_t height, bool keyframe,
                      bool skipping) {
    {
        std::lock_guard<std::mutex> guard(lock_);
        ++epoch_;
        open_ = true;
        path_ = path;
        stream_ = stream;
        width_ = width;
        height_ = height;
        keyframe_ = keyframe;
        skipping_ = skipping;
        entries_.clear();
        abandonStale();
    }
    work_.notify_all();
    ready_.notify_all();
}

void ReadAhead::stop() {
    {
        std::lock_guard<std::mutex> guard(lock_);
        ++epoch_;
        open_ = false;
        entries_.clear();
        abandonStale();
    }
    work_.notify_all();
    ready_.notify_all();
}

void ReadAhead::plan(const int64_t* times, size_t count) {
    {
        std::lock_guard<std::mutex> guard(lock_);
        if (!open_) return;
        std::deque<Entry> planned;
        std::unordered_set<int64_t> seen;
        for (size_t i = 0; i < count; ++i) {
            const int64_t time = times[i];
            if (!seen.insert(time).second) continue;
            if (Entry* known = find(time)) {
                planned.push_back(std::move(*known));
            } else {
                Entry entry;
                entry.time = time;
                planned.push_back(std::move(entry));
            }
        }
        // A picture being decoded that is no longer planned is dropped when
        // its lane hands it in.
        entries_ = std::move(planned);
        abandonStale();
    }
    work_.notify_all();
    ready_.notify_all();
}

int ReadAhead::take(int64_t time, unsigned char* out, std::string* problem) {
    std::unique_lock<std::mutex> lock(lock_);
    auto position = [&] {
        return std::find_if(entries_.begin(), entries_.end(), [time](const Entry& e) { return e.time == time; });
    };
    auto found = position();
    if (found == entries_.end()) return 0;
    if (found != entries_.begin()) {
        // The times before it were passed over; the lanes move on to the
        // ones after it.
        entries_.erase(entries_.begin(), found);
        abandonStale();
        work_.notify_all();
    }
    ready_.wait(lock, [&] {
        const auto at = position();
        return stopping_ || at == entries_.end() || at->state == State::Ready || at->state == State::Failed;
    });
    found = position();
    if (found == entries_.end()) return 0;
    // Taken out of the plan; the picture is copied after the lock.
    Entry taken = std::move(*found);
    entries_.erase(found);
    lock.unlock();
    work_.notify_all();
    if (taken.state == State::Ready) {
        std::memcpy(out, taken.pixels.data(), taken.pixels.size());
        return 1;
    }
    if (problem != nullptr) *problem = std::move(taken.problem);
    return taken.result < 0 ? taken.result : -1;
}

ThumbDecodeCounts ReadAhead::counts() {
    std::lock_guard<std::mutex> guard(lock_);
    ThumbDecodeCounts total;
    for (const ThumbDecodeCounts& lane : laneCounts_) total += lane;
    return total;
}

void ReadAhead::waitUntilIdle() {
    std::unique_lock<std::mutex> lock(lock_);
    ready_.wait(lock, [&] {
        for (size_t i = 0; i < laneCount_; ++i)
            if (laneStates_[i].busy) return false;
        return true;
    });
}

size_t ReadAhead::claimable() const {
    const size_t limit = std::min(entries_.size(), window_);
    for (size_t i = 0; i < limit; ++i)
        if (entries_[i].state == State::Waiting) return i;
    return entries_.size();
}

void ReadAhead::abandonStale() {
    for (size_t i = 0; i < laneCount_; ++i) {
        LaneState& state = laneStates_[i];
        if (state.busy && (stopping_ || state.epoch != epoch_ || find(state.time) == nullptr))
            state.abandon.store(true);
    }
}

ReadAhead::Entry* ReadAhead::find(int64_t time) {
    for (Entry& entry : entries_)
        if (entry.time == time) return &entry;
    return nullptr;
}

void ReadAhead::lane(size_t index) {
    // Written by this thread only while it decodes; published under the
    // lock after each picture.
    ThumbDecodeCounts counts;
    std::unique_ptr<FrameSession> session;
    uint64_t sessionEpoch = 0;
    std::vector<unsigned char> pixels;
    for (;;) {
        Job job;
        {
            std::unique_lock<std::mutex> lock(lock_);
            const bool idle = stopping_ || !open_ || claimable() == entries_.size();
            if (idle && session && (!open_ || sessionEpoch != epoch_)) {
                // Nothing to do for the file this lane has open: let it go
                // (closed outside the lock).
                lock.unlock();
                session.reset();
                continue;
            }
            work_.wait(lock, [&] { return stopping_ || (open_ && claimable() != entries_.size()); });
            if (stopping_) return;
            Entry& entry = entries_[claimable()];
            entry.state = State::Claimed;
            job = Job{epoch_, entry.time, path_, stream_, width_, height_, keyframe_, skipping_};
            LaneState& state = laneStates_[index];
            state.busy = true;
            state.epoch = job.epoch;
            state.time = job.time;
            state.abandon.store(false);
        }
        // Each start() opens the file anew, as the adapter's own open does.
        if (!session || sessionEpoch != job.epoch) {
            session = std::make_unique<FrameSession>(job.path, job.stream, &counts);
            session->setAbandon(&laneStates_[index].abandon);
            sessionEpoch = job.epoch;
        }
        session->setSkipping(job.skipping);
        pixels.assign(static_cast<size_t>(job.width) * static_cast<size_t>(job.height) * 4, 0);
        std::string problem;
        const int result = session->pictureAt(job.time, job.keyframe, job.width, job.height, pixels.data(), &problem);
        bool abandoned = false;
        {
            std::lock_guard<std::mutex> guard(lock_);
            laneCounts_[index] = counts;
            LaneState& state = laneStates_[index];
            state.busy = false;
            abandoned = state.abandon.exchange(false);
            // An abandoned picture is nobody's (its time may be planned
            // again meanwhile, and taken by another lane).
            Entry* entry = !abandoned && job.epoch == epoch_ ? find(job.time) : nullptr;
            if (entry != nullptr && entry->state == State::Claimed) {
                if (result == 0) {
                    entry->state = State::Ready;
                    entry->pixels = std::move(pixels);
                    pixels = {};
                } else {
                    entry->state = State::Failed;
                    entry->result = result;
                    entry->problem = std::move(problem);
                }
            }
        }
        // A picture left half-way leaves the decoder somewhere unknown: the
        // next one starts with the file opened anew.
        if (abandoned) session.reset();
        ready_.notify_all();
        work_.notify_all();
    }
}

}  // namespace ZOR::thumb
