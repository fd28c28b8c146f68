// What the roads share: a scratch folder for inputs that must be files, and
// bytes standing as media in memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace ZOR::fuzz {

// A file of this process's scratch folder (made once under $TMPDIR or /tmp,
// removed at exit), holding data. Empty when it cannot be written.
std::string scratchFile(const char* name, const uint8_t* data, size_t size);

// Bytes standing as the media at a path that does not exist, while in scope.
class MemoryMedia {
public:
    MemoryMedia(std::string path, const uint8_t* data, size_t size);
    ~MemoryMedia();
    MemoryMedia(const MemoryMedia&) = delete;
    MemoryMedia& operator=(const MemoryMedia&) = delete;
    const char* path() const { return path_.c_str(); }

private:
    std::string path_;
};

// With MIRAVEL_FUZZ_VERBOSE set, one line on standard error of what a road
// made of an input (printf format); nothing otherwise.
void tell(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Reads every byte of a buffer, so that a sanitizer sees a short one.
uint32_t touch(const unsigned char* bytes, size_t size);

}  // namespace ZOR::fuzz
