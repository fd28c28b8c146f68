// Folder change notifications, on inotify.
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>

#include "ZorUtils/ZorUtils.h"

namespace ZOR {

namespace {

constexpr uint32_t kEntryChanges = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_CLOSE_WRITE | IN_MODIFY |
                                   IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
// Events after which the watch can no longer tell: the queue overflowed, or
// the folder went (its watch is then removed).
constexpr uint32_t kLost = IN_Q_OVERFLOW | IN_IGNORED | IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT;

}  // namespace

FolderWatch::FolderWatch(const Path& path) {
    handle_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (handle_ < 0) return;
    if (inotify_add_watch(handle_, path.c_str(), kEntryChanges) < 0) return;
    broken_ = false;
}

FolderWatch::~FolderWatch() {
    if (handle_ >= 0) ::close(handle_);
}

bool FolderWatch::valid() const { return !broken_; }

bool FolderWatch::changed() {
    if (broken_) return true;
    bool any = false;
    alignas(inotify_event) char buffer[4096];
    for (;;) {
        const ssize_t got = ::read(handle_, buffer, sizeof buffer);
        if (got < 0) {
            if (errno == EINTR) continue;
            if (errno == EAGAIN || errno == EWOULDBLOCK) break;
            broken_ = true;
            return true;
        }
        if (got == 0) break;
        for (ssize_t at = 0; at + static_cast<ssize_t>(sizeof(inotify_event)) <= got;) {
            const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
            if ((event->mask & kLost) != 0) broken_ = true;
            any = true;
            at += static_cast<ssize_t>(sizeof(inotify_event)) + event->len;
        }
    }
    return any || broken_;
}

}  // namespace ZOR
