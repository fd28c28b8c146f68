// A fresh, empty folder for one test, removed again when the test ends.
#pragma once

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <set>
#include <string>
#include <system_error>

#include <gtest/gtest.h>

namespace ZOR::test {

class TempFolder {
public:
    // Named after the process, a counter and the running test, if any.
    TempFolder() {
        static std::atomic<int> counter{0};
        const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
        std::string name = "miravel-test-" + std::to_string(::getpid()) + "-" + std::to_string(counter.fetch_add(1));
        if (info != nullptr) name += std::string("-") + info->name();
        // Parameterised tests are named "Test/Param": one folder, not two.
        std::replace(name.begin(), name.end(), '/', '-');
        path_ = std::filesystem::temp_directory_path() / name;
        std::error_code ec;
        std::filesystem::remove_all(path_, ec);
        std::filesystem::create_directories(path_, ec);
        EXPECT_FALSE(ec) << "cannot create " << path_ << ": " << ec.message();
    }
    ~TempFolder() {
        // Give back the write permission a test may have taken away, everywhere.
        std::error_code ec;
        std::filesystem::permissions(path_, std::filesystem::perms::owner_all, std::filesystem::perm_options::add, ec);
        for (auto it = std::filesystem::recursive_directory_iterator(path_, ec);
             !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec))
            if (it->is_directory(ec))
                std::filesystem::permissions(it->path(), std::filesystem::perms::owner_all,
                                             std::filesystem::perm_options::add, ec);
        std::filesystem::remove_all(path_, ec);
    }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    const std::filesystem::path& path() const { return path_; }
    std::string file(const std::string& name) const { return (path_ / name).string(); }

    // The names of the entries directly inside a folder.
    static std::set<std::string> entries(const std::filesystem::path& folder) {
        std::set<std::string> names;
        std::error_code ec;
        for (auto it = std::filesystem::directory_iterator(folder, ec);
             !ec && it != std::filesystem::directory_iterator(); it.increment(ec))
            names.insert(it->path().filename().string());
        return names;
    }

private:
    std::filesystem::path path_;
};

}  // namespace ZOR::test
