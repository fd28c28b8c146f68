// What the media thumbnail folder holds, so that looking for the nearest
// picture on disk need not ask the disk for every candidate file.
//
// A listing names the frame indices whose files exist for one folder and one
// box size. It answers only while it cannot be stale: the folder is watched
// through the system's change notifications (ZorUtils' FolderWatch), and a
// listing is read again whenever anything in the folder changed since it was
// read, or when the manager says it wrote or removed a file. Where the folder
// cannot be watched, or another thread is using the listing, there is no
// listing and the caller asks the disk for each candidate.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_set>

#include "ZorUtils/ZorUtils.h"

namespace ZOR {

class BsThumbDiskListing {
public:
    struct Listing {
        std::string dir;
        uint64_t box = 0;         // width in the high half
        uint64_t generation = 0;  // changed() calls before it was read
        std::unordered_set<int64_t> indices;
    };

    // The file name of a frame index in a box (width in the high half):
    // "49_320_180.png", or "49.png" when a side is below 1.
    static std::string fileName(int64_t frameIndex, uint64_t box);

    // The listing of dir for box, read again when anything changed. Null
    // when it cannot be known to be current (the folder is missing or not
    // watched) or another thread is using it: never waits.
    std::shared_ptr<const Listing> current(const std::string& dir, uint64_t box);

    // A file was written or removed under a cache folder: listings read
    // before are read again.
    void changed() { generation_.fetch_add(1); }

private:
    static std::shared_ptr<const Listing> read(const std::string& dir, uint64_t box, uint64_t generation);

    std::atomic<uint64_t> generation_{0};
    std::mutex lock_;  // leaf, try-locked only: guards the three below
    std::string watchedDir_;
    std::unique_ptr<FolderWatch> watch_;
    std::shared_ptr<const Listing> latest_;
};

}  // namespace ZOR
