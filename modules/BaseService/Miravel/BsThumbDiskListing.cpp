#include "BsThumbDiskListing.h"

#include <charconv>
#include <chrono>
#include <system_error>

namespace ZOR {

namespace {

// Longer than the tick of any file system clock in use (jiffies: 1 to 10 ms).
constexpr auto kRacyMargin = std::chrono::milliseconds(50);

}  // namespace

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
    std::error_code error;
    const auto modified = std::filesystem::last_write_time(dir, error);
    if (error) return nullptr;
    std::shared_ptr<const Listing> held;
    {
        std::unique_lock<std::mutex> guard(lock_, std::try_to_lock);
        if (guard.owns_lock()) held = latest_;
    }
    if (held && held->dir == dir && held->box == box && held->modified == modified &&
        held->generation == generation &&
        (!held->racy || std::filesystem::file_time_type::clock::now() - modified < kRacyMargin))
        return held;
    std::shared_ptr<const Listing> fresh = read(dir, box, modified, generation);
    if (fresh) {
        std::unique_lock<std::mutex> guard(lock_, std::try_to_lock);
        if (guard.owns_lock()) latest_.swap(held = fresh);
    }
    // The listing replaced (if any) goes here, after the lock.
    return fresh;
}

std::shared_ptr<const BsThumbDiskListing::Listing> BsThumbDiskListing::read(
    const std::string& dir, uint64_t box, std::filesystem::file_time_type modified, uint64_t generation) {
    auto listing = std::make_shared<Listing>();
    listing->dir = dir;
    listing->box = box;
    listing->modified = modified;
    listing->generation = generation;
    // Read within the margin of the folder's time: a file added in the same
    // tick would not change that time, so this listing is read again once
    // the margin has passed.
    listing->racy = std::filesystem::file_time_type::clock::now() - modified < kRacyMargin;

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
