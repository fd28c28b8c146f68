// A fresh, empty folder for one test, removed again when the test ends.
#pragma once

#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <set>
#include <string>
#include <system_error>

#include <gtest/gtest.h>

namespace ZorTest {

class TestFolder {
public:
    TestFolder() {
        static std::atomic<int> counter{0};
        const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
        std::string name = "miravel-zorutils-" + std::to_string(::getpid()) + "-" +
                           std::to_string(counter.fetch_add(1));
        if (info) {
            name += std::string("-") + info->name();
        }
        path_ = std::filesystem::temp_directory_path() / name;
        std::error_code ec;
        std::filesystem::remove_all(path_, ec);
        std::filesystem::create_directories(path_, ec);
        EXPECT_FALSE(ec) << "cannot create " << path_ << ": " << ec.message();
    }

    ~TestFolder() {
        // Give back write permission a test may have taken away, everywhere.
        std::error_code ec;
        std::filesystem::permissions(path_, std::filesystem::perms::owner_all,
                                     std::filesystem::perm_options::add, ec);
        for (auto it = std::filesystem::recursive_directory_iterator(path_, ec);
             !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
            if (it->is_directory(ec)) {
                std::filesystem::permissions(it->path(), std::filesystem::perms::owner_all,
                                             std::filesystem::perm_options::add, ec);
            }
        }
        std::filesystem::remove_all(path_, ec);
    }

    TestFolder(const TestFolder&) = delete;
    TestFolder& operator=(const TestFolder&) = delete;

    const std::filesystem::path& path() const { return path_; }
    std::string file(const std::string& name) const { return (path_ / name).string(); }

    // Names of the entries directly inside a folder.
    static std::set<std::string> entries(const std::filesystem::path& dir) {
        std::set<std::string> names;
        std::error_code ec;
        for (auto it = std::filesystem::directory_iterator(dir, ec);
             !ec && it != std::filesystem::directory_iterator(); it.increment(ec)) {
            names.insert(it->path().filename().string());
        }
        return names;
    }

private:
    std::filesystem::path path_;
};

}  // namespace ZorTest
