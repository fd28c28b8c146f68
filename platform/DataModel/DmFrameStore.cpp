// The frame store: root folder, media folders, file names and lookups.
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <mutex>
#include <string>
#include <system_error>

#include "Common/ZorInternalComUtility.h"
#include "DataModel/DmCache.h"
#include "DataModel/DmMedia.h"
#include "DataModel/DmMediaInternal.h"
#include "ZorUtils/ZorUtils.h"

ZOR_LOG_SOURCE("platform/DataModel/DmFrameStore")

namespace ZOR {

namespace {

struct RootSetting {
    std::mutex lock;     // leaf
    std::string chosen;  // guarded by lock; empty: the default
};

RootSetting& rootSetting() {
    static RootSetting* setting = new RootSetting;  // never destroyed: used by worker threads until exit
    return *setting;
}

std::string defaultRoot() { return (std::filesystem::path(cacheRoot()) / "frames").string(); }

uint64_t fnv1a(const std::string& text) {
    uint64_t hash = 14695981039346656037ULL;
    for (unsigned char c : text) {
        hash ^= c;
        hash *= 1099511628211ULL;
    }
    return hash;
}

std::string folderName(const std::string& fileName) {
    std::string name;
    for (char c : fileName) {
        if (name.size() >= 40) break;
        const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
                           c == '_' || c == '-';
        name += plain ? c : '_';
    }
    return name.empty() ? std::string("media") : name;
}

// Parses "<decimal>" at text, moving text past it; false when there is none.
bool parseInteger(const char*& text, int64_t* value) {
    char* end = nullptr;
    errno = 0;
    const long long parsed = std::strtoll(text, &end, 10);
    if (end == text || errno != 0) return false;
    *value = parsed;
    text = end;
    return true;
}

}  // namespace

int32_t setFrameStoreRoot(const char* path) {
    RootSetting& setting = rootSetting();
    std::string chosen = path != nullptr ? std::string(path) : std::string();
    {
        std::lock_guard<std::mutex> lock(setting.lock);
        setting.chosen = chosen;
    }
    ZOR_LOG(IBsLogger::Info, "ZOR::DmFrameStore::setFrameStoreRoot", "frame store root: '%s'",
            chosen.empty() ? defaultRoot().c_str() : chosen.c_str());
    return 0;
}

std::string frameStoreRoot() {
    RootSetting& setting = rootSetting();
    {
        std::lock_guard<std::mutex> lock(setting.lock);
        if (!setting.chosen.empty()) return setting.chosen;
    }
    return defaultRoot();
}

namespace {

struct UnstoredFrame {
    bool set = false;
    std::string folder;
    int64_t time = 0;
    int32_t width = 0;
    int32_t height = 0;
};

// Only the reporting thread reads what it set: no lock.
thread_local UnstoredFrame unstoredInReport;

}  // namespace

void setUnstoredFrameInReport(const char* folder, int64_t time, int32_t width, int32_t height) {
    unstoredInReport = folder != nullptr ? UnstoredFrame{true, folder, time, width, height} : UnstoredFrame{};
}

bool isUnstoredFrameInReport(const char* mediaPath, int64_t time, int32_t width, int32_t height) {
    const UnstoredFrame& frame = unstoredInReport;
    // The store folder is worked out only for the frame being reported.
    return frame.set && frame.time == time && frame.width == width && frame.height == height &&
           frame.folder == frameStoreFolder(mediaPath);
}

std::string frameStoreFolder(const char* mediaPath) {
    if (mediaPath == nullptr || *mediaPath == '\0') return std::string();
    struct stat info {};
    if (::stat(mediaPath, &info) != 0 || !S_ISREG(info.st_mode)) return std::string();
    const int64_t modified = static_cast<int64_t>(info.st_mtim.tv_sec) * 1'000'000'000 + info.st_mtim.tv_nsec;
    const std::string identity = std::string(mediaPath) + "\n" + std::to_string(static_cast<int64_t>(info.st_size)) +
                                 "\n" + std::to_string(modified);
    char digits[17];
    std::snprintf(digits, sizeof digits, "%016" PRIx64, fnv1a(identity));
    const std::string name = folderName(std::filesystem::path(mediaPath).filename().string()) + "-" + digits;
    return (std::filesystem::path(frameStoreRoot()) / name).string();
}

// Names of one stream and size: "s<stream>-<W>x<H>-t". Built by appending
// (GCC 12 misreports "literal" + std::string&& at -O3 as an overlapping copy).
static std::string frameNamePrefix(int32_t stream, int32_t width, int32_t height) {
    std::string prefix("s");
    prefix += std::to_string(stream);
    prefix += '-';
    prefix += std::to_string(width);
    prefix += 'x';
    prefix += std::to_string(height);
    prefix += "-t";
    return prefix;
}

std::string frameStoreFileName(int32_t stream, int32_t width, int32_t height, int64_t time, int64_t shown) {
    std::string name = frameNamePrefix(stream, width, height);
    name += std::to_string(time);
    name += "-p";
    name += std::to_string(shown);
    name += ".png";
    return name;
}

std::vector<DmStoredFrame> frameStoreScan(const std::string& folder, int32_t stream, int32_t width, int32_t height) {
    std::vector<DmStoredFrame> frames;
    if (folder.empty()) return frames;
    const std::string prefix = frameNamePrefix(stream, width, height);
    // time -> (modification time, frame): the newest file wins.
    std::map<int64_t, std::pair<std::filesystem::file_time_type, DmStoredFrame>> found;
    std::error_code ec;
    for (auto it = std::filesystem::directory_iterator(folder, ec); !ec && it != std::filesystem::directory_iterator();
         it.increment(ec)) {
        const std::string name = it->path().filename().string();
        // A picture whose writer died half way is never listed; the scan
        // clears it away.
        if (isAbandonedTemporary(name)) {
            std::error_code removeEc;
            std::filesystem::remove(it->path(), removeEc);
            continue;
        }
        if (name.size() <= prefix.size() + 4 || name.compare(0, prefix.size(), prefix) != 0) continue;
        if (name.compare(name.size() - 4, 4, ".png") != 0) continue;
        const char* text = name.c_str() + prefix.size();
        int64_t time = 0;
        int64_t shown = 0;
        if (!parseInteger(text, &time) || std::strncmp(text, "-p", 2) != 0) continue;
        text += 2;
        if (!parseInteger(text, &shown) || std::strcmp(text, ".png") != 0) continue;
        std::error_code timeEc;
        const auto modified = it->last_write_time(timeEc);
        auto existing = found.find(time);
        if (existing != found.end() && existing->second.first >= modified) continue;
        found[time] = {modified, DmStoredFrame{time, shown, it->path().string()}};
    }
    frames.reserve(found.size());
    for (auto& entry : found) frames.push_back(std::move(entry.second.second));
    return frames;
}

}  // namespace ZOR
