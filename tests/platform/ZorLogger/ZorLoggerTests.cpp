#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <latch>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "CapturingLogger.h"
#include "ZorLogger/ZorLogger.h"

namespace ZOR::test {
namespace {

std::filesystem::path freshFolder(const std::string& name) {
    auto folder =
        std::filesystem::temp_directory_path() / ("miravel-logger-" + name + "-" + std::to_string(::getpid()));
    std::filesystem::remove_all(folder);
    std::filesystem::create_directories(folder);
    return folder;
}

std::vector<std::string> readLines(const std::filesystem::path& file) {
    std::ifstream in(file);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

// Restores MIRAVEL_LOG as it was.
class EnvironmentGuard {
public:
    EnvironmentGuard() {
        if (const char* value = std::getenv("MIRAVEL_LOG")) saved_ = value;
    }
    ~EnvironmentGuard() {
        if (saved_.empty())
            ::unsetenv("MIRAVEL_LOG");
        else
            ::setenv("MIRAVEL_LOG", saved_.c_str(), 1);
    }
    EnvironmentGuard(const EnvironmentGuard&) = delete;
    EnvironmentGuard& operator=(const EnvironmentGuard&) = delete;

private:
    std::string saved_;
};

TEST(ZorLogger, WrapperIsNullUntilLoggingIsSetUpAndAfterShutdown) {
    shutdownLogging();
    EXPECT_EQ(loggerWrapper(0), nullptr);
    {
        ScopedCapture capture;
        EXPECT_EQ(loggerWrapper(0), &capture.wrapper());
    }
    EXPECT_EQ(loggerWrapper(0), nullptr);
}

TEST(ZorLogger, ThresholdLetsThroughItsSeverityAndAbove) {
    ScopedCapture capture(IBsLogger::Info);
    ZorLoggerWrapper& wrapper = capture.wrapper();
    EXPECT_FALSE(wrapper.testSeverity(IBsLogger::Trace));
    EXPECT_FALSE(wrapper.testSeverity(IBsLogger::Timing));
    EXPECT_TRUE(wrapper.testSeverity(IBsLogger::Info));
    EXPECT_TRUE(wrapper.testSeverity(IBsLogger::Error));
    wrapper.setThreshold(IBsLogger::Off);
    EXPECT_FALSE(wrapper.testSeverity(IBsLogger::Fatal));
}

TEST(ZorLogger, StreamFormatsAndAppendsStringStreams) {
    ScopedCapture capture;
    {
        std::ostringstream extra;
        extra << " and " << 3.5;
        LogStream stream = capture.wrapper().createLogStream(IBsLogger::Warning, "f", 9, "ZOR::X::y", "t");
        stream.format("size %d x %d", 4, 5) & std::move(extra);
    }
    const auto lines = capture.sink().lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].text, "size 4 x 5 and 3.5");
    EXPECT_EQ(lines[0].tag, "t");
    EXPECT_EQ(lines[0].line, 9);
}

TEST(ZorLogger, LongFormattedTextIsNotTruncated) {
    ScopedCapture capture;
    const std::string long_text(5000, 'x');
    capture.wrapper().createLogStream(IBsLogger::Info, "f", 1, "g", "").format("<%s>", long_text.c_str());
    ASSERT_EQ(capture.sink().lines().size(), 1u);
    EXPECT_EQ(capture.sink().lines()[0].text, "<" + long_text + ">");
}

TEST(ZorLogger, MovedFromStreamWritesNothing) {
    ScopedCapture capture;
    {
        LogStream first = capture.wrapper().createLogStream(IBsLogger::Info, "f", 1, "g", "");
        first.format("once");
        LogStream second(std::move(first));
    }
    EXPECT_EQ(capture.sink().texts(), std::vector<std::string>({"once"}));
}

TEST(ZorLogger, SeverityNamesAndNumbersParse) {
    EXPECT_EQ(severityFromName("trace"), IBsLogger::Trace);
    EXPECT_EQ(severityFromName("TIMING"), IBsLogger::Timing);
    EXPECT_EQ(severityFromName("Warn"), IBsLogger::Warning);
    EXPECT_EQ(severityFromName("warning"), IBsLogger::Warning);
    EXPECT_EQ(severityFromName("off"), IBsLogger::Off);
    EXPECT_EQ(severityFromName("4"), IBsLogger::Info);
    EXPECT_EQ(severityFromName("9"), std::nullopt);
    EXPECT_EQ(severityFromName("loud"), std::nullopt);
    EXPECT_EQ(severityFromName(""), std::nullopt);
    EXPECT_STREQ(severityName(IBsLogger::Error), "error");
}

TEST(ZorLogger, MiravelLogOverridesHostThreshold) {
    EnvironmentGuard guard;
    ::setenv("MIRAVEL_LOG", "error", 1);
    auto sink = std::make_shared<CapturingSink>();
    ZorLoggerWrapper* wrapper = setupLogging(sink, IBsLogger::Trace);
    EXPECT_EQ(wrapper->threshold(), IBsLogger::Error);
    shutdownLogging();

    ::setenv("MIRAVEL_LOG", "nonsense", 1);  // invalid: the host's threshold stays
    wrapper = setupLogging(sink, IBsLogger::Trace);
    EXPECT_EQ(wrapper->threshold(), IBsLogger::Trace);
    shutdownLogging();
}

TEST(ZorLogger, FormattedRecordCarriesTimeThreadSeverityTagFunctionFileLineAndText) {
    IBsLogger::Record record{IBsLogger::Warning,
                             std::chrono::system_clock::time_point(std::chrono::microseconds(1'700'000'000'123'456LL)),
                             4242,
                             "performance",
                             "ZOR::ScopeTimeSpan::~ScopeTimeSpan",
                             "Include/Common/ZorInternalComUtility",
                             56,
                             "load cost 12 milliSecond."};
    EXPECT_EQ(formatRecord(record),
              "2023-11-14T22:13:20.123456Z 4242 warning [performance] ZOR::ScopeTimeSpan::~ScopeTimeSpan "
              "(Include/Common/ZorInternalComUtility:56) load cost 12 milliSecond.");
}

TEST(ZorLogger, FileSinkAppendsOneLinePerRecord) {
    const auto folder = freshFolder("file");
    const auto file = folder / "miravel.log";
    std::string error;
    auto sink = makeFileLogger(file.string(), &error);
    ASSERT_NE(sink, nullptr) << error;
    ZorLoggerWrapper* wrapper = setupLogging(sink, IBsLogger::Verbose);
    wrapper->setThreshold(IBsLogger::Verbose);
    wrapper->createLogStream(IBsLogger::Info, "modules/BaseService/Miravel/X", 12, "ZOR::X::y", "")
        .format("hello %d", 1);
    wrapper->createLogStream(IBsLogger::Error, "modules/BaseService/Miravel/X", 13, "ZOR::X::z", "").format("bye");
    shutdownLogging();
    sink.reset();
    const auto lines = readLines(file);
    ASSERT_EQ(lines.size(), 2u);
    const std::regex shape(R"(^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z \d+ info \[\] ZOR::X::y )"
                           R"(\(modules/BaseService/Miravel/X:12\) hello 1$)");
    EXPECT_TRUE(std::regex_match(lines[0], shape)) << lines[0];
    EXPECT_NE(lines[1].find(" error [] ZOR::X::z (modules/BaseService/Miravel/X:13) bye"), std::string::npos);
    std::filesystem::remove_all(folder);
}

TEST(ZorLogger, FileSinkOnMissingFolderFailsNamingThePath) {
    std::string error;
    auto sink = makeFileLogger("/nonexistent-miravel-folder/x.log", &error);
    EXPECT_EQ(sink, nullptr);
    EXPECT_EQ(error, "/nonexistent-miravel-folder/x.log: No such file or directory");
}

TEST(ZorLogger, StderrSinkWritesFormattedLine) {
    testing::internal::CaptureStderr();
    ZorLoggerWrapper* wrapper = setupLogging(makeStderrLogger(), IBsLogger::Verbose);
    wrapper->setThreshold(IBsLogger::Verbose);
    wrapper->createLogStream(IBsLogger::Trace, "file", 3, "ZOR::A::b", "").format("to stderr");
    shutdownLogging();
    const std::string written = testing::internal::GetCapturedStderr();
    EXPECT_NE(written.find(" trace [] ZOR::A::b (file:3) to stderr\n"), std::string::npos) << written;
}

}  // namespace
}  // namespace ZOR::test
