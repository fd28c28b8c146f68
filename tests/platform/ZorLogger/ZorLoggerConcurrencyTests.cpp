#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <latch>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

#include "ZorLogger/ZorLogger.h"

namespace ZOR::test {
namespace {

std::vector<std::string> readLines(const std::filesystem::path& file) {
    std::ifstream in(file);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

TEST(ZorLoggerConcurrency, LinesFromManyThreadsArriveWholeInTheFile) {
    constexpr int kThreads = 4;
    constexpr int kLines = 500;
    const auto folder =
        std::filesystem::temp_directory_path() / ("miravel-logger-threads-" + std::to_string(::getpid()));
    std::filesystem::remove_all(folder);
    std::filesystem::create_directories(folder);
    const auto file = folder / "threads.log";
    std::string error;
    auto sink = makeFileLogger(file.string(), &error);
    ASSERT_NE(sink, nullptr) << error;
    ZorLoggerWrapper* wrapper = setupLogging(sink, IBsLogger::Verbose);
    wrapper->setThreshold(IBsLogger::Verbose);
    std::latch start(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            start.arrive_and_wait();
            for (int i = 0; i < kLines; ++i)
                if (ZorLoggerWrapper* w = loggerWrapper(0))
                    w->createLogStream(IBsLogger::Info, "f", 1, "g", "").format("thread %d line %d end", t, i);
        });
    for (auto& thread : threads) thread.join();
    shutdownLogging();
    sink.reset();
    const auto lines = readLines(file);
    ASSERT_EQ(lines.size(), static_cast<size_t>(kThreads * kLines));
    const std::regex whole(R"(.* info \[\] g \(f:1\) thread \d line \d+ end$)");
    for (const auto& line : lines) ASSERT_TRUE(std::regex_match(line, whole)) << line;
    std::filesystem::remove_all(folder);
}

}  // namespace
}  // namespace ZOR::test
