#include "DataModel/DmCache.h"
#include "Paths.h"

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "DemoDocument.h"
#include "DemoMedia.h"
#include "ZorUtils/ZorUtils.h"

namespace miravel::view {
namespace {

namespace fs = std::filesystem;

bool allThere(const std::initializer_list<fs::path>& files) {
    std::error_code error;
    for (const fs::path& file : files)
        if (!fs::is_regular_file(file, error)) return false;
    return true;
}

// FNV-1a, 64 bits: a short stable digest for folder names.
uint64_t digest(const std::string& text) {
    uint64_t hash = 1469598103934665603ull;
    for (const unsigned char c : text) {
        hash ^= c;
        hash *= 1099511628211ull;
    }
    return hash;
}

std::string safeName(const std::string& name) {
    std::string safe;
    for (const char c : name) {
        const bool kept = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
                          c == '-' || c == '_';
        safe += kept ? c : '_';
    }
    if (safe.empty() || safe.front() == '.') safe.insert(safe.begin(), '_');
    return safe;
}

}  // namespace

std::string cacheRoot() { return ZOR::cacheRoot(); }

std::string demoFolder(const std::string& root) { return (fs::path(root) / "demo").string(); }

std::string demoDocument(const std::string& root) { return (fs::path(demoFolder(root)) / "timeline.otio").string(); }

void writeFileAtomically(const std::string& path, const std::string& text) {
    if (const int32_t error = ZOR::writeFileAtomically(path.c_str(), text.data(), text.size()); error != 0)
        throw demo::DemoError(path + ": cannot write: " + ZOR::writeErrorText(error));
}

void makeDemo(const std::string& folder, const std::atomic<bool>& stop) {
    const fs::path dir(folder);
    const fs::path document = dir / "timeline.otio";
    if (allThere({dir / "video.mp4", dir / "music.wav", dir / "voice.wav", document})) return;
    std::error_code error;
    fs::create_directories(dir, error);
    if (error) throw demo::DemoError(folder + ": cannot create the folder: " + error.message());
    if (!allThere({dir / "video.mp4", dir / "music.wav", dir / "voice.wav"})) {
        // Thrown from the progress callback, DemoStopped unwinds the writer,
        // which removes the file it was writing.
        demo::writeDemoMedia(folder, [&](double) {
            if (stop.load()) throw DemoStopped{};
        });
    }
    if (stop.load()) throw DemoStopped{};
    writeFileAtomically(document.string(), demo::demoTimelineDocument());
}

void writeManyClipsDocument(const std::string& root, const std::string& path, int clips) {
    const std::atomic<bool> never{false};
    const std::string folder = demoFolder(root);
    makeDemo(folder, never);
    const std::string text = demo::manyClipsDocument(clips, fs::absolute(fs::path(folder)).lexically_normal().string());
    writeFileAtomically(path, text);
}

std::string mediaThumbnailRoot(const std::string& root, const std::string& mediaPath) {
    std::error_code error;
    fs::path canonical = fs::weakly_canonical(fs::path(mediaPath), error);
    if (error) canonical = fs::absolute(fs::path(mediaPath), error).lexically_normal();
    std::string identity = canonical.string();
    const auto size = fs::file_size(canonical, error);
    if (!error) {
        identity += '|';
        identity += std::to_string(size);
    }
    const auto time = fs::last_write_time(canonical, error);
    if (!error) {
        identity += '|';
        identity += std::to_string(time.time_since_epoch().count());
    }
    char hex[17];
    std::snprintf(hex, sizeof hex, "%016llx", static_cast<unsigned long long>(digest(identity)));
    return (fs::path(root) / "media-thumbnails" / (safeName(canonical.filename().string()) + "-" + hex)).string();
}

}  // namespace miravel::view
