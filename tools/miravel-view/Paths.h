// Where the viewer keeps what it makes: the cache root and, under it, the
// demo's media and document, the media thumbnails of each media file (the
// frame store of the clip thumbnail service lives there too, in "frames",
// by the host's own default).
#pragma once

#include <atomic>
#include <string>

namespace miravel::view {

// $XDG_CACHE_HOME/miravel, else $HOME/.cache/miravel, else /tmp/miravel.
std::string cacheRoot();

// The demo's folder under a cache root, and its timeline document there.
std::string demoFolder(const std::string& root);
std::string demoDocument(const std::string& root);

// Thrown out of makeDemo() when stop was set.
struct DemoStopped {};

// Makes the demo's media and its timeline document in folder unless they are
// all there. Each file is written under a temporary name and renamed into
// place, so an interrupted run leaves no partial file and the next run makes
// what is missing. Throws demo::DemoError (naming the file and the cause), or
// DemoStopped when stop was set while it worked.
void makeDemo(const std::string& folder, const std::atomic<bool>& stop);

// Writes a long document of clips cut from the demo's media (made under the
// cache root when missing) at path, its media named by absolute paths.
void writeManyClipsDocument(const std::string& root, const std::string& path, int clips);

// The folder under which the media thumbnail manager keeps the pictures of
// one media file (one folder per file, since its picture files do not name
// their media): named after the file and a digest of its canonical path,
// size and modification time, so that a changed file gets fresh pictures.
// Reads the file's metadata: not for the UI thread.
std::string mediaThumbnailRoot(const std::string& root, const std::string& mediaPath);

// Writes text to path through a temporary file in the same folder, renamed
// into place. Throws demo::DemoError on failure.
void writeFileAtomically(const std::string& path, const std::string& text);

}  // namespace miravel::view
