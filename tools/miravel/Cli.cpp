#include "Cli.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "ZorLogger/ZorLogger.h"

extern "C" {
#include <libavutil/log.h>
}

namespace miravel {

Arguments::Arguments(int argc, char** argv, int first, const std::vector<std::string>& options,
                     const std::vector<std::string>& flags) {
    const auto isOption = [&](const std::string& name) {
        return std::find(options.begin(), options.end(), name) != options.end();
    };
    const auto isFlag = [&](const std::string& name) {
        return std::find(flags.begin(), flags.end(), name) != flags.end();
    };
    for (int i = first; i < argc; ++i) {
        const std::string word = argv[i];
        if (word.rfind("--", 0) == 0 && word.size() > 2) {
            const std::string name = word.substr(2);
            if (isFlag(name)) {
                values_[name] = "";
            } else if (isOption(name) || name == "log" || name == "log-file") {
                if (i + 1 >= argc) throw UsageError("--" + name + " needs a value");
                values_[name] = argv[++i];
            } else {
                throw UsageError("unknown option " + word);
            }
        } else {
            positional_.push_back(word);
        }
    }
}

bool Arguments::has(const std::string& name) const { return values_.count(name) != 0; }

std::optional<std::string> Arguments::text(const std::string& name) const {
    auto found = values_.find(name);
    if (found == values_.end()) return std::nullopt;
    return found->second;
}

std::string Arguments::required(const std::string& name) const {
    auto value = text(name);
    if (!value) throw UsageError("--" + name + " is required");
    return *value;
}

int64_t parseInteger(const std::string& option, const std::string& text) {
    if (text.empty()) throw UsageError(option + " needs a whole number");
    errno = 0;
    char* end = nullptr;
    const long long value = std::strtoll(text.c_str(), &end, 10);
    if (errno != 0 || end == nullptr || *end != '\0')
        throw UsageError(option + " needs a whole number, not '" + text + "'");
    return value;
}

int64_t Arguments::integer(const std::string& name, int64_t fallback) const {
    auto value = text(name);
    return value ? parseInteger("--" + name, *value) : fallback;
}

int64_t Arguments::requiredInteger(const std::string& name) const {
    return parseInteger("--" + name, required(name));
}

std::vector<int64_t> Arguments::integerList(const std::string& name) const {
    const std::string list = required(name);
    std::vector<int64_t> values;
    size_t start = 0;
    while (start <= list.size()) {
        const size_t comma = list.find(',', start);
        const std::string item = list.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
        values.push_back(parseInteger("--" + name, item));
        if (comma == std::string::npos) break;
        start = comma + 1;
    }
    return values;
}

std::chrono::seconds commandTimeout(const Arguments& arguments) {
    const int64_t timeout = arguments.integer("timeout", 600);
    if (timeout < 1 || timeout > 1'000'000'000) throw UsageError("--timeout needs a number of seconds, at least 1");
    return std::chrono::seconds(timeout);
}

std::pair<int32_t, int32_t> Arguments::size(const std::string& name, std::pair<int32_t, int32_t> fallback) const {
    auto value = text(name);
    if (!value) return fallback;
    const size_t x = value->find('x');
    if (x == std::string::npos) throw UsageError("--" + name + " needs WxH, not '" + *value + "'");
    const int64_t width = parseInteger("--" + name, value->substr(0, x));
    const int64_t height = parseInteger("--" + name, value->substr(x + 1));
    if (width < 1 || height < 1 || width > 16384 || height > 16384)
        throw UsageError("--" + name + " needs sides from 1 to 16384, not '" + *value + "'");
    return {static_cast<int32_t>(width), static_cast<int32_t>(height)};
}

void setupCommandLogging(const Arguments& arguments) {
    std::optional<ZOR::IBsLogger::Severity> threshold;
    if (auto name = arguments.text("log")) {
        threshold = ZOR::severityFromName(*name);
        if (!threshold) throw UsageError("--log needs a severity (trace, timing, debug, info, warning, error, off)");
    } else {
        threshold = ZOR::severityFromEnvironment();
    }
    auto file = arguments.text("log-file");
    if (!threshold && !file) return;
    std::shared_ptr<ZOR::IBsLogger> sink;
    if (file) {
        std::string error;
        sink = ZOR::makeFileLogger(*file, &error);
        if (!sink) throw Failure("cannot open the log file " + error);
    } else {
        sink = ZOR::makeStderrLogger();
    }
    ZOR::ZorLoggerWrapper* wrapper = ZOR::setupLogging(sink, threshold.value_or(ZOR::IBsLogger::Info));
    // --log wins over MIRAVEL_LOG.
    if (arguments.has("log")) wrapper->setThreshold(*threshold);
}

namespace {

void forwardFfmpegMessage(void* object, int level, const char* format, va_list arguments) {
    if (level > av_log_get_level()) return;
    ZOR::ZorLoggerWrapper* logger = ZOR::loggerWrapper(0);
    if (logger == nullptr) return;
    ZOR::IBsLogger::Severity severity = ZOR::IBsLogger::Verbose;
    if (level <= AV_LOG_ERROR)
        severity = ZOR::IBsLogger::Warning;
    else if (level <= AV_LOG_WARNING)
        severity = ZOR::IBsLogger::Debug;
    else if (level <= AV_LOG_INFO)
        severity = ZOR::IBsLogger::Trace;
    if (!logger->testSeverity(severity)) return;
    char line[1024];
    int printPrefix = 1;
    av_log_format_line2(object, level, format, arguments, line, sizeof line, &printPrefix);
    std::string text = line;
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
    if (text.empty()) return;
    logger->createLogStream(severity, "ffmpeg", 0, "ffmpeg", "").format("%s", text.c_str());
}

}  // namespace

void routeFfmpegLogging() { av_log_set_callback(forwardFfmpegMessage); }

Progress::Progress(std::string label)
    : label_(std::move(label)), terminal_(::isatty(STDERR_FILENO) != 0), started_(std::chrono::steady_clock::now()) {}

void Progress::update(double fraction) {
    fraction = std::clamp(fraction, 0.0, 1.0);
    const int percent = static_cast<int>(fraction * 100.0);
    if (terminal_) {
        if (percent == lastShown_) return;
        lastShown_ = percent;
        draw(percent);
    } else {
        const int tenth = percent / 10;
        if (tenth == lastShown_) return;
        lastShown_ = tenth;
        std::fprintf(stderr, "%s: %d%%\n", label_.c_str(), tenth * 10);
        std::fflush(stderr);
    }
}

int64_t Progress::seconds() const {
    return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - started_).count();
}

void Progress::tick() {
    if (!terminal_ || finished_ || lastShown_ < 0) return;
    if (seconds() != lastSeconds_) draw(lastShown_);
}

void Progress::draw(int percent) {
    lastSeconds_ = seconds();
    const int filled = percent * 30 / 100;
    std::fprintf(stderr, "\r%s [%.*s%*s] %3d%% %3lld s", label_.c_str(), filled, "##############################",
                 30 - filled, "", percent, static_cast<long long>(lastSeconds_));
    std::fflush(stderr);
}

void Progress::finish() {
    if (finished_) return;
    finished_ = true;
    if (terminal_ && lastShown_ >= 0) std::fputc('\n', stderr);
}

Progress::~Progress() { finish(); }

}  // namespace miravel
