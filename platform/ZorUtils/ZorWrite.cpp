// Writing files and folders: errno kept from where it happens, whole-file
// writes through a temporary, and the temporaries of writers that died.
#include "ZorUtils/ZorUtils.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <string>
#include <filesystem>
#include <map>
#include <mutex>
#include <system_error>
#include <utility>

#include "ZorWriteInternal.h"

namespace ZOR {

namespace {

constexpr const char* kTemporaryMark = ".tmp-";

// The latest failure in each folder. Bounded: a process that fails in many
// folders forgets the older ones.
class FailureRecord {
public:
    void add(std::string folder, std::string path, int error) {
        std::lock_guard<std::mutex> guard(lock_);
        if (byFolder_.size() >= 256 && byFolder_.count(folder) == 0) byFolder_.clear();
        byFolder_[std::move(folder)] = {error, std::move(path)};
    }
    int find(const std::string& folder, std::string* path) {
        std::lock_guard<std::mutex> guard(lock_);
        auto found = byFolder_.find(folder);
        if (found == byFolder_.end()) return 0;
        if (path != nullptr) *path = found->second.second;
        return found->second.first;
    }

private:
    std::mutex lock_;  // leaf
    std::map<std::string, std::pair<int, std::string>> byFolder_;
};

FailureRecord& failures() {
    static FailureRecord* record = new FailureRecord;  // never destroyed: written by worker threads until exit
    return *record;
}

// A folder as the record keys it: trailing separators dropped ("/" stays).
std::string folderKey(const std::string& dir) {
    std::string key = dir;
    while (key.size() > 1 && key.back() == '/') key.pop_back();
    return key.empty() ? std::string(".") : key;
}

// The folder a file is written into, as written in its path.
std::string folderOf(const std::string& path) {
    const std::string::size_type slash = path.find_last_of('/');
    if (slash == std::string::npos) return ".";
    return folderKey(path.substr(0, slash == 0 ? 1 : slash));
}

void recordFile(const std::string& path, int error) { failures().add(folderOf(path), path, error); }
void recordFolder(const std::string& dir, int error) { failures().add(folderKey(dir), dir, error); }

bool isFolder(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

// mkdir -p, keeping the errno of the step that failed.
int makeFolders(const std::string& dir) {
    if (dir.empty()) return EINVAL;
    if (isFolder(dir)) return 0;
    std::string::size_type end = dir.find_first_not_of('/');
    while (end != std::string::npos) {
        end = dir.find('/', end);
        const std::string step = dir.substr(0, end);
        if (::mkdir(step.c_str(), 0777) != 0) {
            const int error = errno;
            if (error != EEXIST) return error;
            if (!isFolder(step)) return ENOTDIR;
        }
        if (end != std::string::npos) end = dir.find_first_not_of('/', end);
    }
    return isFolder(dir) ? 0 : ENOTDIR;
}

// Creates a file that did not exist before, beside target. The name holds
// the process id and a per-process counter, so concurrent writers (threads
// or processes) never share one; O_EXCL guards against a stale leftover.
int createTemporary(const std::string& target, std::string& tempPath) {
    static std::atomic<unsigned long long> counter{0};
    const long pid = static_cast<long>(::getpid());
    for (int attempt = 0; attempt < 16; ++attempt) {
        tempPath = target + kTemporaryMark + std::to_string(pid) + "-" +
                   std::to_string(counter.fetch_add(1, std::memory_order_relaxed));
        const int fd = ::open(tempPath.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (fd >= 0 || errno != EEXIST) return fd;
    }
    errno = EEXIST;
    return -1;
}

// Parses the decimal digits of [begin, end) into value; false when there are
// none, or other characters, or too many.
bool parseDigits(const std::string& text, size_t begin, size_t end, long long* value) {
    if (begin >= end || end - begin > 18) return false;
    long long parsed = 0;
    for (size_t i = begin; i < end; ++i) {
        if (text[i] < '0' || text[i] > '9') return false;
        parsed = parsed * 10 + (text[i] - '0');
    }
    *value = parsed;
    return true;
}

// Parses text, all decimal digits, into value.
bool parseDigitsWhole(const std::string& text, long long* value) { return parseDigits(text, 0, text.size(), value); }

// The injected fault: the write numbered `at` (counted from 1 over the
// process) fails with `error`. Atomics only: writers on any thread count
// themselves without a lock.
struct FaultPlan {
    std::atomic<int64_t> seen{0};
    std::atomic<int64_t> at{0};  // 0: none pending
    std::atomic<int32_t> error{0};
};

FaultPlan& faultPlan() {
    static FaultPlan* plan = [] {
        auto* made = new FaultPlan;  // never destroyed: writers run until exit
        const char* text = std::getenv("MIRAVEL_WRITE_FAULT");
        if (text != nullptr) {
            const std::string value(text);
            const size_t colon = value.find(':');
            const std::string name = value.substr(0, colon);
            long long nth = 1;
            if (colon != std::string::npos && !parseDigitsWhole(value.substr(colon + 1), &nth)) nth = 0;
            int error = 0;
            for (const auto& [known, number] : {std::pair<const char*, int>{"ENOSPC", ENOSPC},
                                                {"EIO", EIO},
                                                {"EACCES", EACCES},
                                                {"EROFS", EROFS},
                                                {"EDQUOT", EDQUOT}})
                if (name == known) error = number;
            long long numeric = 0;
            if (error == 0 && parseDigitsWhole(name, &numeric)) error = static_cast<int>(numeric);
            if (error > 0 && nth > 0) {
                made->error.store(error);
                made->at.store(nth);
            }
        }
        return made;
    }();
    return *plan;
}

// Counts one write; the error it must fail with, or 0.
int takeFault() {
    FaultPlan& plan = faultPlan();
    const int64_t number = plan.seen.fetch_add(1) + 1;
    int64_t at = plan.at.load();
    if (at == 0 || number != at) return 0;
    if (!plan.at.compare_exchange_strong(at, 0)) return 0;  // cancelled or replaced meanwhile
    return plan.error.load();
}

}  // namespace

namespace write {

Outcome writeWhole(const std::string& target, const std::function<bool(std::FILE*)>& fill) {
    const int fault = takeFault();
    if (fault == EACCES || fault == EROFS) {
        recordFile(target, fault);
        return {Stage::Open, fault};
    }
    std::string tempPath;
    const int fd = createTemporary(target, tempPath);
    if (fd < 0) {
        const int error = errno;
        recordFile(target, error);
        return {Stage::Open, error};
    }
    std::FILE* file = ::fdopen(fd, "wb");
    if (file == nullptr) {
        const int error = errno;
        ::close(fd);
        ::unlink(tempPath.c_str());
        recordFile(target, error);
        return {Stage::Open, error};
    }
    errno = 0;
    bool written = fill(file);
    int error = written ? 0 : errno;
    if (written && fault != 0 && fault != EIO) {
        // As a full disk: part of the content reached the temporary.
        written = false;
        error = fault;
    }
    if (written && (std::fflush(file) != 0 || std::ferror(file) != 0)) {
        written = false;
        error = errno;
    }
    if (written && ::fsync(::fileno(file)) != 0) {
        written = false;
        error = errno;
    }
    if (written && fault == EIO) {
        written = false;
        error = EIO;
    }
    errno = 0;
    const bool closed = std::fclose(file) == 0;
    if (!written || !closed) {
        if (written) error = errno;
        if (error == 0) error = EIO;
        ::unlink(tempPath.c_str());
        recordFile(target, error);
        return {written ? Stage::Close : Stage::Write, error};
    }
    if (::rename(tempPath.c_str(), target.c_str()) != 0) {
        error = errno;
        ::unlink(tempPath.c_str());
        recordFile(target, error);
        return {Stage::Rename, error};
    }
    return {};
}

}  // namespace write

int32_t createFolder(const Path& dir) {
    const int error = makeFolders(dir.str());
    if (error != 0) recordFolder(dir.str(), error);
    return error;
}

int32_t checkFolderWritable(const Path& dir) {
    const int created = createFolder(dir);
    if (created != 0) return created;
    std::string tempPath;
    const int fd = createTemporary(PathUtil::join(dir, ".write-check").str(), tempPath);
    int error = 0;
    if (fd < 0) {
        error = errno;
    } else {
        const char byte = 0;
        if (::write(fd, &byte, 1) != 1 || ::fsync(fd) != 0) error = errno != 0 ? errno : EIO;
        if (::close(fd) != 0 && error == 0) error = errno;
        ::unlink(tempPath.c_str());
    }
    if (error != 0) recordFolder(dir.str(), error);
    return error;
}

int32_t writeFileAtomically(const char* path, const void* data, size_t size) {
    if (path == nullptr || *path == '\0' || (data == nullptr && size > 0)) return EINVAL;
    return write::writeWhole(path,
                             [&](std::FILE* file) { return size == 0 || std::fwrite(data, 1, size, file) == size; })
        .error;
}

void injectWriteFault(int32_t error, int64_t nth) {
    FaultPlan& plan = faultPlan();
    plan.at.store(0);
    if (error <= 0 || nth <= 0) return;
    plan.error.store(error);
    plan.at.store(plan.seen.load() + nth);
}

int64_t writesSeen() { return faultPlan().seen.load(); }

int32_t lastWriteFailure(const Path& dir, std::string* failedPath) {
    return failures().find(folderKey(dir.str()), failedPath);
}

std::string writeErrorText(int32_t error) {
    switch (error) {
        case ENOSPC:
        case EDQUOT:
            return "disk full";
        case EROFS:
            return "read-only file system";
        case EACCES:
        case EPERM:
            return "permission denied";
        case ENOTDIR:
            return "not a folder";
        default:
            return std::strerror(error);
    }
}

namespace {

// Whether /proc says the process has ended but is not reaped yet.
bool processIsZombie(pid_t pid) {
    std::FILE* stat = std::fopen(("/proc/" + std::to_string(pid) + "/stat").c_str(), "r");
    if (stat == nullptr) return false;
    char line[512] = {0};
    const size_t got = std::fread(line, 1, sizeof line - 1, stat);
    std::fclose(stat);
    // "pid (command) state ...": the command may hold spaces and parentheses.
    const char* close = std::strrchr(line, ')');
    if (got == 0 || close == nullptr || close[1] != ' ') return false;
    return close[2] == 'Z' || close[2] == 'X';
}

}  // namespace

bool isAbandonedTemporary(const std::string& fileName) {
    const std::string::size_type mark = fileName.rfind(kTemporaryMark);
    if (mark == std::string::npos || mark == 0) return false;
    const size_t pidBegin = mark + std::strlen(kTemporaryMark);
    const std::string::size_type dash = fileName.find('-', pidBegin);
    long long pid = 0;
    long long counter = 0;
    if (dash == std::string::npos || !parseDigits(fileName, pidBegin, dash, &pid) ||
        !parseDigits(fileName, dash + 1, fileName.size(), &counter))
        return false;
    // Not a process id at all (0 would ask about the process group).
    if (pid < 1 || pid > INT_MAX) return false;
    if (pid == static_cast<long long>(::getpid())) return false;
    // EPERM: the process exists, under another user.
    if (::kill(static_cast<pid_t>(pid), 0) != 0) return errno == ESRCH;
    // A process that was killed stays a zombie until it is reaped, which may
    // take a while once its parent is gone too: it writes nothing any more.
    return processIsZombie(static_cast<pid_t>(pid));
}

int32_t removeAbandonedTemporaries(const Path& dir) {
    int32_t removed = 0;
    std::error_code ec;
    for (auto it = std::filesystem::directory_iterator(dir.str(), ec);
         !ec && it != std::filesystem::directory_iterator(); it.increment(ec)) {
        if (!isAbandonedTemporary(it->path().filename().string())) continue;
        std::error_code removeEc;
        if (std::filesystem::remove(it->path(), removeEc)) ++removed;
    }
    return removed;
}

}  // namespace ZOR
