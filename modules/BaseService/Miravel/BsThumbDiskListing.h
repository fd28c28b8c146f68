// What the media thumbnail folder holds, so that looking for the nearest
// picture on disk costs one stat of the folder instead of one stat per
// candidate file.
//
// A listing names the frame indices whose files exist for one folder and
// one box size. It is read again when the folder's modification time
// changes. A file system stamps that time with a coarse clock, so a file
// added within the same tick as the listing was read would leave it
// unchanged: a listing read within kRacyMargin of the folder's time is
// read again once that margin has passed. The manager's own writes and
// removals are told with changed(), which no clock can hide.
#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_set>

namespace ZOR {

class BsThumbDiskListing {
public:
    struct Listing {
        std::string dir;
        uint64_t box = 0;  // width in the high half
        std::filesystem::file_time_type modified{};
        bool racy = false;
        uint64_t generation = 0;  // changed() calls before it was read
        std::unordered_set<int64_t> indices;
    };

    // The file name of a frame index in a box (width in the high half):
    // "49_320_180.png", or "49.png" when a side is below 1.
    static std::string fileName(int64_t frameIndex, uint64_t box);

    // The listing of dir for box, read again when it may be out of date.
    // Null when the folder cannot be read (then nothing is on disk, or the
    // caller asks each file). Never waits for another thread: when one is
    // storing a listing, this one is read and not kept.
    std::shared_ptr<const Listing> current(const std::string& dir, uint64_t box);

    // A file was written or removed under a cache folder: listings read
    // before are read again.
    void changed() { generation_.fetch_add(1); }

private:
    static std::shared_ptr<const Listing> read(const std::string& dir, uint64_t box,
                                               std::filesystem::file_time_type modified, uint64_t generation);

    std::atomic<uint64_t> generation_{0};
    std::mutex lock_;  // leaf, try-locked only: guards latest_
    std::shared_ptr<const Listing> latest_;
};

}  // namespace ZOR
