// Reading pictures ahead for the thumb adapter: the pictures its caller says
// it will ask for next are decoded on lanes, one thread and one decoder each,
// so that a strip of thumbnails keeps every core busy while the caller
// writes and announces the pictures already done.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ThumbAdapterInternal.h"

namespace ZOR::thumb {

class ReadAhead {
public:
    // lanes: decoding threads, at least 1.
    explicit ReadAhead(size_t lanes);
    // Waits for the lanes, each of which ends its current picture first.
    ~ReadAhead();
    ReadAhead(const ReadAhead&) = delete;
    ReadAhead& operator=(const ReadAhead&) = delete;

    // The file whose pictures are planned from now on, at this size and
    // mode. Forgets every plan and picture of the one before, and the lanes
    // open the file anew.
    void start(const std::string& path, int stream, int32_t width, int32_t height, bool keyframe, bool skipping);
    // Forgets the plan and the pictures; the lanes let their files go.
    void stop();

    // The times the caller will ask for next, in that order; replaces the
    // plan before. Pictures of times still planned are kept.
    void plan(const int64_t* times, size_t count);

    // The picture of a planned time into out (width x height x 4 bytes),
    // waiting for a lane when it is being decoded. Planned times before it
    // are dropped: the caller went past them. Returns 1 when out holds the
    // picture, 0 when time is not planned (nor held), a negative code with
    // *problem when the lane could not decode it.
    int take(int64_t time, unsigned char* out, std::string* problem);

    // What the lanes decoded, over every file.
    ThumbDecodeCounts counts();
    // Returns once no lane is decoding.
    void waitUntilIdle();

private:
    enum class State { Waiting, Claimed, Ready, Failed };
    struct Entry {
        int64_t time = 0;
        State state = State::Waiting;
        int result = 0;
        std::string problem;
        std::vector<unsigned char> pixels;
    };
    // What a lane is given to decode, copied out of the lock.
    struct Job {
        uint64_t epoch = 0;
        int64_t time = 0;
        std::string path;
        int stream = -1;
        int32_t width = 0;
        int32_t height = 0;
        bool keyframe = false;
        bool skipping = true;
    };

    // What a lane is doing, guarded by lock_ but for the flag.
    struct LaneState {
        bool busy = false;
        uint64_t epoch = 0;
        int64_t time = 0;
        std::atomic<bool> abandon{false};  // set under lock_, read by the lane's decoder
    };

    void lane(size_t index);
    // The first waiting entry a lane may take (within the window), or
    // entries_.size().
    size_t claimable() const;
    Entry* find(int64_t time);
    // Under lock_: tells each lane whose picture is no longer wanted (another
    // file, or gone from the plan) to stop decoding it.
    void abandonStale();

    // Lock order: the adapter's mutex, then this one; the lanes take only
    // this one, and never hold it while decoding.
    std::mutex lock_;
    std::condition_variable work_;   // lanes: an entry to claim, or stopping
    std::condition_variable ready_;  // take(): an entry decoded or dropped
    uint64_t epoch_ = 0;             // bumped by start() and stop()
    bool open_ = false;              // a file is started
    bool stopping_ = false;
    std::string path_;
    int stream_ = -1;
    int32_t width_ = 0;
    int32_t height_ = 0;
    bool keyframe_ = false;
    bool skipping_ = true;
    std::deque<Entry> entries_;                  // the plan, in the caller's order
    size_t window_ = 1;                          // entries at the front the lanes may take
    std::vector<ThumbDecodeCounts> laneCounts_;  // published by each lane after a picture
    std::unique_ptr<LaneState[]> laneStates_;    // one a lane
    size_t laneCount_ = 0;
    std::vector<std::thread> lanes_;  // joined by the destructor
};

}  // namespace ZOR::thumb
