// Paths and folders. Nothing here throws: every std::filesystem call takes an
// error_code.
#include "ZorUtils/ZorUtils.h"

#include <filesystem>
#include <system_error>

namespace ZOR {

namespace fs = std::filesystem;

Path PathUtil::join(const Path& dir, const std::string& name) {
    if (dir.empty()) {
        return Path(name);
    }
    const std::string& head = dir.str();
    std::string::size_type headEnd = head.find_last_not_of('/');
    // A dir made only of slashes is the root: keep none of them, the separator
    // added below stands for it.
    std::string result = headEnd == std::string::npos ? std::string() : head.substr(0, headEnd + 1);
    std::string::size_type nameStart = name.find_first_not_of('/');
    result += '/';
    if (nameStart != std::string::npos) {
        result.append(name, nameStart, std::string::npos);
    }
    return Path(std::move(result));
}

bool PathUtil::exists(const Path& path) {
    if (path.empty()) {
        return false;
    }
    std::error_code ec;
    return fs::exists(fs::path(path.str()), ec) && !ec;
}

bool DirUtil::create(const Path& dir) { return !dir.empty() && createFolder(dir) == 0; }

bool DirUtil::removeAll(const Path& dir) {
    if (dir.empty()) {
        return false;
    }
    std::error_code ec;
    fs::remove_all(fs::path(dir.str()), ec);
    return !ec;
}

}  // namespace ZOR
