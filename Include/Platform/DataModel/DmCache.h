// DataModel, host side: the cache root, where the data model keeps what it
// decoded so that a later process finds it on disk.
//
//   <root>/waves/   the wave store: the wave levels of audio streams, one file
//                   per stream of a media content (".mwav")
//   <root>/frames/  the frame store: decoded video frames as PNG files
//
// The root is "$XDG_CACHE_HOME/miravel", or "$HOME/.cache/miravel" when
// XDG_CACHE_HOME is unset or empty ("/tmp/miravel" without either). Both
// stores share one budget: MIRAVEL_CACHE_BUDGET, in bytes, with an optional
// K, M or G suffix (powers of 1024); default 2 GiB. When a write takes the
// stores past the budget, their least recently used files go first (a file's
// time is set when it is used), never a file in use by this process: a wave
// store file of a stream it holds, or a frame it made or used in the last 10
// minutes. A budget of 0 keeps nothing beyond the process: the wave store
// writes no file, and the frame store's files of earlier processes are
// removed by the next write.
// The media thumbnail manager's folder stays where its client puts it and is
// not counted. Thread-safe.
#pragma once

#include <cstdint>
#include <string>

#include "ZorPlatformExport.h"

namespace ZOR {

// The cache root as the environment names it now.
ZOR_PLATFORM_API std::string cacheRoot();
// The budget of the stores in bytes, from MIRAVEL_CACHE_BUDGET (read again at
// each call); a value that cannot be read gives the default.
ZOR_PLATFORM_API int64_t cacheBudget();
// Parses a budget ("2G", "500M", "1048576"): false for anything else.
ZOR_PLATFORM_API bool parseCacheBudget(const std::string& text, int64_t* bytes);

// Whether the wave store keeps levels on disk: not with a budget of 0, nor
// with MIRAVEL_WAVE_STORE=0 (or "off"), which turns it off (as tests that
// watch a process's own decoding do).
ZOR_PLATFORM_API bool waveStoreEnabled();
// Overrides the environment: 1 keeps levels on disk (still not with a budget
// of 0), 0 keeps them in memory only, -1 goes back to the environment. For
// hosts that keep their own store, and for tests. Returns 0.
ZOR_PLATFORM_API int32_t setWaveStoreSwitch(int32_t mode);

// The wave store's folder: "<root>/waves" unless set (null or "" goes back to
// that default). Returns 0.
ZOR_PLATFORM_API int32_t setWaveStoreRoot(const char* path);
ZOR_PLATFORM_API std::string waveStoreRoot();

struct DmCacheStoreUsage {
    int64_t files = 0;
    int64_t bytes = 0;
};

struct DmCacheUsage {
    std::string root;  // the cache root
    int64_t budget = 0;
    int64_t bytes = 0;  // waves + frames
    DmCacheStoreUsage waves;
    DmCacheStoreUsage frames;
};

// What the two stores hold now.
ZOR_PLATFORM_API DmCacheUsage cacheUsage();
// Removes the least recently used files of the two stores until they hold at
// most bytes (never a file in use); returns the usage after.
ZOR_PLATFORM_API DmCacheUsage pruneCache(int64_t bytes);
// Removes every file of the two stores that is not in use; returns the usage
// after.
ZOR_PLATFORM_API DmCacheUsage clearCache();

// For the stores: a file was written (bytes more on disk); keeps the budget.
ZOR_PLATFORM_API void noteCacheWrite(int64_t bytes);
// For the stores: marks a file as in use (counted: as often held as released).
ZOR_PLATFORM_API void holdCacheFile(const std::string& path);
ZOR_PLATFORM_API void releaseCacheFile(const std::string& path);
// For the stores: the file was used now (its time moves on).
ZOR_PLATFORM_API void touchCacheFile(const std::string& path);

}  // namespace ZOR
