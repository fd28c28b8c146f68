#include <map>
#include <mutex>
#include <string>

#include "ZorUtils/ZorUtils.h"

namespace ZOR {

namespace {

struct MemoryMedia {
    std::mutex lock;  // leaf: guards files only
    std::map<std::string, std::pair<const unsigned char*, size_t>, std::less<>> files;
};

MemoryMedia& memoryMedia() {
    static MemoryMedia* media = new MemoryMedia;  // never destroyed: readers may run during static destruction
    return *media;
}

}  // namespace

void setMemoryMedia(const char* path, const unsigned char* bytes, size_t size) {
    if (path == nullptr) return;
    MemoryMedia& media = memoryMedia();
    std::lock_guard<std::mutex> guard(media.lock);
    media.files[path] = {bytes, size};
}

void clearMemoryMedia(const char* path) {
    if (path == nullptr) return;
    MemoryMedia& media = memoryMedia();
    std::lock_guard<std::mutex> guard(media.lock);
    media.files.erase(path);
}

bool findMemoryMedia(const char* path, const unsigned char** bytes, size_t* size) {
    if (path == nullptr) return false;
    MemoryMedia& media = memoryMedia();
    std::lock_guard<std::mutex> guard(media.lock);
    if (media.files.empty()) return false;
    const auto found = media.files.find(std::string_view(path));
    if (found == media.files.end()) return false;
    *bytes = found->second.first;
    *size = found->second.second;
    return true;
}

}  // namespace ZOR
