// ZorUtils: timing, property records, paths and folders, writing files,
// PNG files, sizes.
//
// Every function here is thread-safe; TimeSpan and Path objects belong to the
// thread that uses them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "ZorPlatformExport.h"

namespace ZOR {

// ---------------------------------------------------------------------------
// Time

// Milliseconds between start() and end(), measured on a monotonic clock.
class ZOR_PLATFORM_API TimeSpan {
public:
    TimeSpan();
    ~TimeSpan();
    TimeSpan& start();
    TimeSpan& end();
    // Whole milliseconds from start to end, truncated; 0 before both are set.
    int64_t timeSpan() const;

private:
    int64_t startNs_ = 0;
    int64_t endNs_ = 0;
};

// The monotonic clock behind TimeSpan, in nanoseconds. Tests may replace it to
// make durations exact; null restores the steady clock. Returns the previous
// replacement (null when none).
using SteadyClockFn = int64_t (*)();
ZOR_PLATFORM_API int64_t zorSteadyNowNs();
ZOR_PLATFORM_API SteadyClockFn setSteadyClockForTesting(SteadyClockFn clock);

// Sleeps the calling thread for this many milliseconds (nothing for <= 0).
ZOR_PLATFORM_API void ZorSleep(int64_t milliseconds);

// ---------------------------------------------------------------------------
// Property records

struct ZorProperty {
    enum Kind : int32_t { None = 0, Bool = 1, Int = 2, Double = 3 };
    Kind kind = None;
    int64_t intValue = 0;      // Bool: 0 or 1; Int: the value
    double doubleValue = 0.0;  // Double: the value

    bool boolValue() const { return kind == Double ? doubleValue != 0.0 : intValue != 0; }
};

ZOR_PLATFORM_API ZorProperty boolProperty(bool value);
ZOR_PLATFORM_API ZorProperty intProperty(int64_t value);
ZOR_PLATFORM_API ZorProperty doubleProperty(double value);

// ---------------------------------------------------------------------------
// Paths and folders (UTF-8 text)

class ZOR_PLATFORM_API Path {
public:
    Path() = default;
    Path(std::string text) : text_(std::move(text)) {}   // NOLINT(google-explicit-constructor)
    Path(const char* text) : text_(text ? text : "") {}  // NOLINT(google-explicit-constructor)
    const std::string& str() const { return text_; }
    const char* c_str() const { return text_.c_str(); }
    bool empty() const { return text_.empty(); }

private:
    std::string text_;
};

struct ZOR_PLATFORM_API PathUtil {
    // dir + "/" + name, with one separator between them; an empty dir gives name.
    static Path join(const Path& dir, const std::string& name);
    // Whether something exists at the path (file or folder).
    static bool exists(const Path& path);
};

struct ZOR_PLATFORM_API DirUtil {
    // Creates the folder and any missing parents (createFolder). True when it
    // exists afterwards.
    static bool create(const Path& dir);
    // Removes the folder and everything in it. True on success, and when there
    // was nothing to remove.
    static bool removeAll(const Path& dir);
};

// Whether anything in one folder changed: an entry created, written, removed
// or renamed. Backed by the system's change notifications, so it can say
// "nothing changed" with certainty: a change made by any process before a
// call of changed() returned is seen by that call or an earlier one. Owned by
// one thread at a time (its calls are not locked).
class ZOR_PLATFORM_API FolderWatch {
public:
    // Watches the folder at path (which must exist).
    explicit FolderWatch(const Path& path);
    ~FolderWatch();
    FolderWatch(const FolderWatch&) = delete;
    FolderWatch& operator=(const FolderWatch&) = delete;

