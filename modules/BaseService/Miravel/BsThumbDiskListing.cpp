#include "BsThumbDiskListing.h"

#include <charconv>
#include <filesystem>
#include <system_error>

namespace ZOR {

std::string BsThumbDiskListing::fileName(int64_t frameIndex, uint64_t box) {
    std::string name = std::to_string(frameIndex);
    const auto width = static_cast<int32_t>(box >> 32);
    const auto height = static_cast<int32_t>(box & 0xFFFFFFFFu);
    if (width >= 1 && height >= 1) {
        name += '_';
        name += std::to_string(width);
        name += '_';
        name += std::to_string(height);
    }
    name += ".png";
    return name;
}

std::shared_ptr<const BsThumbDiskListing::Listing> BsThumbDiskListing::current(const std::string& dir, uint64_t box) {
    // The generation first: a change told after this is seen next time.
    const uint64_t generation = generation_.load();
    std::unique_lock<std::mutex> guard(lock_, std::try_to_lock);
    if (!guard.owns_lock()) return nullptr;
    if (!watch_ || watchedDir_ != dir) {
        // Watched before it is read: a change after this is told.
        latest_.reset();
        watch_ = std::make_unique<FolderWatch>(Path(dir));
        watchedDir_ = dir;
    }
    if (!watch_->valid()) {
        // The folder may appear later: watch it anew next time.
        watch_.reset();
        return nullptr;
    }
    // Drained before reading: whatever changes from here on is told next time.
    const bool changedOnDisk = watch_->changed();
    if (!watch_->valid()) {
        watch_.reset();
        latest_.reset();
        return nullptr;
    }
    if (latest_ && !changedOnDisk && latest_->box == box && latest_->generation == generation) return latest_;
    // Read under the lock, which others only try: nobody waits for it.
    latest_ = read(dir, box, generation);
    return latest_;
}

std::shared_ptr<const BsThumbDiskListing::Listing> BsThumbDiskListing::read(const std::string& dir, uint64_t box,
                                                                            uint64_t generation) {
    auto listing = std::make_shared<Listing>();
    listing->dir = dir;
    listing->box = box;
    listing->generation = generation;

    const std::string suffix = fileName(0, box).substr(1);  // "_W_H.png" or ".png"
    std::error_code error;
    std::filesystem::directory_iterator entries(dir, error);
    if (error) return nullptr;
    for (; entries != std::filesystem::directory_iterator(); entries.increment(error)) {
        if (error) return nullptr;
        const std::string name = entries->path().filename().string();
        if (name.size() <= suffix.size() || name.compare(name.size() - suffix.size(), suffix.size(), suffix) != 0)
            continue;
        const char* begin = name.data();
        const char* end = name.data() + (name.size() - suffix.size());
        int64_t index = 0;
        const auto [next, code] = std::from_chars(begin, end, index);
        // Only the name the manager would build for that index counts
        // ("07_320_180.png" is not the file of 7).
        if (code != std::errc() || next != end || fileName(index, box) != name) continue;
        listing->indices.insert(index);
    }
    return listing;
}

}  // namespace ZOR
