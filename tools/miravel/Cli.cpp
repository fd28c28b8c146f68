#include "Cli.h"

#include "Usage.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <optional>

#include "ZorLogger/ZorLogger.h"
#include "ZorUtils/ZorUtils.h"

extern "C" {
#include <libavutil/log.h>
}

namespace miravel {

Arguments::Arguments(int argc, char** argv, int first, const CommandSpec& command) {
    std::vector<std::string> options;
    std::vector<std::string> flags;
    for (const auto* list : {&command.required, &command.optional})
        for (const OptionSpec& option : *list) (*option.value == '\0' ? flags : options).push_back(option.name);
    const auto isOption = [&](const std::string& name) {
        return std::find(options.begin(), options.end(), name) != options.end();
    };
    const auto isFlag = [&](const std::string& name) {
        return std::find(flags.begin(), flags.end(), name) != flags.end();
    };
    bool optionsEnded = false;
    for (int i = first; i < argc; ++i) {
        const std::string word = argv[i];
        if (!optionsEnded && word == "--") {
            // What follows is positional even when it starts with "-".
            optionsEnded = true;
            continue;
        }
        if (!optionsEnded && (word == "--help" || word == "-h")) throw HelpRequested(command);
        if (!optionsEnded && word.rfind("--", 0) == 0 && word.size() > 2) {
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

namespace {

// A whole number, or nothing when the text is not one (or is beyond int64).
std::optional<int64_t> wholeNumber(const std::string& text) {
    if (text.empty()) return std::nullopt;
    errno = 0;
    char* end = nullptr;
    const long long value = std::strtoll(text.c_str(), &end, 10);
    if (errno != 0 || end == nullptr || *end != '\0') return std::nullopt;
    return value;
}

std::string sizeText(const Limit& side, const Limit& bytes) {
    return "WxH, each side " + rangeText(side) + " and W x H x 4 at most " + std::to_string(bytes.max) + " " +
           bytes.unit;
}

}  // namespace

int64_t boundedInteger(const std::string& option, const std::string& text, const Limit& limit) {
    const std::optional<int64_t> value = wholeNumber(text);
    if (!value || *value < limit.min || *value > limit.max)
        throw UsageError(option + " needs a whole number " + rangeText(limit) + ", not '" + text + "'");
    return *value;
}

int64_t Arguments::integer(const std::string& name, const Limit& limit, int64_t fallback) const {
    auto value = text(name);
    return value ? boundedInteger("--" + name, *value, limit) : fallback;
}

int64_t Arguments::requiredInteger(const std::string& name, const Limit& limit) const {
    return boundedInteger("--" + name, required(name), limit);
}

double Arguments::number(const std::string& name, const Limit& limit, double fallback) const {
    auto value = text(name);
    if (!value) return fallback;
    errno = 0;
    char* end = nullptr;
    const double number = std::strtod(value->c_str(), &end);
    if (value->empty() || errno != 0 || end == nullptr || *end != '\0' ||
        !(number >= static_cast<double>(limit.min) && number <= static_cast<double>(limit.max)))
        throw UsageError("--" + name + " needs a number " + rangeText(limit) + ", not '" + *value + "'");
    return number;
}

std::vector<int64_t> Arguments::times(const std::string& name) const {
    const std::string list = required(name);
    std::vector<int64_t> values;
    size_t start = 0;
    while (start <= list.size()) {
        const size_t comma = list.find(',', start);
        const std::string item = list.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
        const std::optional<int64_t> time = wholeNumber(item);
        if (!time || *time < limits::time.min || *time > limits::time.max)
            throw UsageError("--" + name + " needs whole numbers " + rangeText(limits::time) + ", not '" + item + "'");
        values.push_back(*time);
        if (comma == std::string::npos) break;
        start = comma + 1;
    }
    if (static_cast<int64_t>(values.size()) > limits::timeCount.max)
        throw UsageError("--" + name + " takes at most " + std::to_string(limits::timeCount.max) + " times, not " +
                         std::to_string(values.size()));
    return values;
}

std::chrono::seconds commandTimeout(const Arguments& arguments) {
    return std::chrono::seconds(arguments.integer("timeout", limits::timeout, 600));
}

bool pictureAllowed(int64_t width, int64_t height) {
    return width >= limits::side.min && height >= limits::side.min && width <= limits::side.max &&
           height <= limits::side.max && width * height * 4 <= limits::pictureBytes.max;
}

std::pair<int32_t, int32_t> Arguments::size(const std::string& name, std::pair<int32_t, int32_t> fallback) const {
    auto value = text(name);
    if (!value) return fallback;
    const size_t x = value->find('x');
    const std::optional<int64_t> width = x == std::string::npos ? std::nullopt : wholeNumber(value->substr(0, x));
    const std::optional<int64_t> height = x == std::string::npos ? std::nullopt : wholeNumber(value->substr(x + 1));
    if (!width || !height || !pictureAllowed(*width, *height))
        throw UsageError("--" + name + " needs " + sizeText(limits::side, limits::pictureBytes) + ", not '" + *value +
                         "'");
    return {static_cast<int32_t>(*width), static_cast<int32_t>(*height)};
}

std::string printable(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (const unsigned char c : text) {
        switch (c) {
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                if (c < 0x20 || c == 0x7f) {
                    char escaped[8];
                    std::snprintf(escaped, sizeof escaped, "\\x%02x", c);
                    out += escaped;
                } else {
                    out += static_cast<char>(c);
                }
        }
    }
    return out;
}

void failToWrite(const std::string& path, const std::string& what, int32_t error) {
    throw Failure(path + ": cannot write " + what + ": " +
                  (error != 0 ? ZOR::writeErrorText(error) : std::string("unknown cause")));
}

void requireWritableFolder(const std::string& folder, const std::string& what) {
    if (const int32_t error = ZOR::checkFolderWritable(folder); error != 0) failToWrite(folder, what, error);
}

int32_t writeProblemIn(const std::string& folder) {
    if (const int32_t error = ZOR::lastWriteFailure(folder, nullptr); error != 0) return error;
    return ZOR::checkFolderWritable(folder);
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