    // Whether changes can be told: false when the system would not watch
    // the folder (it is missing, or too many folders are watched); then
    // changed() always says true.
    bool valid() const;
    // True when something in the folder changed since the previous call (or
    // since the watch began), and whenever the watch can no longer tell (the
    // system dropped notifications, or the folder itself went or moved).
    // Never blocks.
    bool changed();

private:
    int handle_ = -1;
    bool broken_ = true;
};

// ---------------------------------------------------------------------------
// Writing files and folders
//
// Every write goes through here so that the cause of a failure is known where
// it happens: each function returns 0 or the errno of what failed, and the
// latest failure in each folder is kept, so that whoever finds a file missing
// later (the thread that asked for it, not the worker that wrote it) can say
// why. A file is written whole: under the temporary name
// "<file>.tmp-<pid>-<n>" in its own folder, flushed to disk, then renamed over
// the file, so no reader ever sees a partial file. A temporary is removed when
// its write fails; one whose writer died is removed by
// removeAbandonedTemporaries.

// Creates the folder and any missing parents. 0 when it is a folder
// afterwards; otherwise the errno (ENOTDIR when a file stands in the way).
ZOR_PLATFORM_API int32_t createFolder(const Path& dir);

// Creates the folder as createFolder does, then checks that a file can be
// written in it: a temporary file of one byte is written, flushed to disk and
// removed. 0 or the errno.
ZOR_PLATFORM_API int32_t checkFolderWritable(const Path& dir);

// Writes size bytes as the file at path, whole (see above). 0 or the errno.
ZOR_PLATFORM_API int32_t writeFileAtomically(const char* path, const void* data, size_t size);

// The errno of the latest failed write in this process into dir (a file
// written in it, or dir itself not created), and the path that failed; 0 (and
// failedPath untouched) when none failed. dir is compared as written, less
// trailing separators.
ZOR_PLATFORM_API int32_t lastWriteFailure(const Path& dir, std::string* failedPath);

// Injected write faults, for tests and fault drills: the nth file written
// whole from now on (1: the next), through writeFileAtomically, dumpPNG and
// every store and folder that uses them, fails with error as a disk would:
// EACCES and EROFS when the temporary file is opened, ENOSPC, EDQUOT and
// anything else after part of the content is written (the temporary is
// removed as for a real failure), EIO when the file is flushed to disk. Each
// call replaces the fault pending; error 0 cancels it. The fault fires once.
// MIRAVEL_WRITE_FAULT="<errno name or number>:<n>" (for example
// "ENOSPC:3") sets one at the first write of a process. Thread-safe; writes
// are counted in the order they reach the seam.
ZOR_PLATFORM_API void injectWriteFault(int32_t error, int64_t nth);
// How many writes the seam has seen in this process (failed ones included).
ZOR_PLATFORM_API int64_t writesSeen();

// Words for the errno of a failed write: "disk full" (ENOSPC, EDQUOT),
// "read-only file system" (EROFS), "permission denied" (EACCES, EPERM), "not a
// folder" (ENOTDIR), otherwise strerror's text.
ZOR_PLATFORM_API std::string writeErrorText(int32_t error);

// Whether a file name is the temporary of a writer that is gone:
// "<name>.tmp-<pid>-<n>" whose process no longer exists. The temporaries of
// this process and of processes alive are not.
ZOR_PLATFORM_API bool isAbandonedTemporary(const std::string& fileName);

// Removes the abandoned temporaries directly in dir (not below it). Returns
// how many were removed.
ZOR_PLATFORM_API int32_t removeAbandonedTemporaries(const Path& dir);

// Media held in memory: while bytes are set for a path, the media readers
// (probing, wave extraction, frame decoding) read them instead of the file at
// that path, as if it were a file that is not regular (nothing of it is kept
// between opens). For fuzzing and tests that feed many inputs without files.
// The bytes are not copied: they must stay alive and unchanged until
// clearMemoryMedia(path). Thread-safe.
ZOR_PLATFORM_API void setMemoryMedia(const char* path, const unsigned char* bytes, size_t size);
ZOR_PLATFORM_API void clearMemoryMedia(const char* path);
// The bytes set for path: true with *bytes and *size set, or false.
ZOR_PLATFORM_API bool findMemoryMedia(const char* path, const unsigned char** bytes, size_t* size);

// ---------------------------------------------------------------------------
// PNG files of 8-bit RGBA pixels, rows without padding

// Loads a PNG file as RGBA (any PNG colour type and depth is converted). On
// success returns 0, sets *buffer to a buffer that freeImageBuffer() releases
// and sets the size. On failure returns a non-zero code, sets *buffer to null
// and leaves the sizes as they were.
ZOR_PLATFORM_API int32_t loadPNG(const char* path, unsigned char** buffer, int* width, int* height);

// Writes width x height RGBA pixels as a PNG file. The file is written whole,
// as writeFileAtomically writes (a failure is kept for lastWriteFailure); on
// failure nothing is left behind. compressionLevel: 0..9, or -1 for the
// default. Returns 0 on success.
ZOR_PLATFORM_API int32_t dumpPNG(int width, int height, const unsigned char* buffer, const char* path,
                                 int compressionLevel);

// Releases a buffer that loadPNG() produced. Null is ignored.
ZOR_PLATFORM_API void freeImageBuffer(unsigned char* buffer);

// ---------------------------------------------------------------------------
// Sizes

// Fits width x height into the box boxWidth x boxHeight keeping the aspect
// ratio, scaling up or down. The bound side takes the box's size exactly; the
// other is rounded down (never below 1). 1920x1080 into 320x180 gives 320x180,
// 1080x1920 gives 101x180. Returns false (and 0x0) when any size is below 1.
ZOR_PLATFORM_API bool adjust(int width, int height, int boxWidth, int boxHeight, int* outWidth, int* outHeight);

// ---------------------------------------------------------------------------
// Strings

// Copies src into dst, at most dstSize - 1 bytes, and always terminates dst
// (when dstSize > 0). A null src copies "". Returns dst.
ZOR_PLATFORM_API char* zor_strcpy(char* dst, size_t dstSize, const char* src);

}  // namespace ZOR
