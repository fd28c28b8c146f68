// Watching a task's reports and the process's threads in tests.
#pragma once

#include <dirent.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "BackgroundTaskManager/BackgroundTaskManager.h"
#include "Common/ZorInternalComUtility.h"
#include "TaskRecording.h"
#include "Timeouts.h"

namespace ZOR::test {

// The number of threads of this process.
inline int threadCount() {
    int count = 0;
    if (DIR* dir = ::opendir("/proc/self/task")) {
        while (const dirent* entry = ::readdir(dir))
            if (entry->d_name[0] != '.') ++count;
        ::closedir(dir);
    }
    return count;
}

}  // namespace ZOR::test
