// The cache root and its budget: what the wave store and the frame store hold,
// and the least recently used files removed when they hold too much.
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <map>
#include <mutex>
#include <string>
#include <system_error>
#include <vector>

#include "Common/ZorInternalComUtility.h"
#include "DataModel/DmCache.h"
#include "DataModel/DmMedia.h"
#include "ZorUtils/ZorUtils.h"

ZOR_LOG_SOURCE("platform/DataModel/DmCache")

namespace ZOR {

namespace {

namespace fs = std::filesystem;

constexpr int64_t kDefaultBudget = int64_t{2} << 30;
// Files this process wrote or used this recently are in use: a command
// prints the names of the pictures it made, and an editor shows them.
constexpr auto kRecentUse = std::chrono::minutes(10);

struct State {
    std::mutex lock;                   // leaf: guards everything below; no I/O under it
    std::string waveRoot;              // empty: the default
    std::map<std::string, int> inUse;  // files held, with their counts
    bool estimated = false;            // estimate holds the stores' bytes
    int64_t estimate = 0;
    std::atomic<bool> enforcing{false};  // one thread removes files at a time
};

State& state() {
    static State* instance = new State;  // never destroyed: stores write until exit
    return *instance;
}

const auto kProcessStart = fs::file_time_type::clock::now();

struct CacheFile {
    fs::path path;
    int64_t bytes = 0;
    fs::file_time_type used{};
    bool wave = false;
};

// Temporaries (their writers handle them, and the next run over the folder
// removes those of writers that died) and the wave store's lock files.
bool isTemporary(const std::string& name) {
    return name.find(".tmp-") != std::string::npos ||
           (name.size() > 5 && name.compare(name.size() - 5, 5, ".lock") == 0);
}

// Every file of the two stores (temporaries left out: their writers handle
// them, and the next run over the folder removes those of writers that died).
std::vector<CacheFile> listStores(DmCacheUsage* usage) {
    std::vector<CacheFile> files;
    const auto scan = [&](const std::string& root, bool wave, DmCacheStoreUsage* store) {
        std::error_code ec;
        if (root.empty() || !fs::is_directory(root, ec)) return;
        for (auto it = fs::recursive_directory_iterator(root, fs::directory_options::skip_permission_denied, ec);
             !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
            std::error_code fileEc;
            if (!it->is_regular_file(fileEc) || isTemporary(it->path().filename().string())) continue;
            CacheFile file;
            file.path = it->path();
            file.bytes = static_cast<int64_t>(it->file_size(fileEc));
            if (fileEc) continue;
            file.used = it->last_write_time(fileEc);
            file.wave = wave;
            if (store != nullptr) {
                ++store->files;
                store->bytes += file.bytes;
            }
            files.push_back(std::move(file));
        }
    };
    DmCacheUsage ignored;
    DmCacheUsage& counted = usage != nullptr ? *usage : ignored;
    scan(waveStoreRoot(), true, &counted.waves);
    scan(frameStoreRoot(), false, &counted.frames);
    counted.bytes = counted.waves.bytes + counted.frames.bytes;
    return files;
}

bool heldByThisProcess(const std::string& path) {
    State& s = state();
    std::lock_guard<std::mutex> guard(s.lock);
    const auto found = s.inUse.find(path);
    return found != s.inUse.end() && found->second > 0;
}

// Removes the least recently used files until the stores hold at most limit.
DmCacheUsage shrinkTo(int64_t limit, bool keepRecent) {
    DmCacheUsage usage;
    usage.root = cacheRoot();
    usage.budget = cacheBudget();
    std::vector<CacheFile> files = listStores(&usage);
    std::sort(files.begin(), files.end(), [](const CacheFile& a, const CacheFile& b) { return a.used < b.used; });
    // With no budget at all, only what this process made or used is kept.
    const auto recent =
        usage.budget == 0 ? kProcessStart : std::max(kProcessStart, fs::file_time_type::clock::now() - kRecentUse);
    for (const CacheFile& file : files) {
        if (usage.bytes <= limit) break;
        if (heldByThisProcess(file.path.string())) continue;
        if (keepRecent && !file.wave && file.used >= recent) continue;
        std::error_code ec;
        if (!fs::remove(file.path, ec) || ec) continue;
        usage.bytes -= file.bytes;
        DmCacheStoreUsage& store = file.wave ? usage.waves : usage.frames;
        store.bytes -= file.bytes;
        --store.files;
        // A media folder of the frame store that is left empty goes too, and
        // a store file's lock file.
        if (!file.wave) fs::remove(file.path.parent_path(), ec);  // fails harmlessly when not empty
        if (file.wave) fs::remove(file.path.string() + ".lock", ec);
    }
    State& s = state();
    {
        std::lock_guard<std::mutex> guard(s.lock);
        s.estimated = true;
        s.estimate = usage.bytes;
    }
    return usage;
}

}  // namespace

std::string cacheRoot() {
    const char* cache = std::getenv("XDG_CACHE_HOME");
    if (cache != nullptr && *cache != '\0') return (fs::path(cache) / "miravel").string();
    const char* home = std::getenv("HOME");
    if (home != nullptr && *home != '\0') return (fs::path(home) / ".cache" / "miravel").string();
    return "/tmp/miravel";
}

bool parseCacheBudget(const std::string& text, int64_t* bytes) {
    size_t end = 0;
    while (end < text.size() && std::isdigit(static_cast<unsigned char>(text[end])) != 0) ++end;
    if (end == 0 || end > 19) return false;
    int64_t scale = 1;
    if (end + 1 == text.size()) {
        switch (std::toupper(static_cast<unsigned char>(text[end]))) {
            case 'K':
                scale = int64_t{1} << 10;
                break;
            case 'M':
                scale = int64_t{1} << 20;
                break;
            case 'G':
                scale = int64_t{1} << 30;
                break;
            default:
                return false;
        }
    } else if (end != text.size()) {
        return false;
    }
    errno = 0;
    const unsigned long long number = std::strtoull(text.substr(0, end).c_str(), nullptr, 10);
    if (errno != 0 || number > static_cast<unsigned long long>(std::numeric_limits<int64_t>::max() / scale))
        return false;
    *bytes = static_cast<int64_t>(number) * scale;
    return true;
}

namespace {

std::atomic<int32_t> waveStoreSwitch{-1};

}  // namespace

int64_t cacheBudget() {
    const char* text = std::getenv("MIRAVEL_CACHE_BUDGET");
    if (text == nullptr || *text == '\0') return kDefaultBudget;
    int64_t bytes = 0;
    if (parseCacheBudget(text, &bytes)) return bytes;
    static std::atomic<bool> told{false};
    if (!told.exchange(true))
        ZOR_LOG(IBsLogger::Warning, "ZOR::DmCache::cacheBudget",
                "MIRAVEL_CACHE_BUDGET '%s' is not a number of bytes (K, M or G after it): 2G is kept", text);
    return kDefaultBudget;
}

int32_t setWaveStoreSwitch(int32_t mode) {
    waveStoreSwitch.store(mode < 0 ? -1 : (mode > 0 ? 1 : 0));
    return 0;
}

bool waveStoreEnabled() {
    const int32_t mode = waveStoreSwitch.load();
    if (mode == 0) return false;
    const char* switchText = std::getenv("MIRAVEL_WAVE_STORE");
    if (mode < 0 && switchText != nullptr && (std::string(switchText) == "0" || std::string(switchText) == "off"))
        return false;
    return cacheBudget() > 0;
}

int32_t setWaveStoreRoot(const char* path) {
    State& s = state();
    std::lock_guard<std::mutex> guard(s.lock);
    s.waveRoot = path != nullptr ? path : "";
    s.estimated = false;
    return 0;
}

std::string waveStoreRoot() {
    State& s = state();
    {
        std::lock_guard<std::mutex> guard(s.lock);
        if (!s.waveRoot.empty()) return s.waveRoot;
    }
    return (fs::path(cacheRoot()) / "waves").string();
}

DmCacheUsage cacheUsage() {
    DmCacheUsage usage;
    usage.root = cacheRoot();
    usage.budget = cacheBudget();
    listStores(&usage);
    return usage;
}

DmCacheUsage pruneCache(int64_t bytes) { return shrinkTo(std::max<int64_t>(bytes, 0), false); }

DmCacheUsage clearCache() { return shrinkTo(0, false); }

void noteCacheWrite(int64_t bytes) {
    State& s = state();
    const int64_t budget = cacheBudget();
    bool over = false;
    {
        std::lock_guard<std::mutex> guard(s.lock);
        if (s.estimated) s.estimate += std::max<int64_t>(bytes, 0);
        over = !s.estimated || s.estimate > budget;
    }
    if (!over) return;
    // One thread at a time walks the stores; the others go on writing.
    if (s.enforcing.exchange(true)) return;
    const DmCacheUsage usage = shrinkTo(budget, true);
    s.enforcing.store(false);
    if (usage.bytes > budget)
        ZOR_LOG(IBsLogger::Debug, "ZOR::DmCache::noteCacheWrite",
                "the stores hold %lld bytes, above the budget of %lld: the rest is in use",
                static_cast<long long>(usage.bytes), static_cast<long long>(budget));
}

void holdCacheFile(const std::string& path) {
    State& s = state();
    std::lock_guard<std::mutex> guard(s.lock);
    ++s.inUse[path];
}

void releaseCacheFile(const std::string& path) {
    State& s = state();
    std::lock_guard<std::mutex> guard(s.lock);
    const auto found = s.inUse.find(path);
    if (found != s.inUse.end() && --found->second <= 0) s.inUse.erase(found);
}

void touchCacheFile(const std::string& path) {
    std::error_code ec;
    fs::last_write_time(path, fs::file_time_type::clock::now(), ec);
}

}  // namespace ZOR
